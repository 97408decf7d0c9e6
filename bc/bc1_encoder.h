#pragma once
// Host entry points of the BC1 colour block encoders, compiled once inside the core
// library with its SIMD backend. colour_block.h forwards to these in host code built
// without SSE4.1, so tools and tests see exactly the library's blocks.
#include <cstdint>

namespace glyptora_internal {
class CPUViewBase;
}

namespace glyptora_dxt {

// CPU implementation of the BC1 entry: one task per 4x4 tile, block t written at t * 8.
void encodeBC1aCPU(const glyptora_internal::CPUViewBase& view, bool fast, uint8_t* out);

// One BC1 block with punch-through alpha; `metric` (red, green, blue weights) is used by
// the high-quality fit only.
void encodeBC1aBlock(const uint8_t bgra[64], bool fast, const float metric[3], uint8_t out[8]);
// The opaque 4-colour colour half of a BC2/BC3 block.
void encodeColourBlock(const uint8_t bgra[64], bool fast, const float metric[3], uint8_t out[8]);

}  // namespace glyptora_dxt
