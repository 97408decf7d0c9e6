#pragma once
// Normal maps: tangent-space vectors stored as RGB = (n + 1) / 2. Averaging shortens them, so
// every level of a chain is renormalised to unit length before it is encoded; BC5 then keeps
// X and Y in its two channels and a shader rebuilds Z = sqrt(1 - X^2 - Y^2).
#include "tools/mip_chain.h"

namespace glyptora_tools {

// Scales the vector of every texel of every level to unit length; a zero vector becomes
// (0, 0, 1). Alpha is kept.
void renormaliseNormals(SourceChain& chain);

}  // namespace glyptora_tools
