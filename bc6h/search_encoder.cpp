#include "bc6h/search_encoder.h"

#include <cfloat>
#include <cstring>

#include "bc6h/bc6h_cpu.h"

namespace BC6HModes {

float rough_region(const Region& region, bool isSigned, int indexBits, FltEndpts& endpts) {
    BC7Modes::fit_region(region.value, region.count, 0, 3, endpts, isSigned ? -31743.0f : 0.0f, 31743.0f);
    Palette palette;
    buildRoughPalette(endpts, isSigned, indexBits, palette);
    int indices[Tile::TILE_TOTAL];
    return scanPalette(region, palette, FLT_MAX, indices);
}

float compress_one_region(const Tile& tile, uint8_t out[16], bool isSigned, SearchBlock* chosen) {
    Region region[1];
    makeRegions(tile, 1, 0, region);
    FltEndpts rough[1];
    rough_region(region[0], isSigned, 4, rough[0]);
    return refineone(tile, 0, rough, out, isSigned, chosen);
}

float compress_two_regions(const Tile& tile, uint8_t out[16], bool isSigned, SearchBlock* chosen) {
    float best = FLT_MAX;
    int best_shape = 0;
    FltEndpts best_rough[2];
    for (int shape = 0; shape < 32 && best > 0.0f; ++shape) {
        Region regions[2];
        makeRegions(tile, 2, shape, regions);
        FltEndpts rough[2];
        float error = 0.0f;
        for (int r = 0; r < 2; ++r) error += rough_region(regions[r], isSigned, 3, rough[r]);
        if (error < best) {
            best = error;
            best_shape = shape;
            best_rough[0] = rough[0];
            best_rough[1] = rough[1];
        }
    }
    return refinetwo(tile, best_shape, best_rough, out, isSigned, chosen);
}

float compress_tile(const Tile& tile, uint8_t out[16], bool isSigned, SearchBlock* chosen) {
    uint8_t one[16] = {}, two[16] = {};
    SearchBlock oneBlock, twoBlock;
    const float oneError = compress_one_region(tile, one, isSigned, chosen ? &oneBlock : nullptr);
    const float twoError = compress_two_regions(tile, two, isSigned, chosen ? &twoBlock : nullptr);
    const bool useTwo = oneError > twoError;
    std::memcpy(out, useTwo ? two : one, 16);
    if (chosen) *chosen = useTwo ? twoBlock : oneBlock;
    return useTwo ? twoError : oneError;
}

}  // namespace BC6HModes

namespace glyptora_bc6h {

float encodeBC6HBlockSearch(const float texels[64], uint16_t validRegion, bool isSigned, uint8_t out[16]) {
    const BC6HModes::Tile tile = BC6HModes::makeTile(texels, validRegion, isSigned);
    return BC6HModes::compress_tile(tile, out, isSigned);
}

}  // namespace glyptora_bc6h
