#pragma once
// Alpha coverage across mip levels. Alpha-tested textures (foliage, fences) keep the texels
// whose alpha is above a reference value; averaging alpha for smaller levels changes how many
// of them pass, so thin shapes fade out or swell with distance. Each level from 1 on has its
// alpha scaled so that the fraction of texels above the reference equals level 0's.
#include <cstdint>

#include "tools/mip_chain.h"

namespace glyptora_tools {

// Fraction of level m's texels whose alpha (0..1) is above `reference`.
double alphaCoverage(const SourceChain& chain, uint32_t m, float reference);

// Scales the alpha of levels 1 and on as described above. With `premultiplied` the colour
// scales with its alpha, so that colour / alpha stays the same.
void preserveAlphaCoverage(SourceChain& chain, float reference, bool premultiplied);

}  // namespace glyptora_tools
