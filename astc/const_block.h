#pragma once
// The constant-colour (void-extent) ASTC block: every texel decodes to one 16-bit RGBA colour.
#include <cstdint>

namespace glyptora_astc {

// Void-extent marker (low 9 bits 0x1FC) with the LDR flag (bit 9) clear and both reserved
// bits set; then four 13-bit extent coordinates, all ones for "no extent".
inline constexpr uint32_t kAstcVoidExtentHeader = 3580;
inline constexpr uint32_t kAstcNoExtent = 8191;

// Writes the block for colour `rgba` (R, G, B, A, 0..65535 each) to `out` (16 bytes).
void writeConstBlock(const uint16_t rgba[4], uint8_t out[16]);

}  // namespace glyptora_astc
