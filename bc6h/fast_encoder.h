#pragma once
// The fast BC6H block encoder (encodeBC6HBlockFast in bc6h_cpu.h) with what it decided, for
// tests and tools.
//
// Endpoints are fitted to the integer values of the texels' half bit patterns, the domain
// the format interpolates in; blocks are judged by the error of fast_texels.h, measured on
// the palette the decoder will produce. One single-region encoding, then one two-region
// encoding that replaces it only when its error is strictly smaller:
// - single region: principal axis of the texels, two least-squares rounds on the 4-bit
//   weights, the single-region mode of most precision whose deltas fit (values 15, 11, 7,
//   3), indices from the exact palette, the anchor texel 0 kept below 8 by swapping the
//   endpoints. Signed blocks with texels on both sides of zero get a second such fit with
//   the side away from the brightest value treated as near black, and keep the better;
// - two regions, only when the single region leaves a visible error: of the four of the 32
//   shapes with least scatter, the one whose regions are modelled to fit 8-entry palettes
//   best; its regions' principal-axis extremes refined by one least-squares round on the
//   3-bit weights, the two-region mode of most precision whose deltas fit, indices from the
//   exact palettes and both anchors kept below 4.
#include <cstdint>

namespace glyptora_bc6h {

struct FastBlockDetail {
    float error;
    int regions;          // 1 or 2
    int modeValue;        // the block's mode field
    int shape;            // two regions: the partition shape
    int indices[16];      // as written
    int believed[16][3];  // valid texels: the palette value (integer half value) the error was
                          // measured with
};

float encodeBC6HBlockFastDetailed(const float texels[64], uint16_t validRegion, bool isSigned, uint8_t out[16],
                                  FastBlockDetail* detail);

}  // namespace glyptora_bc6h
