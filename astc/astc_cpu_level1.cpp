#include "astc/astc_cpu_level1.h"

#include <cstring>

#include "astc/astc_cpu_level0.h"
#include "astc/block_passes.h"
#include "astc/block_search.h"
#include "astc/block_writer.h"
#include "astc/candidate_lists.h"
#include "astc/colour_statistics.h"
#include "astc/const_block.h"
#include "astc/dual_plane_choice.h"
#include "astc/footprints.h"
#include "core/task_dispatcher.h"

namespace glyptora_astc {

namespace {

// Footprints with fewer texels than this get the dual-plane pass at level 1.
constexpr int kLevel1DualPlaneArea = 30;

// Search effort of the level-1 passes per footprint (4x4 ... 12x12): how many of the
// candidate modes, ranked by the error estimate, are fitted in full in the single-plane and
// dual-plane passes, and how often the winner's weights are refitted to its endpoints. Small
// footprints have few texels per block and afford more of both; large ones gain less per fit.
struct Level1Effort {
    int singleFits, dualFits, refineRounds;
};
constexpr Level1Effort kLevel1Effort[kAstcFootprintCount] = {
    {2, 1, 1}, {3, 1, 1}, {4, 1, 1}, {6, 0, 2}, {6, 0, 2}, {5, 0, 2}, {5, 0, 1},
    {4, 0, 1}, {5, 0, 1}, {4, 0, 1}, {3, 0, 1}, {3, 0, 1}, {3, 0, 1}, {3, 0, 1},
};

AstcSearchSettings level1Settings(bool hasAlpha, int fullFits, int refineRounds) {
    AstcSearchSettings settings;
    settings.endpointModes = hasAlpha ? kAstcAlphaEndpointModes : kAstcOpaqueEndpointModes;
    settings.endpointModeCount = 4;
    settings.refineRounds = refineRounds;
    settings.fullFits = fullFits;
    settings.chooseLevels = true;
    settings.blueContraction = true;
    return settings;
}

std::vector<uint32_t> blocksWithoutEncoding(const AstcBlockContext& context) {
    std::vector<uint32_t> blocks;
    for (uint32_t b = 0; b < uint32_t(context.states.size()); ++b)
        if (!(context.states[b].bestError < kAstcNoBlockError)) blocks.push_back(b);
    return blocks;
}

}  // namespace

astc_cpu_level1::astc_cpu_level1(const AstcEncoderInput& input) : m_infill(input.blockWidth, input.blockHeight) {
    m_context.input = &input;
    m_context.states.resize(input.blockCount);
    AstcTileIndex(input.blockWidth, input.blockHeight, m_footprint);
}

void astc_cpu_level1::EncodeConstBlock(AstcBlockContext& context, uint32_t block, const AstcBlockTexels& texels) {
    const AstcEncoderInput& in = *context.input;
    AstcBlockState& state = context.states[block];
    // Per channel the sums of the valid texels and of their squares, in double precision: the
    // error against a constant d is then sum x^2 - 2 d sum x + n d^2.
    double sum[4] = {}, squares[4] = {};
    bool zeroAlpha = false, opaqueAlpha = false;
    const float opaque = 0.998f * in.weights[3];
    for (int i = 0; i < texels.texels; ++i) {
        if (texels.valid[i] == 0.0f) continue;
        for (int c = 0; c < 4; ++c) {
            const double x = texels.channel[c][i];
            sum[c] += x;
            squares[c] += x * x;
        }
        const float a = texels.channel[3][i];
        zeroAlpha = zeroAlpha || a == 0.0f;
        opaqueAlpha = opaqueAlpha || a > opaque;
    }
    state.bestError = kAstcNoBlockError;
    if (zeroAlpha && opaqueAlpha) return;

    uint16_t rgba[4];
    double error = 0;
    const double n = double(texels.validCount);
    for (int c = 0; c < 4; ++c) {
        float v = float(sum[c] / n) * in.inverseWeights[c];
        if (c == 3 && zeroAlpha) v = 0.0f;
        if (c == 3 && opaqueAlpha) v = 1.0f;
        v = v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f;  // NaN fails v > 0
        rgba[c] = uint16_t(v * 65535.0f + 0.5f);
        const double decoded = double(rgba[c]) / 65535.0 * double(in.weights[c]);
        error += squares[c] - 2.0 * decoded * sum[c] + n * decoded * decoded;
    }
    writeConstBlock(rgba, state.block);
    // A uniform block must come out exactly 0 (the sums may round a little past it).
    state.bestError = error > 1e-9 * n ? error : 0.0;
}

std::vector<uint32_t> astc_cpu_level1::blocksWithError(const AstcBlockContext& context, bool needsDualPlane) {
    std::vector<uint32_t> blocks;
    for (uint32_t b = 0; b < uint32_t(context.states.size()); ++b) {
        const AstcBlockState& s = context.states[b];
        if (s.bestError > 0 && (!needsDualPlane || s.dualPlaneChoice >= 0)) blocks.push_back(b);
    }
    return blocks;
}

void astc_cpu_level1::constantColourPass() {
    astcForBlocks(*m_context.input, astcAllBlocks(m_context.input->blockCount),
              [&](uint32_t block, const AstcBlockTexels& texels) { EncodeConstBlock(m_context, block, texels); });
}

void astc_cpu_level1::singlePlanePass(const std::vector<AstcModeGroup>& groups) {
    const AstcEncoderInput& in = *m_context.input;
    astcForBlocks(in, blocksWithError(m_context, false), [&](uint32_t block, const AstcBlockTexels& texels) {
        AstcBlockState& state = m_context.states[block];
        AstcSearchResult result;
        result.error = state.bestError;
        const Level1Effort& effort = kLevel1Effort[m_footprint];
        AstcBlockSearch(texels, in.weights, in.inverseWeights)
            .singlePlane(groups, level1Settings(texels.hasAlpha, effort.singleFits, effort.refineRounds), result);
        astcKeepIfBetter(state, result);
    });
}

void astc_cpu_level1::dualPlanePreparationPass() {
    astcForBlocks(*m_context.input, astcAllBlocks(m_context.input->blockCount),
              [&](uint32_t block, const AstcBlockTexels& texels) {
                  AstcColourStatistics stats;
                  astcColourStatistics(texels, stats);
                  m_context.states[block].dualPlaneChoice = astcDualPlaneChoice(stats, texels.hasAlpha);
              });
}

void astc_cpu_level1::dualPlanePass(const std::vector<AstcModeGroup>& groups) {
    const AstcEncoderInput& in = *m_context.input;
    astcForBlocks(in, blocksWithError(m_context, true), [&](uint32_t block, const AstcBlockTexels& texels) {
        AstcBlockState& state = m_context.states[block];
        AstcSearchResult result;
        result.error = state.bestError;
        const Level1Effort& effort = kLevel1Effort[m_footprint];
        AstcBlockSearch(texels, in.weights, in.inverseWeights)
            .dualPlane(groups, state.dualPlaneChoice,
                       level1Settings(texels.hasAlpha, effort.dualFits, effort.refineRounds), result);
        astcKeepIfBetter(state, result);
    });
}

void astc_cpu_level1::encode() {
    const AstcEncoderInput& in = *m_context.input;
    constantColourPass();
    singlePlanePass(astcGroupModes(astcPassModes(AstcPass::Level1SinglePlane, m_footprint), m_infill));
    if (in.blockWidth * in.blockHeight < kLevel1DualPlaneArea) {
        dualPlanePreparationPass();
        dualPlanePass(astcGroupModes(astcPassModes(AstcPass::DualPlane, m_footprint), m_infill));
    }
    WriteBlocks(m_context);
}

void astc_cpu_level1::WriteBlocks(AstcBlockContext& context) {
    const AstcEncoderInput& in = *context.input;
    // A block that no pass could encode (none of its modes fits an endpoint mode) takes its
    // mean colour.
    astcForBlocks(in, blocksWithoutEncoding(context), [&](uint32_t block, const AstcBlockTexels& texels) {
        astcWriteMeanColourBlock(texels, in.inverseWeights, context.states[block].block);
    });
    for (uint32_t b = 0; b < in.blockCount; ++b) std::memcpy(in.output + size_t(b) * 16, context.states[b].block, 16);
}

}  // namespace glyptora_astc
