#pragma once
// Decoders of the single-channel blocks: BC2 explicit alpha, unsigned interpolated blocks
// (BC3 alpha, BC4, each BC5 half) and signed interpolated blocks (BC4S, each BC5S half).
// Each turns one 8-byte block into 16 values in pixel order (pixel i = 4 * row + column).
#include <cstdint>

#include "bc/alpha_block.h"
#include "core/host_device.h"

namespace glyptora_dxt {

GLYPTORA_HD inline void decodeExplicitAlphaBlock(const uint8_t block[8], uint8_t alpha[16]) {
    for (int i = 0; i < 16; ++i) alpha[i] = uint8_t(((block[i >> 1] >> (4 * (i & 1))) & 15) * 17);
}

// The 3-bit palette index of pixel i.
GLYPTORA_HD inline int interpolatedBlockIndex(const uint8_t block[8], int i) {
    uint64_t bits = 0;
    for (int j = 0; j < 6; ++j) bits |= uint64_t(block[2 + j]) << (8 * j);
    return int((bits >> (3 * i)) & 7);
}

GLYPTORA_HD inline void decodeInterpolatedBlock(const uint8_t block[8], uint8_t values[16]) {
    int palette[8];
    alphaPalette<false>(block[0], block[1], palette);
    for (int i = 0; i < 16; ++i) values[i] = uint8_t(palette[interpolatedBlockIndex(block, i)]);
}

// Signed endpoint bytes are two's complement. The palette mode follows the bytes as stored;
// an endpoint of -128 then enters the palette as -127, since the signed format reads both as
// -1.0. The values come out on the -127..127 scale.
GLYPTORA_HD inline void decodeSignedInterpolatedBlock(const uint8_t block[8], int8_t values[16]) {
    const int stored0 = int(int8_t(block[0]));
    const int stored1 = int(int8_t(block[1]));
    const int alpha0 = stored0 < -127 ? -127 : stored0;
    const int alpha1 = stored1 < -127 ? -127 : stored1;
    int palette[8];
    palette[0] = alpha0;
    palette[1] = alpha1;
    if (stored0 > stored1) {
        for (int k = 2; k < 8; ++k) palette[k] = ((8 - k) * alpha0 + (k - 1) * alpha1 + 3) / 7;
    } else {
        for (int k = 2; k < 6; ++k) palette[k] = ((6 - k) * alpha0 + (k - 1) * alpha1 + 2) / 5;
        palette[6] = -127;
        palette[7] = 127;
    }
    for (int i = 0; i < 16; ++i) values[i] = int8_t(palette[interpolatedBlockIndex(block, i)]);
}

}  // namespace glyptora_dxt
