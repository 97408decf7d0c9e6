#pragma once
// Per-block encoders of BC4, BC4S, BC5 and BC5S over 16 fetched pixels (4 bytes each,
// blue, green, red, alpha; signed forms two's complement). BC4 encodes red (byte 2) into
// 8 bytes; BC5 encodes red into its first 8 bytes and green (byte 1) into its second 8 bytes,
// each half on its own.
#include <cstdint>

#include "bc/alpha_block_encoders.h"
#include "bc/signed_alpha_block.h"

namespace glyptora_dxt {

template <typename T>
GLYPTORA_HD inline void extractChannel(const T bgra[64], int channel, T values[16]) {
    for (int i = 0; i < 16; ++i) values[i] = bgra[4 * i + channel];
}

GLYPTORA_HD inline void encodeBC4BlockFast(const uint8_t bgra[64], uint8_t out[8]) {
    uint8_t red[16];
    extractChannel(bgra, 2, red);
    encodeInterpolatedBlockFast(red, out);
}

GLYPTORA_HD inline void encodeBC4BlockHighQuality(const uint8_t bgra[64], uint8_t out[8]) {
    const float weights[16] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
    uint8_t red[16];
    extractChannel(bgra, 2, red);
    encodeInterpolatedBlockHighQuality(red, weights, out);
}

GLYPTORA_HD inline void encodeBC4SBlockFast(const int8_t bgra[64], uint8_t out[8]) {
    int8_t red[16];
    extractChannel(bgra, 2, red);
    encodeSignedInterpolatedBlockFast(red, out);
}

GLYPTORA_HD inline void encodeBC4SBlockHighQuality(const int8_t bgra[64], uint8_t out[8]) {
    const float weights[16] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
    int8_t red[16];
    extractChannel(bgra, 2, red);
    encodeSignedInterpolatedBlockHighQuality(red, weights, out);
}

GLYPTORA_HD inline void encodeBC5BlockFast(const uint8_t bgra[64], uint8_t out[16]) {
    uint8_t channel[16];
    extractChannel(bgra, 2, channel);
    encodeInterpolatedBlockFast(channel, out);
    extractChannel(bgra, 1, channel);
    encodeInterpolatedBlockFast(channel, out + 8);
}

GLYPTORA_HD inline void encodeBC5BlockHighQuality(const uint8_t bgra[64], uint8_t out[16]) {
    const float weights[16] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
    uint8_t channel[16];
    extractChannel(bgra, 2, channel);
    encodeInterpolatedBlockHighQuality(channel, weights, out);
    extractChannel(bgra, 1, channel);
    encodeInterpolatedBlockHighQuality(channel, weights, out + 8);
}

GLYPTORA_HD inline void encodeBC5SBlockFast(const int8_t bgra[64], uint8_t out[16]) {
    int8_t channel[16];
    extractChannel(bgra, 2, channel);
    encodeSignedInterpolatedBlockFast(channel, out);
    extractChannel(bgra, 1, channel);
    encodeSignedInterpolatedBlockFast(channel, out + 8);
}

GLYPTORA_HD inline void encodeBC5SBlockHighQuality(const int8_t bgra[64], uint8_t out[16]) {
    const float weights[16] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
    int8_t channel[16];
    extractChannel(bgra, 2, channel);
    encodeSignedInterpolatedBlockHighQuality(channel, weights, out);
    extractChannel(bgra, 1, channel);
    encodeSignedInterpolatedBlockHighQuality(channel, weights, out + 8);
}

}  // namespace glyptora_dxt
