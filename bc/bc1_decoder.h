#pragma once
// Reference decoder for BC1 blocks, used to check the encoders.
#include <cstdint>

namespace glyptora_dxt {

// Decodes one 8-byte BC1 block into 16 pixels of R, G, B, A bytes (row by row).
// Endpoints expand from 5:6:5 by bit replication. col0 > col1 selects the 4-colour
// palette {c0, c1, (2*c0 + c1)/3, (c0 + 2*c1)/3}; otherwise, when `allowThreeColour`,
// the 3-colour palette {c0, c1, (c0 + c1)/2, transparent black}. Divisions truncate.
// BC2/BC3 colour halves pass allowThreeColour = false: always 4-colour.
void decodeBC1Block(const uint8_t block[8], uint8_t rgba[64], bool allowThreeColour = true);

}  // namespace glyptora_dxt
