#pragma once
// Writes the 128 bits of an ordinary ASTC block from its content.
#include <cstdint>

#include "astc/block_layout.h"

namespace glyptora_astc {

// Fills `out` (16 bytes). False, with `out` untouched, when the content cannot be stored:
// no block-mode encoding, endpoint modes that do not fit the mode field, four partitions with
// two planes, or a colour range other than the one the layout dictates (astcColourRangeOf).
// Whether the weight grid suits the footprint is the caller's business (astcBlockModeFits).
bool writeAstcBlock(const AstcBlockContent& content, uint8_t out[16]);

}  // namespace glyptora_astc
