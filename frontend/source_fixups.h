#pragma once
// Per-format fix-ups of the source pixels and the alpha scan made before encoding.
// Pixels are four channels of unsigned bytes (value types 0 and 1) or floats (value type 2).
#include <cstdint>

namespace glyptora_internal {

void forceOneBitAlpha(uint8_t* pixels, uint64_t count, int32_t valueType);
void expandLuminanceAlpha(uint8_t* pixels, uint64_t count, int32_t valueType);
bool levelHasAlpha(const uint8_t* pixels, uint64_t count, int32_t valueType);

}  // namespace glyptora_internal
