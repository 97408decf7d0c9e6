#pragma once
// Per-block encoders of BC2 and BC3 over 16 fetched pixels (4 bytes each, blue, green, red,
// alpha). A block is 16 bytes: the alpha half from the alpha bytes (byte 3), then the BC1
// colour half, whose pixels all weigh 1.0.
#include <cstdint>

#include "bc/alpha_block_encoders.h"
#include "bc/alpha_block_formats.h"
#include "bc/colour_block.h"
#include "bc/explicit_alpha.h"

namespace glyptora_dxt {
inline namespace GLYPTORA_SIMD_ABI {  // the colour half differs per vector backend

GLYPTORA_HD inline void encodeBC2BlockFast(const uint8_t bgra[64], uint8_t out[16]) {
    uint8_t alpha[16];
    extractChannel(bgra, 3, alpha);
    encodeExplicitAlphaBlock(alpha, out);
    encodeColourBlockFast(bgra, out + 8);
}

// metric: red, green, blue channel weights of the colour fit.
GLYPTORA_HD inline void encodeBC2BlockHighQuality(const uint8_t bgra[64], const float metric[3], uint8_t out[16]) {
    uint8_t alpha[16];
    extractChannel(bgra, 3, alpha);
    encodeExplicitAlphaBlock(alpha, out);
    encodeColourBlockHighQuality(bgra, metric, out + 8);
}

// BC3 alpha uses the fast interpolated encoder in both forms; only the colour half differs.
GLYPTORA_HD inline void encodeBC3BlockFast(const uint8_t bgra[64], uint8_t out[16]) {
    uint8_t alpha[16];
    extractChannel(bgra, 3, alpha);
    encodeInterpolatedBlockFast(alpha, out);
    encodeColourBlockFast(bgra, out + 8);
}

GLYPTORA_HD inline void encodeBC3BlockHighQuality(const uint8_t bgra[64], const float metric[3], uint8_t out[16]) {
    uint8_t alpha[16];
    extractChannel(bgra, 3, alpha);
    encodeInterpolatedBlockFast(alpha, out);
    encodeColourBlockHighQuality(bgra, metric, out + 8);
}

}  // namespace GLYPTORA_SIMD_ABI
}  // namespace glyptora_dxt
