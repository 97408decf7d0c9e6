#pragma once
// The block modes a footprint can use, described for the encoder's search: grid, weight
// range, planes, the 11-bit encoding and the colour range that each endpoint-mode class
// leaves beside the weights in a one-partition block.
#include <cstdint>
#include <vector>

#include "astc/block_mode.h"

namespace glyptora_astc {

struct AstcModeInfo {
    AstcBlockMode mode;
    int modeBits = -1;   // 11-bit encoding
    int weightBits = 0;  // bits of the weight sequence (both planes)
    // Colour range of one partition's values by endpoint-mode class (mode / 4: 2, 4, 6 or 8
    // values); -1 where not even 6 levels fit.
    int colourRange[4] = {-1, -1, -1, -1};
};

// Candidate-list entry: grid width, grid height and weight range in one 16-bit word.
constexpr uint16_t packAstcMode(int gridWidth, int gridHeight, int weightRange) {
    return uint16_t(gridWidth | (gridHeight << 4) | (weightRange << 8));
}

// The description of `mode`; modeBits stays -1 when the mode has no encoding.
AstcModeInfo astcModeInfo(const AstcBlockMode& mode);

// The mode of a packed list entry with one or two planes.
AstcModeInfo astcModeInfo(uint16_t packed, bool dualPlane);

// Every mode of the footprint with the given planes that has an encoding, fits the footprint
// and leaves room for a luminance endpoint pair, ordered by grid size, grid width, range.
std::vector<AstcModeInfo> astcFootprintModes(int blockWidth, int blockHeight, bool dualPlane);

}  // namespace glyptora_astc
