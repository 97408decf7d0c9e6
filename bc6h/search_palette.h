#pragma once
// Palettes and the palette scan of the BC6H search. A palette entry stands for a half bit
// pattern per channel; the scan compares texels and entries as the floats those patterns
// stand for, so the error is measured in linear values rather than in half-pattern steps.
#include <cstdint>

#include "bc6h/search_quantize.h"
#include "bc6h/search_tile.h"
#include "bc7/modes_fit.h"

namespace BC6HModes {

using FltEndpts = BC7Modes::FltEndpts;

// The texels of one region of a shape, in texel order.
struct Region {
    int count = 0;
    int texel[Tile::TILE_TOTAL] = {};
    float value[Tile::TILE_TOTAL][4] = {};  // pattern integers, as the rough fit reads them
    float linear[Tile::TILE_TOTAL][3] = {};
    float weight[Tile::TILE_TOTAL] = {};
};

// The regions of shape `shape` of a layout of `regions` regions (two-region shapes are the
// first 32 of the two-subset partitions; a one-region shape holds every texel).
void makeRegions(const Tile& tile, int regions, int shape, Region out[]);

// Entry floats laid out channel by channel, so that the scan takes four entries at a time.
struct Palette {
    int entries = 0;                        // 8 (3-bit indices) or 16 (4-bit)
    alignas(16) float linear[3][16] = {};
};

// How a region's endpoints decode: field precision, signedness, index size.
struct EndpointFormat {
    int prec = 0;
    bool isSigned = false;
    int indexBits = 3;
};

// The palette a decoder builds from quantised endpoints: unquantise, interpolate with the
// format's weights, scale to a half pattern. `buildPaletteChannel` sets channel ch alone
// from the quantised values a (endpoint A) and b (endpoint B); `paletteHalves` gives the
// patterns themselves.
void buildPalette(const EndpointFormat& format, const IntEndpoints& endpts, Palette& palette);
void buildPaletteChannel(const EndpointFormat& format, int a, int b, int ch, Palette& palette);
void paletteHalves(const EndpointFormat& format, const IntEndpoints& endpts, uint16_t half[16][3]);

// The palette of rough float endpoints: the interpolation of the pattern integers with the
// same weights, rounded to the nearest pattern. Interpolating patterns, as a decoder does,
// ranks shapes better than interpolating their floats would (about 4% less final error on
// HDR images), without committing to a precision.
void buildRoughPalette(const FltEndpts& endpts, bool isSigned, int indexBits, Palette& palette);

// The palette scan: for each texel the entry of least weighted error, walking up from entry
// 0 and stopping once the best error is 0 or an entry is worse than the best so far; ties
// keep the lower index. Indices are written by texel number. When the running sum exceeds
// `beat`, the remaining texels get index -1 and the result is FLT_MAX.
float scanPalette(const Region& region, const Palette& palette, float beat, int indices[Tile::TILE_TOTAL]);

}  // namespace BC6HModes
