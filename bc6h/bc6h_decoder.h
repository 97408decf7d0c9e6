#pragma once
// BC6H block decoder (unsigned BC6H_UF16 and signed BC6H_SF16): every mode and partition;
// reserved mode values decode to 0.
#include <cstdint>

namespace glyptora_bc6h {

// Decodes one 16-byte block into 16 texels in row order, R, G, B half-float bit patterns.
void decodeBC6HBlock(const uint8_t block[16], bool isSigned, uint16_t texels[16][3]);

}  // namespace glyptora_bc6h
