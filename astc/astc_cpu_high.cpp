#include "astc/astc_cpu_high.h"

#include <algorithm>

#include "astc/block_passes.h"
#include "astc/block_search.h"
#include "astc/candidate_lists.h"
#include "astc/colour_statistics.h"
#include "astc/dual_plane_choice.h"
#include "astc/footprints.h"
#include "astc/partition_search.h"
#include "astc/partition_selection.h"

namespace glyptora_astc {

namespace {

// Footprints of at least this many texels get the four-partition pass; below this many, the
// two-partition dual-plane pass (4x4 alone).
constexpr int kFourPartitionArea = 36;
constexpr int kTwoPartitionDualPlaneArea = 20;
constexpr int kReferenceGridSide = 5;
constexpr int kReferenceGridArea = 50;
// From 64 texels (8x8) up the searches fit the widest sets of partitioned modes.
constexpr int kWideFitsArea = 64;
constexpr float kLowLevelStretch = 1.2f;

// Full fits per search, weight refits of each refined mode, and how many of the best first fits
// are refined (single plane, partitioned, dual plane) with how much worse than the best one a
// refined fit may start; level 3 from 6x6 up also polishes every refined mode rather than the
// best refined one only. Refining more than the best first fit pays more than fitting more
// modes: level 2 +0.06 to +0.07 dB for a fifth more time; level 3 +0.1 dB at 5x5 to 8x8, and
// from 100 texels, which have the most time to spare, eight refined give another +0.01 to
// +0.02 dB for a third more time. Level 2 from 36 texels refines three partitioned fits (+0.01
// dB for 4% more time). The small footprints have the least time beside astcenc's: since the
// endpoint encoders choose their levels by the error model (a tenth more time there, +0.07 to
// +0.1 dB), they refit weights once at level 2 and refine fewer partitioned fits: level 2 at
// 4x4 refines one (-0.02 dB for a tenth less time), at 5x5 and 6x5 two partitioned and one
// single-plane fit out of 8 fits each (-0.03 dB for a fifth less time); level 3 at 4x4 fits
// 6 partitioned modes and refines one (-0.04 dB for a fifth less time), at 5x5 and 6x5 fits
// 24 and refines two (same PSNR, a tenth less time). Level 2 at 6x6 to 8x6 fits 16
// single-plane and 12 partitioned modes (-0.02 dB for a tenth less time).
struct HighEffort {
    int singleFits, partitionFits, dualFits, refineRounds;
    int refinedSingle, refinedPartitioned, refinedDual;
    double refineSlack;
    bool polishEveryRefined;
};
constexpr HighEffort kHighEffort[8] = {
    {4, 4, 2, 1, 2, 1, 2, 1.15, false},   {8, 8, 2, 1, 1, 2, 2, 1.2, false},    {16, 12, 2, 2, 2, 3, 2, 1.2, false},
    {24, 32, 2, 2, 2, 3, 2, 1.2, false},  {8, 6, 6, 3, 2, 1, 2, 1.15, false},   {8, 24, 32, 3, 3, 2, 3, 1.25, false},
    {8, 32, 32, 3, 4, 4, 4, 1.35, true},  {8, 32, 32, 3, 8, 8, 8, 1.5, true}};
constexpr int kLargeFootprintArea = 25;
constexpr int kWidestFootprintArea = 100;

// Rows: level 2 below 25 texels, below 36, below 64 and from 64; level 3 below 25, below 36
// (5x5 and 6x5, where the polish of every refined mode costs a fifth more time for +0.02 dB,
// too much beside -thorough's speed there), below 100, and from 100.
int highEffortFor(int level, int area) {
    if (level < 3) return area < kLargeFootprintArea ? 0 : area < kFourPartitionArea ? 1 : area < kWideFitsArea ? 2 : 3;
    return area < kLargeFootprintArea ? 4 : area < kFourPartitionArea ? 5 : area < kWidestFootprintArea ? 6 : 7;
}

// Partitioned fits per candidate pattern. Larger footprints have more modes to choose from,
// the estimate that ranks them misses more often, and they have time to spare: level 2 fits
// 32 from 8x8 (+0.1 dB against 16), level 3 64; below that the effort row decides (more than
// 4 gave +0.08 dB at 5x5 and 6x6).
int partitionFitsFor(int level, int area, const HighEffort& effort) {
    return area >= kWideFitsArea ? (level == 3 ? 64 : 32) : effort.partitionFits;
}

// Single-plane fits: level 3 fits every mode from 6x6 up; elsewhere the effort row decides
// (level 2 fits 24 from 8x8: +0.05 dB there).
int singleFitsFor(int level, int area, const HighEffort& effort) {
    return level == 3 && area >= kFourPartitionArea ? 0 : effort.singleFits;
}

AstcSearchSettings highSettings(bool hasAlpha, int fullFits, const HighEffort& effort, int refinedModes) {
    AstcSearchSettings settings;
    settings.endpointModes = hasAlpha ? kAstcAlphaEndpointModes : kAstcOpaqueEndpointModes;
    settings.endpointModeCount = 4;
    settings.refineRounds = effort.refineRounds;
    settings.polishRounds = 2;
    settings.fullFits = fullFits;
    settings.refinedModes = refinedModes;
    settings.refineSlack = effort.refineSlack;
    settings.polishEveryRefined = effort.polishEveryRefined;
    settings.chooseLevels = true;
    settings.blueContraction = true;
    return settings;
}

std::vector<AstcModeGroup> passGroups(AstcPass pass, int footprint, InfillMatDataBase& infill) {
    return astcGroupModes(astcPassModes(pass, footprint), infill);
}

}  // namespace

astc_cpu_high::astc_cpu_high(const AstcEncoderInput& input, int level)
    : m_level(level >= 3 ? 3 : 2),
      m_effort(highEffortFor(level >= 3 ? 3 : 2, input.blockWidth * input.blockHeight)),
      m_infill(input.blockWidth, input.blockHeight),
      m_partitions(input.blockWidth, input.blockHeight) {
    m_context.input = &input;
    m_context.states.resize(input.blockCount);
    AstcTileIndex(input.blockWidth, input.blockHeight, m_footprint);
    m_widths[0] = m_level == 3 ? 2 : 1;
    m_widths[1] = m_level == 3 ? 4 : 1;
    // Above 49 texels, partitionings are ranked with what a grid of at most 5x5 points loses of
    // their weights: the grids that partitioned modes can afford there are about that size
    // (+0.07 dB at 8x8 for 18% more time; at 6x6 +0.03 dB for a third more time, not taken).
    const int area = input.blockWidth * input.blockHeight;
    if (area >= kReferenceGridArea)
        m_ranking.referenceGrid = AstcGridSize{std::min(input.blockWidth, kReferenceGridSide),
                                               std::min(input.blockHeight, kReferenceGridSide)};
    // Level 3 ranks every two-partition pattern where that is affordable, and has the time for
    // a longer shortlist elsewhere (+0.02 dB at 5x5, +0.03 at 8x8, +0.04 at 10x10).
    m_ranking.everyPattern = m_level == 3;
    // Level 2 at 4x4 shortlists 48 two-partition patterns (+0.02 dB against 32; 64 gain no
    // more); level 3 ranks every two-partition pattern where that is affordable, and has the
    // time for a longer shortlist elsewhere (+0.02 dB at 5x5, +0.03 at 8x8, +0.04 at 10x10).
    if (m_level == 3) m_ranking.twoPartitionShortlist = area >= kWidestFootprintArea ? 128 : area >= kLargeFootprintArea ? 64 : 32;
    else if (area < kLargeFootprintArea) m_ranking.twoPartitionShortlist = 48;
    m_thresholds[0] = (area * 0.001) * (area * 0.001);
    m_thresholds[1] = (area * 0.008) * (area * 0.008);
}

std::vector<uint32_t> astc_cpu_high::blocksAboveThreshold(const AstcBlockContext& context, uint32_t mark) {
    const AstcEncoderInput& in = *context.input;
    const double t[2] = {astcRefinementThreshold(in.blockWidth, in.blockHeight, false),
                         astcRefinementThreshold(in.blockWidth, in.blockHeight, true)};
    std::vector<uint32_t> blocks;
    for (uint32_t b = 0; b < uint32_t(context.states.size()); ++b) {
        const AstcBlockState& s = context.states[b];
        const bool alpha = in.blockHasAlpha(b);
        if ((mark == 0 || s.partitionMark == mark) &&
            astcPerSampleError(s.bestError, in.validRegion(b), alpha) > t[alpha ? 1 : 0])
            blocks.push_back(b);
    }
    return blocks;
}

void astc_cpu_high::singlePlanePass() {
    const AstcEncoderInput& in = *m_context.input;
    const std::vector<AstcModeGroup> groups = passGroups(AstcPass::HighSinglePlane, m_footprint, m_infill);
    const HighEffort& effort = kHighEffort[m_effort];
    // The ranking misses more often on large footprints, and they have time to spare.
    const int fits = singleFitsFor(m_level, in.blockWidth * in.blockHeight, effort);
    // From 6x6 up, modes of few weight levels also start from stretched weights: +0.02 to
    // +0.03 dB at level 2, +0.01 to +0.02 at level 3, for about 3% more time (none below).
    const float stretch = in.blockWidth * in.blockHeight >= kFourPartitionArea ? kLowLevelStretch : 1.0f;
    astcForBlocks(in, astc_cpu_level1::blocksWithError(m_context, false),
                  [&](uint32_t block, const AstcBlockTexels& texels) {
                      AstcBlockState& state = m_context.states[block];
                      AstcSearchResult result;
                      result.error = state.bestError;
                      AstcSearchSettings settings = highSettings(texels.hasAlpha, fits, effort, effort.refinedSingle);
                      settings.lowLevelStretch = stretch;
                      AstcBlockSearch(texels, in.weights, in.inverseWeights).singlePlane(groups, settings, result);
                      astcKeepIfBetter(state, result);
                  });
}

void astc_cpu_high::partitionPass(const std::vector<uint32_t>& blocks, int partitions, bool dualPlane, bool wide,
                                  const std::vector<AstcModeGroup>& groups) {
    const AstcEncoderInput& in = *m_context.input;
    const HighEffort& effort = kHighEffort[m_effort];
    const int fits = dualPlane ? effort.dualFits : partitionFitsFor(m_level, in.blockWidth * in.blockHeight, effort);
    astcForBlocks(in, blocks, [&](uint32_t block, const AstcBlockTexels& texels) {
        AstcBlockState& state = m_context.states[block];
        const int channel = dualPlane ? state.dualPlaneChoice : -1;
        if (dualPlane && channel < 0) return;
        // Hard blocks (error above the second threshold) try the wider set of partitionings.
        const int width = wide && state.bestError > m_thresholds[1] ? m_widths[1] : m_widths[0];
        const AstcPartitionPattern* candidates[8];
        int count = 0;
        if (partitions == 2 && !m_twoPartitionChoice.empty() && width <= TwoPartitionChoice::kMaxWidth) {
            // The dual-plane pass reuses the choice of the same width (a ranking of another
            // width need not agree with it on its first few: its bounds pass over others).
            const std::vector<AstcPartitionPattern>& patterns = m_partitions.patterns(2);
            TwoPartitionChoice& choice = m_twoPartitionChoice[block];
            if (choice.width != width) {
                choice.count = uint8_t(astcSelectPartitionings(texels, m_partitions, 2, width, candidates, m_ranking));
                for (int k = 0; k < choice.count; ++k) choice.pattern[k] = uint16_t(candidates[k] - patterns.data());
                choice.width = uint8_t(width);
            }
            count = choice.count;
            for (int k = 0; k < count; ++k) candidates[k] = &patterns[choice.pattern[k]];
        } else {
            count = astcSelectPartitionings(texels, m_partitions, partitions, width, candidates, m_ranking);
        }
        const AstcSearchSettings settings = highSettings(texels.hasAlpha, fits, effort, dualPlane ? effort.refinedDual : effort.refinedPartitioned);
        AstcSearchResult result;
        result.error = state.bestError;
        // A block at or below the first threshold is done: later candidates are not tried.
        for (int k = 0; k < count && result.error > m_thresholds[0]; ++k)
            AstcPartitionSearch(texels, *candidates[k], partitions, in.weights, in.inverseWeights)
                .search(groups, channel, settings, result);
        if (astcKeepIfBetter(state, result) && !dualPlane) state.partitionMark = uint32_t(partitions);
    });
}

void astc_cpu_high::dualPlanePreparationPass() {
    astcForBlocks(*m_context.input, astcAllBlocks(m_context.input->blockCount),
                  [&](uint32_t block, const AstcBlockTexels& texels) {
                      AstcColourStatistics stats;
                      astcColourStatistics(texels, stats);
                      m_context.states[block].dualPlaneChoice = astcDualPlaneChoice(stats, texels.hasAlpha);
                  });
}

void astc_cpu_high::dualPlanePass(const std::vector<uint32_t>& blocks) {
    const AstcEncoderInput& in = *m_context.input;
    const std::vector<AstcModeGroup> groups = passGroups(AstcPass::DualPlane, m_footprint, m_infill);
    const HighEffort& effort = kHighEffort[m_effort];
    astcForBlocks(in, blocks, [&](uint32_t block, const AstcBlockTexels& texels) {
        AstcBlockState& state = m_context.states[block];
        AstcSearchResult result;
        result.error = state.bestError;
        AstcBlockSearch(texels, in.weights, in.inverseWeights)
            .dualPlane(groups, state.dualPlaneChoice,
                       highSettings(texels.hasAlpha, effort.dualFits, effort, effort.refinedDual), result);
        astcKeepIfBetter(state, result);
    });
}

void astc_cpu_high::encode() {
    const AstcEncoderInput& in = *m_context.input;
    const int area = in.blockWidth * in.blockHeight;
    astcForBlocks(in, astcAllBlocks(in.blockCount), [&](uint32_t block, const AstcBlockTexels& texels) {
        astc_cpu_level1::EncodeConstBlock(m_context, block, texels);
    });
    singlePlanePass();
    if (area < kTwoPartitionDualPlaneArea) m_twoPartitionChoice.resize(in.blockCount);
    partitionPass(blocksAboveThreshold(m_context, 0), 2, false, true,
                  passGroups(AstcPass::HighTwoPartitions, m_footprint, m_infill));
    // 6x6, 8x5 and 8x6 (36 to 49 texels) give hard blocks no wider search of three partitions:
    // their three-partition modes leave the colours little room, and the width costs more than
    // it gains there.
    const bool wideThree = area < 36 || area > 49;
    partitionPass(blocksAboveThreshold(m_context, 2), 3, false, wideThree,
                  passGroups(AstcPass::HighThreePartitions, m_footprint, m_infill));
    if (area >= kFourPartitionArea)
        partitionPass(blocksAboveThreshold(m_context, 3), 4, false, true,
                      passGroups(AstcPass::HighFourPartitions, m_footprint, m_infill));
    dualPlanePreparationPass();
    const std::vector<uint32_t> dualBlocks = astc_cpu_level1::blocksWithError(m_context, true);
    std::vector<double> before(dualBlocks.size());
    for (size_t i = 0; i < dualBlocks.size(); ++i) before[i] = m_context.states[dualBlocks[i]].bestError;
    dualPlanePass(dualBlocks);
    if (area < kTwoPartitionDualPlaneArea) {
        // Blocks that two planes improved and that are still above the threshold.
        const std::vector<uint32_t> above = blocksAboveThreshold(m_context, 0);
        std::vector<uint32_t> blocks;
        for (size_t i = 0; i < dualBlocks.size(); ++i)
            if (before[i] > m_context.states[dualBlocks[i]].bestError &&
                std::binary_search(above.begin(), above.end(), dualBlocks[i]))
                blocks.push_back(dualBlocks[i]);
        partitionPass(blocks, 2, true, true, passGroups(AstcPass::HighTwoPartitionDualPlane, m_footprint, m_infill));
    }
    astc_cpu_level1::WriteBlocks(m_context);
}

}  // namespace glyptora_astc
