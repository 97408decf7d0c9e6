#pragma once
// Reads the fields of a 2D ASTC block and sorts out the blocks an LDR decoder cannot use.
#include <cstdint>

#include "astc/block_layout.h"

namespace glyptora_astc {

enum class AstcBlockKind {
    Ordinary,        // content filled in (its endpoint modes may be HDR ones)
    ConstantColour,  // void extent: one 16-bit RGBA colour for every texel
    Error,           // reserved or illegal encodings and HDR constant colours: the error colour
};

// Reads `block` for a footprint of `blockWidth` x `blockHeight` texels. Fills `content` for
// ordinary blocks and `constant` (R, G, B, A) for constant-colour blocks.
AstcBlockKind readAstcBlock(const uint8_t block[16], int blockWidth, int blockHeight, AstcBlockContent& content,
                            uint16_t constant[4]);

}  // namespace glyptora_astc
