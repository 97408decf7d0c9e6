// The library's exported C entry points.
#include "glyptora.h"

#include "frontend/conversion_entry.h"
#include "gpu/gpu_encoders.h"
#include "server/conversion_server.h"

extern "C" {

const uint32_t NvOptimusEnablementCuda = 1;

GLYPTORA_API uint32_t GlyptoraConvert(void* destination, const void* source, const wchar_t* destinationFormat,
                                      const wchar_t* sourceFormat, const wchar_t* options, uint32_t flags,
                                      uint32_t dimension, uint32_t width, uint32_t height, uint32_t depth,
                                      uint32_t mipCount) {
    return glyptora_internal::convertEntry(destination, source, destinationFormat, sourceFormat, options, flags,
                                           dimension, width, height, depth, mipCount) == glyptora_internal::Status::Ok
               ? 1u
               : 0u;
}

GLYPTORA_API uint32_t GlyptoraIsGpuEncodingAvailable(void) {
    try {
        return glyptora_internal::isGpuEncodingAvailable() ? 1u : 0u;
    } catch (...) {
        return 0u;  // no exception crosses the library boundary
    }
}

// Runs this library as the user's conversion server; the glyptora-server launcher (on Windows
// rundll32.exe) calls it in a detached process of its own and the process ends when it returns.
GLYPTORA_API void ServerMain(void) {
    try {
        glyptora_internal::runConversionServer();
    } catch (...) {
        // the server just ends; its clients start a new one
    }
}

}  // extern "C"
