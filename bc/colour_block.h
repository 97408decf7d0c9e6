#pragma once
// The BC1 colour block encoders (8-byte BC1 blocks; the colour half of BC2 and BC3).
// Input: 16 pixels, 4 bytes each in memory order blue, green, red, alpha, row by row.
#include <cstdint>

#include "core/host_device.h"

namespace glyptora_dxt {

// Opaque 4-colour block, bounding box fit with one least-squares refinement (BC2/BC3 colour, fast).
GLYPTORA_HD void encodeColourBlockFast(const uint8_t bgra[64], uint8_t out[8]);
// Opaque 4-colour block, weighted cluster fit; metric = red, green, blue channel weights (BC2/BC3 colour).
GLYPTORA_HD void encodeColourBlockHighQuality(const uint8_t bgra[64], const float metric[3], uint8_t out[8]);
// BC1 with punch-through alpha, fast.
GLYPTORA_HD void encodeBC1aBlockFast(const uint8_t bgra[64], uint8_t out[8]);
// BC1 with punch-through alpha, weighted cluster fit.
GLYPTORA_HD void encodeBC1aBlockHighQuality(const uint8_t bgra[64], const float metric[3], uint8_t out[8]);

}  // namespace glyptora_dxt
