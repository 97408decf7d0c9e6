#pragma once
// The BC1 colour block encoders (8-byte BC1 blocks; the colour half of BC2 and BC3).
// Input: 16 pixels, 4 bytes each in memory order blue, green, red, alpha, row by row.
//
// Defined inline here so that the CUDA kernels compile the same code as the CPU
// encoders. Flat blocks always come from the single-colour tables.
//
// Host code built without SSE4.1 (tests, tools) would instantiate the scalar vector
// backend, whose exact reciprocal can pick a different split than the library's SSE
// estimate on rare near-ties. There the functions forward to the library's compiled
// entry points instead, so every host caller gets the library's blocks.
#include <cstdint>

#include "bc/bc1_block.h"
#include "bc/bc1_encoder.h"
#include "bc/clusterfit.h"
#include "core/host_device.h"

#if defined(__CUDACC__) || defined(GLYPTORA_SIMD_SSE) || defined(GLYPTORA_COLOUR_BLOCK_INLINE)

namespace glyptora_dxt {
inline namespace GLYPTORA_SIMD_ABI {

// Opaque 4-colour block, bounding box fit with one least-squares refinement (BC2/BC3 colour, fast).
GLYPTORA_HD inline void encodeColourBlockFast(const uint8_t bgra[64], uint8_t out[8]) {
    bc1::encodeOpaqueBlockFast(bgra, out);
}

// BC1 with punch-through alpha, fast.
GLYPTORA_HD inline void encodeBC1aBlockFast(const uint8_t bgra[64], uint8_t out[8]) {
    bc1::encodePunchThroughBlockFast(bgra, out);
}

// Starts from the single-colour block of the mean colour and lets the cluster fit
// replace it when the fit scores strictly better. BC1a averages the pixels with alpha
// above 0 and keeps alpha-0 pixels transparent; BC2/BC3 average all 16.
GLYPTORA_HD inline void encodeBlockHighQuality(const uint8_t* bgra, const float metric[3], bool punchThrough,
                                               uint8_t* out) {
    int sum[3] = {0, 0, 0};
    int count = 0;
    uint32_t mask = 0;
    for (int i = 0; i < 16; ++i) {
        const uint8_t* p = bgra + 4 * i;
        if (punchThrough && p[3] == 0) {
            mask |= 3u << (2 * i);
            continue;
        }
        sum[0] += p[2];
        sum[1] += p[1];
        sum[2] += p[0];
        ++count;
    }
    int mean[3] = {0, 0, 0};
    if (count > 0) {
        const float scale = punchThrough ? 1.0f / float(count) : 0.0625f;
        for (int c = 0; c < 3; ++c) mean[c] = int(float(sum[c]) * scale + 0.5f);
    }
    int palette[3];
    bc1::writeSingleColourBlockMasked(mean[0], mean[1], mean[2], mask, out, palette);

    const clusterfit::ColourPointSet points(
        bgra, punchThrough ? clusterfit::kPunchThrough | clusterfit::kWeightByAlpha : 0);
    if (points.count() <= 1) return;  // flat (or fully transparent): the table block stands

    clusterfit::WeightedClusterFit fit(&points, punchThrough ? clusterfit::kThreeColourAllowed : 0, metric);
    // The table block's error in the fit's own units (0..1 colours, point weights, squared
    // metric, constant term left out), so that any fit scoring better replaces it.
    const float colour[3] = {float(palette[0]) * 0.003921569f, float(palette[1]) * 0.003921569f,
                             float(palette[2]) * 0.003921569f};
    fit.setBestError(points.flatError(colour, metric));
    fit.compress(out);
}

// Opaque 4-colour block, weighted cluster fit; metric = red, green, blue channel weights (BC2/BC3 colour).
GLYPTORA_HD inline void encodeColourBlockHighQuality(const uint8_t bgra[64], const float metric[3], uint8_t out[8]) {
    encodeBlockHighQuality(bgra, metric, false, out);
}

// BC1 with punch-through alpha, weighted cluster fit.
GLYPTORA_HD inline void encodeBC1aBlockHighQuality(const uint8_t bgra[64], const float metric[3], uint8_t out[8]) {
    encodeBlockHighQuality(bgra, metric, true, out);
}

}  // namespace GLYPTORA_SIMD_ABI
}  // namespace glyptora_dxt

#else

namespace glyptora_dxt {
inline namespace library_entry {

inline void encodeColourBlockFast(const uint8_t bgra[64], uint8_t out[8]) { encodeColourBlock(bgra, true, nullptr, out); }
inline void encodeBC1aBlockFast(const uint8_t bgra[64], uint8_t out[8]) { encodeBC1aBlock(bgra, true, nullptr, out); }
inline void encodeColourBlockHighQuality(const uint8_t bgra[64], const float metric[3], uint8_t out[8]) {
    encodeColourBlock(bgra, false, metric, out);
}
inline void encodeBC1aBlockHighQuality(const uint8_t bgra[64], const float metric[3], uint8_t out[8]) {
    encodeBC1aBlock(bgra, false, metric, out);
}

}  // namespace library_entry
}  // namespace glyptora_dxt

#endif
