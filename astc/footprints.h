#pragma once
// The 2D block footprints of the ASTC encoder. Each has a fixed index that every
// ASTC table (candidate lists, counts, GPU constants) is indexed by.
#include "core/host_device.h"

namespace glyptora_astc {

struct AstcFootprint {
    int width;
    int height;
};

inline constexpr int kAstcFootprintCount = 14;

// Footprint of index 0..13 (4x4 ... 12x12); out-of-range indices give 0x0.
GLYPTORA_HD inline AstcFootprint astcFootprint(int index) {
    const int widths[kAstcFootprintCount] = {4, 5, 5, 6, 6, 8, 8, 8, 10, 10, 10, 10, 12, 12};
    const int heights[kAstcFootprintCount] = {4, 4, 5, 5, 6, 5, 6, 8, 5, 6, 8, 10, 10, 12};
    if (index < 0 || index >= kAstcFootprintCount) return {0, 0};
    return {widths[index], heights[index]};
}

// Index of the footprint `width` x `height`; false for every pair that is not one of the
// fourteen (transposed pairs such as 4x5 and all 3D footprints included).
GLYPTORA_HD inline bool AstcTileIndex(int width, int height, int& index) {
    for (int i = 0; i < kAstcFootprintCount; ++i) {
        const AstcFootprint f = astcFootprint(i);
        if (f.width == width && f.height == height) {
            index = i;
            return true;
        }
    }
    return false;
}

}  // namespace glyptora_astc
