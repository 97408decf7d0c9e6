#pragma once
// The block modes one search pass tries, grouped by weight grid so that each grid is
// fitted once per block and then quantised to each of its ranges.
#include <array>
#include <cstdint>
#include <vector>

#include "astc/block_mode_table.h"
#include "astc/colour_range_lookup.h"
#include "astc/infill_database.h"
#include "astc/integer_sequence.h"

namespace glyptora_astc {

struct AstcModeGroup {
    const AstcGridInfill* grid = nullptr;
    std::vector<AstcModeInfo> modes;  // same grid, in list order
    // Per mode, the parts of the search's error estimate that depend on the mode alone: the
    // noise of its weight range reaching a texel (variance of one weight step / 12, spread by
    // the infill), and per texel and unit channel weight the noise of its colour range for a
    // block without and with alpha (the direct endpoint mode; huge when it does not fit).
    std::vector<float> weightNoise;
    std::vector<float> colourNoise[2];
    // Per mode, the colour range left to 1 to 4 partitions that share an endpoint mode of each
    // class (cem / 4: 2, 4, 6 or 8 values), at [partitions - 1][class]; -1 when none fits.
    std::vector<std::array<int8_t, 16>> sharedRange;
};

// Adds a mode of error estimate `estimate` to the sorted short list of the `keep` lowest
// (`count` so far; earlier modes first among equals).
inline void astcShortlistMode(float estimate, const AstcModeInfo* info, const AstcGridInfill* grid, int keep,
                              float* kept, const AstcModeInfo** modes, const AstcGridInfill** grids, int& count) {
    int at = count < keep ? count : keep;
    while (at > 0 && kept[at - 1] > estimate) --at;
    if (at >= keep) return;
    for (int k = (count < keep ? count : keep - 1); k > at; --k)
        kept[k] = kept[k - 1], modes[k] = modes[k - 1], grids[k] = grids[k - 1];
    kept[at] = estimate, modes[at] = info, grids[at] = grid;
    count = count < keep ? count + 1 : keep;
}

// Groups `modes` by grid, groups in the order of their first mode, and prepares the grids'
// fits.
inline std::vector<AstcModeGroup> astcGroupModes(const std::vector<AstcModeInfo>& modes, InfillMatDataBase& infill) {
    std::vector<AstcModeGroup> groups;
    for (const AstcModeInfo& m : modes) {
        const AstcGridInfill* grid = &infill.grid(m.mode.gridWidth, m.mode.gridHeight);
        AstcModeGroup* group = nullptr;
        for (AstcModeGroup& g : groups)
            if (g.grid == grid) group = &g;
        if (!group) {
            infill.prepareFit(m.mode.gridWidth, m.mode.gridHeight);
            groups.emplace_back();
            group = &groups.back();
            group->grid = grid;
        }
        group->modes.push_back(m);
        const float step = 1.0f / float(astcRangeLevels(m.mode.weightRange) - 1);
        group->weightNoise.push_back(grid->noiseGain * step * step / 12.0f);
        std::array<int8_t, 16> shared;
        for (int partitions = 1; partitions <= 4; ++partitions)
            for (int values = 2; values <= 8; values += 2)
                shared[size_t(4 * (partitions - 1) + values / 2 - 1)] = int8_t(
                    astcColourRangeLookup(partitions, 0, m.mode.dualPlane, m.weightBits, partitions * values));
        group->sharedRange.push_back(shared);
        for (int alpha = 0; alpha < 2; ++alpha) {
            // Endpoint errors of variance step^2 / 12 at both ends reach a texel with about
            // 2/3 of their sum.
            const int range = m.colourRange[alpha ? 3 : 2];
            const float colourStep = range >= 0 ? 1.0f / float(astcRangeLevels(range) - 1) : 1.0f;
            group->colourNoise[alpha].push_back(range >= 0 ? colourStep * colourStep / 18.0f : 1e30f);
        }
    }
    return groups;
}

}  // namespace glyptora_astc
