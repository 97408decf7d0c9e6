#pragma once
// The tile the BC7 mode encoders work on: one 4x4 block on a 0..255 scale with
// an importance weight per texel (1 inside the image, 0 for the texels of a
// partial edge block that lie outside it).
#include <cstdint>

namespace BC7Modes {

struct Tile {
    static constexpr int TILE_W = 4;
    static constexpr int TILE_H = 4;
    static constexpr int TILE_TOTAL = TILE_W * TILE_H;

    float data[TILE_TOTAL][4] = {};          // RGBA, texel i at row i / 4, column i % 4
    float importance_map[TILE_TOTAL] = {};   // weight of each texel's error
    int size_x = TILE_W;
    int size_y = TILE_H;
    // Every value a whole number in 0..255 and every weight 0 or 1 (set by
    // makeTile; the palette scans then take their whole-number forms).
    bool whole = false;
};

// Builds the tile of one block: `texels` holds 16 RGBA floats (0..1) in row
// order, `validRegion` the valid columns (low byte) and rows (high byte).
// Channels are clamped to [0, 1] and scaled by 255; texels outside the valid
// region keep their (clamped) values but weigh 0.
Tile makeTile(const float texels[64], uint16_t validRegion);

// True when every valid texel has a source alpha of at least 1.0 (tested on
// the unclamped values; texels outside the valid region are not looked at).
bool validTexelsOpaque(const float texels[64], uint16_t validRegion);

}  // namespace BC7Modes
