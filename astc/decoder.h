#pragma once
// The library's own ASTC decoder (2D, LDR profile, linear colour), used to measure encoder
// output (the command-line statistics, the tests). Texels come out as RGBA8 exactly as the
// reference command-line decoder writes an LDR image to an 8-bit file: each 16-bit texel
// value goes through a half float cut toward zero and is then rounded to 8 bits.
#include <cstdint>
#include <vector>

#include "astc/footprints.h"

namespace glyptora_astc {

// Error colour of blocks an LDR decoder cannot decode (reserved or illegal encodings, HDR
// constant colours): opaque magenta.
inline constexpr uint8_t kAstcErrorColour[4] = {255, 0, 255, 255};

// The partitions of an ordinary block whose endpoint mode is an HDR one decode, in the LDR
// profile, to magenta endpoints of 0xFF00 per channel (254, 0, 254, 254 after rounding), the
// other partitions as usual.
inline constexpr uint16_t kAstcHdrEndpointError[4] = {0xFF00, 0, 0xFF00, 0xFF00};

// 16-bit decoded channel value to the 8-bit value the reference decoder writes.
uint8_t astcUnorm16ToUnorm8(uint16_t value);

// Decodes one block to `blockWidth` x `blockHeight` RGBA8 texels, row by row.
void decodeAstcBlock(const uint8_t block[16], int blockWidth, int blockHeight, uint8_t* rgba);

// Decodes a `width` x `height` image stored as blocks of `footprint` in row-major block order
// into `rgba` (width * height * 4 bytes, row by row); edge blocks are cropped.
void decodeAstcImage(const uint8_t* blocks, uint32_t width, uint32_t height, AstcFootprint footprint,
                     std::vector<uint8_t>& rgba);

}  // namespace glyptora_astc
