#include "frontend/conversion_entry.h"

#include <exception>
#include <new>
#include <string>

#include "core/diagnostics.h"
#include "frontend/in_process_conversion.h"
#include "frontend/request_decoding.h"
#include "frontend/wide_string.h"
#include "server/conversion_client.h"

namespace glyptora_internal {

namespace {

// The server route. The request is checked here as far as the client can, so that nothing is
// sent that cannot be converted and both sections get their sizes; whether a GPU is usable is
// for the server to find out (asking here would load the GPU driver into this process).
Status convertThroughServer(void* destination, const void* source, const char* destinationFormat,
                            const char* sourceFormat, const char* options, uint32_t flags, uint32_t dimension,
                            uint32_t width, uint32_t height, uint32_t depth, uint32_t mipCount) {
    ConversionRequest request;
    const Status decoded = decodeConversionRequest(destinationFormat, sourceFormat, options,
                                                   flags & ~uint32_t(kFlagGpu), dimension, width, height, depth,
                                                   mipCount, request);
    if (decoded != Status::Ok) return decoded;
    const uint64_t destinationBytes =
        levelChainSize(geometryOf(*request.format), dimension, width, height, depth, mipCount);
    const ServerConversion conversion{destination, source, destinationBytes, request.sourceBytes, destinationFormat,
                                      sourceFormat, options, flags, dimension, width, height, depth, mipCount};
    return convertInServer(conversion) ? Status::Ok : Status::ServerUnavailable;
}

}  // namespace

Status convertNarrow(void* destination, const void* source, const char* destinationFormat, const char* sourceFormat,
                     const char* options, uint32_t flags, uint32_t dimension, uint32_t width, uint32_t height,
                     uint32_t depth, uint32_t mipCount) {
    if (flags & kFlagServer)
        return convertThroughServer(destination, source, destinationFormat, sourceFormat, options, flags, dimension,
                                    width, height, depth, mipCount);
    ConversionRequest request;
    const Status decoded = decodeConversionRequest(destinationFormat, sourceFormat, options, flags, dimension, width,
                                                   height, depth, mipCount, request);
    if (decoded != Status::Ok) return decoded;
    return convertInProcess(request, destination, source);
}

namespace {

Status convertChecked(void* destination, const void* source, const wchar_t* destinationFormat,
                      const wchar_t* sourceFormat, const wchar_t* options, uint32_t flags, uint32_t dimension,
                      uint32_t width, uint32_t height, uint32_t depth, uint32_t mipCount) {
    if (!destination || !source || !destinationFormat || !sourceFormat || !options) {
        errorLine("the destination, the source and the three strings must not be null.");
        return Status::NullArgument;
    }
    const std::string destinationName = narrowString(destinationFormat);
    const std::string sourceName = narrowString(sourceFormat);
    const std::string optionText = narrowString(options);
    return convertNarrow(destination, source, destinationName.c_str(), sourceName.c_str(), optionText.c_str(), flags,
                         dimension, width, height, depth, mipCount);
}

}  // namespace

Status convertEntry(void* destination, const void* source, const wchar_t* destinationFormat,
                    const wchar_t* sourceFormat, const wchar_t* options, uint32_t flags, uint32_t dimension,
                    uint32_t width, uint32_t height, uint32_t depth, uint32_t mipCount) {
    try {
        return convertChecked(destination, source, destinationFormat, sourceFormat, options, flags, dimension, width,
                              height, depth, mipCount);
    } catch (const std::bad_alloc&) {
        errorLine("out of memory converting a %ux%u texture of depth %u with %u level(s).", width, height, depth,
                  mipCount);
        return Status::OutOfMemory;
    } catch (const std::exception& e) {
        errorLine("conversion failed: %s.", e.what());
        return Status::InternalError;
    } catch (...) {
        errorLine("conversion failed with an unexpected error.");
        return Status::InternalError;
    }
}

}  // namespace glyptora_internal
