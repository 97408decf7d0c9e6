#pragma once
// Local search over a decimated weight grid: the decoder spreads each grid weight over several
// texels, so quantising every grid point to its nearest level is not the best set of levels
// for the block's endpoints. This moves single grid points one level up or down while that
// lowers the block's error against its decoded endpoints.
#include <cstdint>

#include "astc/block_layout.h"
#include "astc/block_texels.h"
#include "astc/infill_database.h"

namespace glyptora_astc {

// Polishes the weights of `content` (one or two planes; `partitionOf` gives each texel's
// partition, null for one partition) and returns the change of the block's error (0 when no
// grid point moved, else negative). `polished` receives `content` with the moved weights, `out`
// the polished grid weights as fractions of 64 per plane (exact level values, so the quantiser
// keeps them); `weights` are the channel weights of the texels' weighted space.
float astcPolishWeights(const AstcBlockTexels& texels, const AstcGridInfill& grid, const AstcBlockContent& content,
                        const uint8_t* partitionOf, const float weights[4], AstcBlockContent& polished,
                        float out[2][64]);

}  // namespace glyptora_astc
