#pragma once
// What every pass of the CPU ASTC encoders does around its per-block search: walk a list of
// blocks in parallel with their texels loaded, and keep a search result when it beats the
// block's best.
#include <cstdint>
#include <cstring>
#include <vector>

#include "astc/astc_cpu_input.h"
#include "astc/block_search.h"
#include "astc/block_state.h"
#include "astc/block_texels.h"
#include "astc/block_writer.h"
#include "core/task_dispatcher.h"

namespace glyptora_astc {

// Runs `body(block, texels)` for every block of `blocks`, one task per block.
template <typename Body>
void astcForBlocks(const AstcEncoderInput& input, const std::vector<uint32_t>& blocks, Body&& body) {
    glyptora_internal::parallelFor(int(blocks.size()), [&](uint32_t i) {
        AstcBlockTexels texels;
        loadAstcBlock(input, blocks[i], texels);
        body(blocks[i], texels);
    });
}

inline std::vector<uint32_t> astcAllBlocks(uint32_t count) {
    std::vector<uint32_t> blocks(count);
    for (uint32_t b = 0; b < count; ++b) blocks[b] = b;
    return blocks;
}

// Keeps `result` as the block's best when the search found a strictly better encoding that
// can be stored; true when it was kept.
inline bool astcKeepIfBetter(AstcBlockState& state, const AstcSearchResult& result) {
    uint8_t encoded[16];
    if (result.error < state.bestError && writeAstcBlock(result.content, encoded)) {
        state.bestError = result.error;
        std::memcpy(state.block, encoded, 16);
        return true;
    }
    return false;
}

}  // namespace glyptora_astc
