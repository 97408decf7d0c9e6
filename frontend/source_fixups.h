#pragma once
// Per-format fix-ups of the source pixels and the alpha scan made before encoding.
// Pixels are four channels of bytes (8-bit value types) or floats.
#include <cstdint>

#include "core/image_record.h"

namespace glyptora_internal {

void forceOneBitAlpha(uint8_t* pixels, uint64_t count, glyptora::ValueType valueType);
void expandLuminanceAlpha(uint8_t* pixels, uint64_t count, glyptora::ValueType valueType);
bool levelHasAlpha(const uint8_t* pixels, uint64_t count, glyptora::ValueType valueType);

}  // namespace glyptora_internal
