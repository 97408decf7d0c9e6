#include "frontend/conversion_entry.h"

#include <string>

#include "frontend/request_decoding.h"
#include "frontend/wide_string.h"

namespace glyptora_internal {

bool convertEntry(void* destination, const void* source, const wchar_t* destinationFormat,
                  const wchar_t* sourceFormat, const wchar_t* options, uint32_t flags, uint32_t dimension,
                  uint32_t width, uint32_t height, uint32_t depth, uint32_t mipCount) {
    if (!destination || !source || !destinationFormat || !sourceFormat || !options) return false;
    const std::string destinationName = narrowString(destinationFormat);
    const std::string sourceName = narrowString(sourceFormat);
    const std::string optionText = narrowString(options);
    if (flags & kFlagServer) {
        // The conversion server is not part of this build yet: refuse rather than pretend.
        return false;
    }
    return convertInProcess(destination, source, destinationName.c_str(), sourceName.c_str(), optionText.c_str(),
                            flags, dimension, width, height, depth, mipCount);
}

}  // namespace glyptora_internal
