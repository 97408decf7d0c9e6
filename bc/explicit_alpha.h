#pragma once
// BC2 explicit alpha: 64 bits little-endian, pixel i's 4-bit alpha at bits 4i..4i+3
// (pixels 0-7 in the first 32-bit word, 8-15 in the second). A 4-bit value c decodes to c * 17.
#include <cstdint>

#include "core/host_device.h"

namespace glyptora_dxt {

GLYPTORA_HD inline int explicitAlphaError(int v, int c) {
    const int d = v - c * 17;
    return d * d;
}

// 4-bit level of one alpha byte: of q - 1, q and q + 1 (q = v / 16, clamped to 0..15) take
// q - 1 only when strictly better than both others, else q when strictly better than q + 1,
// else q + 1.
GLYPTORA_HD inline int quantiseExplicitAlpha(int v) {
    const int q = v / 16;
    const int down = q > 0 ? q - 1 : 0;
    const int up = q < 15 ? q + 1 : 15;
    const int errorDown = explicitAlphaError(v, down);
    const int errorHere = explicitAlphaError(v, q);
    const int errorUp = explicitAlphaError(v, up);
    if (errorDown < errorHere && errorDown < errorUp) return down;
    if (errorHere < errorUp) return q;
    return up;
}

// The same block serves the fast and the high-quality BC2 encoders.
GLYPTORA_HD inline void encodeExplicitAlphaBlock(const uint8_t alpha[16], uint8_t out[8]) {
    for (int j = 0; j < 8; ++j)
        out[j] = uint8_t(quantiseExplicitAlpha(alpha[2 * j]) | (quantiseExplicitAlpha(alpha[2 * j + 1]) << 4));
}

}  // namespace glyptora_dxt
