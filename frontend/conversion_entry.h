#pragma once
#include <cstdint>

namespace glyptora_internal {

// The exported conversion: argument checks, string conversion, then the in-process
// conversion (flag 32, the server route, is not available in this build and fails).
bool convertEntry(void* destination, const void* source, const wchar_t* destinationFormat,
                  const wchar_t* sourceFormat, const wchar_t* options, uint32_t flags, uint32_t dimension,
                  uint32_t width, uint32_t height, uint32_t depth, uint32_t mipCount);

// A decoded request converted in this process.
bool convertInProcess(void* destination, const void* source, const char* destinationFormat,
                      const char* sourceFormat, const char* options, uint32_t flags, uint32_t dimension,
                      uint32_t width, uint32_t height, uint32_t depth, uint32_t mipCount);

}  // namespace glyptora_internal
