#pragma once
// Level 0 of the CPU ASTC encoder: one pass, each block encoded with the first mode of the
// footprint's single-plane list and four endpoint modes.
#include <cstdint>

#include "astc/astc_cpu_input.h"
#include "astc/block_search.h"
#include "astc/infill_database.h"

namespace glyptora_astc {

// Encodes one block of `input` with `groups` (the one level-0 mode) into `out` (16 bytes).
void astcEncodeBlockLevel0(const AstcEncoderInput& input, const std::vector<AstcModeGroup>& groups, uint32_t block,
                           uint8_t* out);

// The block's mean colour as a constant-colour block: the block written when no mode tried
// leaves room for an endpoint mode.
void astcWriteMeanColourBlock(const AstcBlockTexels& texels, const float inverseWeights[4], uint8_t* out);

// All blocks of `input` at level 0.
void astcEncodeLevel0(const AstcEncoderInput& input);

}  // namespace glyptora_astc
