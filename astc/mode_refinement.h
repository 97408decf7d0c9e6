#pragma once
// Refinement of the modes whose first fit came out best, shared by the single-partition and the
// partitioned searches: weights refitted to each mode's own quantised endpoints and endpoints
// refitted to them, then grid points moved a level where the infill makes that better.
#include <algorithm>
#include <cstdint>

#include "astc/block_search.h"
#include "astc/weight_polish.h"

namespace glyptora_astc {

// The best first fits of a search, in order of error, kept for refinement.
struct AstcRefineList {
    static constexpr int kMax = 8;
    AstcSearchResult results[kMax];
    const AstcModeInfo* modes[kMax];
    const AstcGridInfill* grids[kMax];
    int count = 0, capacity = 1;

    explicit AstcRefineList(const AstcSearchSettings& settings) : capacity(std::clamp(settings.refinedModes, 1, kMax)) {}
    // What a first fit must beat to be kept, given the best error before the search: with more
    // than one kept, fits a little worse than the best may still win once refined.
    double admission(double best, const AstcSearchSettings& settings) const {
        if (count == capacity) return results[count - 1].error;
        return capacity > 1 ? best * settings.refineSlack : best;
    }
    void add(const AstcSearchResult& result, const AstcModeInfo* mode, const AstcGridInfill* grid) {
        int at = count < capacity ? count++ : count - 1;
        for (; at > 0 && results[at - 1].error > result.error; --at) {
            results[at] = results[at - 1];
            modes[at] = modes[at - 1];
            grids[at] = grids[at - 1];
        }
        results[at] = result;
        modes[at] = mode;
        grids[at] = grid;
    }
};

// Refines every kept mode and replaces `best` by any that ends strictly better.
// `refit(result, u1, u2)` sets per-texel weights (plane 1, plane 2) from a result's endpoints;
// `tryMode(mode, grid, g1, g2, result)` scores a mode with grid weights `g1`, `g2` and keeps a
// strictly better encoding in `result`, returning whether it did.
template <class Refit, class TryMode>
void astcRefineKept(AstcRefineList& kept, const AstcSearchSettings& settings, const AstcBlockTexels& texels,
                    bool dualPlane, const uint8_t* partitionOf, const float* weights, AstcSearchResult& best,
                    Refit&& refit, TryMode&& tryMode) {
    alignas(16) float u1[kAstcMaxTexels], u2[kAstcMaxTexels], g1[64], g2[64];
    const auto polish = [&](int k) {
        AstcSearchResult& local = kept.results[k];
        const AstcModeInfo& mode = *kept.modes[k];
        const AstcGridInfill& grid = *kept.grids[k];
        for (int round = 0; round < settings.polishRounds && local.error > 0; ++round) {
            AstcBlockContent polished;
            float moved[2][64];
            const float change = astcPolishWeights(texels, grid, local.content, partitionOf, weights, polished, moved);
            if (!(change < 0.0f)) break;
            local.content = polished;
            local.error = std::max(0.0, local.error + double(change));
            tryMode(mode, grid, moved[0], moved[1], local);
        }
    };
    int winner = -1;
    for (int k = 0; k < kept.count; ++k) {
        AstcSearchResult& local = kept.results[k];
        const AstcModeInfo& mode = *kept.modes[k];
        const AstcGridInfill& grid = *kept.grids[k];
        for (int round = 0; round < settings.refineRounds && local.error > 0; ++round) {
            refit(local, u1, u2);
            astcFitGrid(grid, texels.texels, u1, g1);
            if (dualPlane) astcFitGrid(grid, texels.texels, u2, g2);
            if (!tryMode(mode, grid, g1, g2, local)) break;
        }
        if (settings.polishEveryRefined) polish(k);
        if (winner < 0 || local.error < kept.results[winner].error) winner = k;
    }
    if (!settings.polishEveryRefined && winner >= 0) polish(winner);
    for (int k = 0; k < kept.count; ++k)
        if (kept.results[k].error < best.error) best = kept.results[k];
}

}  // namespace glyptora_astc
