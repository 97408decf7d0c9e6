#pragma once
// Level 1 of the CPU ASTC encoder: a constant-colour first pass, a single-plane pass over the
// blocks with error left, and for footprints below 30 texels a dual-plane pass.
#include <cstdint>
#include <vector>

#include "astc/astc_cpu_input.h"
#include "astc/block_state.h"
#include "astc/block_texels.h"
#include "astc/infill_database.h"
#include "astc/mode_groups.h"

namespace glyptora_astc {

// What every pass of one encode shares: the input and the per-block search state.
struct AstcBlockContext {
    const AstcEncoderInput* input = nullptr;
    std::vector<AstcBlockState> states;
};

class astc_cpu_level1 {
public:
    explicit astc_cpu_level1(const AstcEncoderInput& input);

    // Runs the passes and writes every block to the input's output.
    void encode();

    // The constant-colour block of block `block` (its texels already in `texels`) becomes the
    // block's best so far, its error the first best error; a block holding both a zero alpha
    // and a near-opaque one gets none, and its first best error is kAstcNoBlockError.
    static void EncodeConstBlock(AstcBlockContext& context, uint32_t block, const AstcBlockTexels& texels);

    // Blocks whose best error is above 0 (and, with `needsDualPlane`, whose dual-plane choice
    // is not negative), in block order.
    static std::vector<uint32_t> blocksWithError(const AstcBlockContext& context, bool needsDualPlane);

    // Writes every block's best to the input's output; a block without any gets its mean
    // colour.
    static void WriteBlocks(AstcBlockContext& context);

    const AstcBlockContext& context() const { return m_context; }

private:
    void constantColourPass();
    void singlePlanePass(const std::vector<AstcModeGroup>& groups);
    void dualPlanePreparationPass();
    void dualPlanePass(const std::vector<AstcModeGroup>& groups);

    AstcBlockContext m_context;
    int m_footprint = 0;
    InfillMatDataBase m_infill;
};

}  // namespace glyptora_astc
