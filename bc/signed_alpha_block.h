#pragma once
// Signed interpolated single-channel block encoders (BC4S, each half of BC5S).
// Input: 16 two's-complement values (-128 is accepted and approximated by -127); the
// high-quality encoders also take 16 pixel weights. Output: one 8-byte block with alpha0 and
// alpha1 as signed bytes. Unlike the unsigned encoders, endpoints are clamped to [-127, 127]
// by the refinements and never pinned to the extremes.
#include "bc/alpha_block.h"
#include "bc/alpha_block_search.h"

namespace glyptora_dxt {

GLYPTORA_HD inline void encodeSignedInterpolatedBlockFast(const int8_t values[16], uint8_t out[8]) {
    int x[16];
    for (int i = 0; i < 16; ++i) x[i] = values[i];
    encodeAlphaBlockFast<true>(x, out);
}

GLYPTORA_HD inline void encodeSignedInterpolatedBlockHighQuality(const int8_t values[16], const float weights[16],
                                                                 uint8_t out[8]) {
    int x[16];
    for (int i = 0; i < 16; ++i) x[i] = values[i];
    encodeAlphaBlockHighQuality<true>(x, weights, out);
}

GLYPTORA_HD inline void encodeSignedInterpolatedBlockHighQualityReference(const int8_t values[16],
                                                                          const float weights[16], uint8_t out[8]) {
    int x[16];
    for (int i = 0; i < 16; ++i) x[i] = values[i];
    encodeAlphaBlockHighQualityReference<true>(x, weights, out);
}

}  // namespace glyptora_dxt
