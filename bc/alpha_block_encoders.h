#pragma once
// Unsigned interpolated single-channel block encoders (BC3 alpha, BC4, each half of BC5).
// Input: 16 values in pixel order; the high-quality encoders also take 16 pixel weights.
// Output: one 8-byte block (alpha0, alpha1, 48 bits of 3-bit indices).
#include "bc/alpha_block.h"
#include "bc/alpha_block_search.h"

namespace glyptora_dxt {

// Fast: refined 8-value and 6-value starts, the smaller error wins.
GLYPTORA_HD inline void encodeInterpolatedBlockFast(const uint8_t values[16], uint8_t out[8]) {
    int x[16];
    for (int i = 0; i < 16; ++i) x[i] = values[i];
    encodeAlphaBlockFast<false>(x, out);
}

// High quality: exhaustive search over endpoint pairs.
GLYPTORA_HD inline void encodeInterpolatedBlockHighQuality(const uint8_t values[16], const float weights[16],
                                                           uint8_t out[8]) {
    int x[16];
    for (int i = 0; i < 16; ++i) x[i] = values[i];
    encodeAlphaBlockHighQuality<false>(x, weights, out);
}

// High quality through the straightforward search (every pair evaluated); gives the same
// blocks as encodeInterpolatedBlockHighQuality.
GLYPTORA_HD inline void encodeInterpolatedBlockHighQualityReference(const uint8_t values[16], const float weights[16],
                                                                    uint8_t out[8]) {
    int x[16];
    for (int i = 0; i < 16; ++i) x[i] = values[i];
    encodeAlphaBlockHighQualityReference<false>(x, weights, out);
}

}  // namespace glyptora_dxt
