#pragma once
// The tile the BC6H search works on: one 4x4 block of RGB texels, each channel the
// integer of its half-float bit pattern held as a float (unsigned 0..31743, signed
// -31743..31743), the float value each pattern stands for (errors are measured in linear
// float values), and an importance weight per texel (1 inside the image, 0 outside).
#include <cstdint>

#include "bc6h/half_float.h"

namespace BC6HModes {

struct Tile {
    static constexpr int TILE_W = 4;
    static constexpr int TILE_H = 4;
    static constexpr int TILE_TOTAL = TILE_W * TILE_H;

    float data[TILE_TOTAL][4] = {};         // R, G, B pattern integers; lane 3 is 0 (rows fit as they are)
    float linear[TILE_TOTAL][3] = {};       // the float of each channel's pattern
    float importance_map[TILE_TOTAL] = {};  // weight of each texel's error
    int size_x = TILE_W;
    int size_y = TILE_H;
};

// Half bit pattern of a pattern integer: signed values are sign and magnitude, unsigned
// values are the pattern itself.
inline uint16_t halfPattern(int value, bool isSigned) {
    if (isSigned && value < 0) return uint16_t(0x8000 | -value);
    return uint16_t(value & 0xFFFF);
}

inline float linearValue(int value, bool isSigned) { return glyptora_bc6h::halfToFloat(halfPattern(value, isSigned)); }

// Builds the tile of one block: `texels` holds 16 RGBA floats in row order (alpha is
// ignored), `validRegion` the valid columns (low byte) and rows (high byte). Texels outside
// the valid region keep their values but weigh 0.
Tile makeTile(const float texels[64], uint16_t validRegion, bool isSigned);

}  // namespace BC6HModes
