#pragma once
// Host entry points of the BC1 colour block encoders, compiled once inside the core
// library with its SIMD backend. colour_block.h forwards to these in host code built
// without SSE4.1, so tools and tests see exactly the library's blocks.
#include <cstdint>

namespace glyptora_dxt {

// One BC1 block with punch-through alpha; `metric` (red, green, blue weights) is used by
// the high-quality fit only.
void encodeBC1aBlock(const uint8_t bgra[64], bool fast, const float metric[3], uint8_t out[8]);
// The opaque 4-colour colour half of a BC2/BC3 block.
void encodeColourBlock(const uint8_t bgra[64], bool fast, const float metric[3], uint8_t out[8]);

}  // namespace glyptora_dxt
