#include "bc6h/search_tile.h"

#include "bc6h/bc6h_format.h"

namespace BC6HModes {

Tile makeTile(const float texels[64], uint16_t validRegion, bool isSigned) {
    Tile tile;
    const int width = validRegion & 0xFF, height = validRegion >> 8;
    tile.size_x = width;
    tile.size_y = height;
    for (int i = 0; i < Tile::TILE_TOTAL; ++i) {
        for (int c = 0; c < 3; ++c) {
            const int value = glyptora_bc6h::texelValue(texels[i * 4 + c], isSigned);
            tile.data[i][c] = float(value);
            tile.linear[i][c] = linearValue(value, isSigned);
        }
        const bool valid = i % Tile::TILE_W < width && i / Tile::TILE_W < height;
        tile.importance_map[i] = valid ? 1.0f : 0.0f;
    }
    return tile;
}

}  // namespace BC6HModes
