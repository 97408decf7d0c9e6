#include "astc/astc_cpu_level0.h"

#include "astc/block_writer.h"
#include "astc/candidate_lists.h"
#include "astc/const_block.h"
#include "astc/footprints.h"
#include "core/task_dispatcher.h"

namespace glyptora_astc {

namespace {

// Level 0 fits weights once along the block's principal axis: no grid correction rounds and
// no refit (the weights are quantised by the rule of s_QuantizeIndices).
constexpr AstcSearchSettings settingsFor(bool hasAlpha) {
    return {hasAlpha ? kAstcAlphaEndpointModes : kAstcOpaqueEndpointModes, 4, 0, 0};
}

}  // namespace

void astcWriteMeanColourBlock(const AstcBlockTexels& t, const float inverseWeights[4], uint8_t* out) {
    uint16_t rgba[4];
    for (int c = 0; c < 4; ++c) {
        float sum = 0.0f;
        for (int i = 0; i < t.padded; ++i) sum += t.valid[i] * t.channel[c][i];
        float v = sum / float(t.validCount > 0 ? t.validCount : 1) * inverseWeights[c];
        v = v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f;
        rgba[c] = uint16_t(v * 65535.0f + 0.5f);
    }
    writeConstBlock(rgba, out);
}

void astcEncodeBlockLevel0(const AstcEncoderInput& input, const std::vector<AstcModeGroup>& groups, uint32_t block,
                           uint8_t* out) {
    AstcBlockTexels texels;
    loadAstcBlock(input, block, texels);
    AstcBlockSearch search(texels, input.weights, input.inverseWeights);
    AstcSearchResult best;
    search.singlePlane(groups, settingsFor(texels.hasAlpha), best);
    if (best.error >= kAstcNoBlockError || !writeAstcBlock(best.content, out))
        astcWriteMeanColourBlock(texels, input.inverseWeights, out);
}

void astcEncodeLevel0(const AstcEncoderInput& input) {
    int footprint = 0;
    if (!AstcTileIndex(input.blockWidth, input.blockHeight, footprint)) return;
    InfillMatDataBase infill(input.blockWidth, input.blockHeight);
    const std::vector<AstcModeGroup> groups =
        astcGroupModes(astcCandidateModes(AstcCandidateList::SinglePlane, footprint, 1), infill);
    glyptora_internal::parallelFor(int(input.blockCount), [&](uint32_t block) {
        astcEncodeBlockLevel0(input, groups, block, input.output + size_t(block) * 16);
    });
}

}  // namespace glyptora_astc
