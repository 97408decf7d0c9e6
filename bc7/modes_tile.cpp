#include "bc7/modes_tile.h"

namespace BC7Modes {

namespace {

// Clamps to [0, 1]; NaN counts as 0.
float clampUnit(float v) { return v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f; }

bool isValid(int texel, uint16_t validRegion) {
    const int width = validRegion & 0xFF, height = validRegion >> 8;
    return texel % Tile::TILE_W < width && texel / Tile::TILE_W < height;
}

}  // namespace

Tile makeTile(const float texels[64], uint16_t validRegion) {
    Tile tile;
    tile.whole = true;
    for (int i = 0; i < Tile::TILE_TOTAL; ++i) {
        for (int c = 0; c < 4; ++c) {
            const float v = clampUnit(texels[i * 4 + c]) * 255.0f;  // within 0..255
            tile.data[i][c] = v;
            tile.whole = tile.whole && v == float(int(v));
        }
        tile.importance_map[i] = isValid(i, validRegion) ? 1.0f : 0.0f;
    }
    return tile;
}

// Written as "not at least 1.0" so that a NaN alpha counts as translucent.
bool validTexelsOpaque(const float texels[64], uint16_t validRegion) {
    for (int i = 0; i < Tile::TILE_TOTAL; ++i)
        if (isValid(i, validRegion) && !(texels[i * 4 + 3] >= 1.0f)) return false;
    return true;
}

}  // namespace BC7Modes
