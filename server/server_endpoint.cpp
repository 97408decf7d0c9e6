#include "server/server_endpoint.h"

namespace glyptora_internal {

std::string destinationSectionName(int processId) {
    return std::string(kServerBaseName) + "DstPixels_" + std::to_string(processId);
}

std::string sourceSectionName(int processId) {
    return std::string(kServerBaseName) + "SrcPixels_" + std::to_string(processId);
}

}  // namespace glyptora_internal
