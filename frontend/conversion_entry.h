#pragma once
#include <cstdint>

#include "core/status.h"

namespace glyptora_internal {

// The exported conversion: argument checks, string conversion, request decoding, then the
// in-process conversion, or with flag 32 the conversion server's. No exception leaves it:
// out-of-memory and any other failure become a status.
Status convertEntry(void* destination, const void* source, const wchar_t* destinationFormat,
                    const wchar_t* sourceFormat, const wchar_t* options, uint32_t flags, uint32_t dimension,
                    uint32_t width, uint32_t height, uint32_t depth, uint32_t mipCount);

// The same from narrow strings, without the argument checks and the exception boundary
// (the bench and the server call it).
Status convertNarrow(void* destination, const void* source, const char* destinationFormat, const char* sourceFormat,
                     const char* options, uint32_t flags, uint32_t dimension, uint32_t width, uint32_t height,
                     uint32_t depth, uint32_t mipCount);

}  // namespace glyptora_internal
