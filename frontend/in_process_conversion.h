#pragma once
#include "core/status.h"
#include "frontend/request_decoding.h"

namespace glyptora_internal {

// Converts a decoded request in this process; every block of every level goes to `destination`.
Status convertInProcess(const ConversionRequest& request, void* destination, const void* source);

}  // namespace glyptora_internal
