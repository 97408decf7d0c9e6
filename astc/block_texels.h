#pragma once
// One block's texels as the ASTC encoder works on them: weighted space (each channel
// multiplied by its channel weight), channel planes padded to a multiple of four texels,
// and a mask of the texels inside the image.
#include <cstdint>

#include "core/host_device.h"

namespace glyptora_astc {

inline constexpr int kAstcMaxTexels = 144;  // 12x12

struct AstcBlockTexels {
    int blockWidth = 0;
    int blockHeight = 0;
    int texels = 0;      // blockWidth * blockHeight
    int padded = 0;      // texels rounded up to a multiple of 4
    int validCount = 0;  // texels inside the image
    int validWidth = 0;  // the part of the footprint inside the image
    int validHeight = 0;
    bool hasAlpha = false;
    alignas(16) float channel[4][kAstcMaxTexels];  // R, G, B, A, weighted; 0 past `texels`
    alignas(16) float valid[kAstcMaxTexels];       // 1 inside the image, else 0
};

// Fills `out` from a fetched tile (`rgba`: unweighted float RGBA, row by row). Values are
// clamped to [0, 1] (NaN to 0) before weighting. A block without alpha reads every alpha as
// the alpha weight itself. `validRegion`: valid width in the low byte, height in the high byte.
GLYPTORA_HD inline void astcLoadBlockTexels(const float* rgba, int blockWidth, int blockHeight, uint16_t validRegion,
                                            const float weights[4], bool hasAlpha, AstcBlockTexels& out) {
    const int validWidth = validRegion & 0xFF, validHeight = validRegion >> 8;
    out.blockWidth = blockWidth;
    out.blockHeight = blockHeight;
    out.texels = blockWidth * blockHeight;
    out.padded = (out.texels + 3) & ~3;
    out.hasAlpha = hasAlpha;
    out.validCount = 0;
    out.validWidth = validWidth;
    out.validHeight = validHeight;
    for (int i = 0; i < out.padded; ++i) {
        const int x = i % blockWidth, y = i / blockWidth;
        const bool inside = i < out.texels && x < validWidth && y < validHeight;
        out.valid[i] = inside ? 1.0f : 0.0f;
        out.validCount += inside ? 1 : 0;
        for (int c = 0; c < 4; ++c) {
            float v = i < out.texels ? rgba[i * 4 + c] : 0.0f;
            v = v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f;  // NaN fails v > 0
            if (c == 3 && !hasAlpha) v = 1.0f;
            out.channel[c][i] = i < out.texels ? v * weights[c] : 0.0f;
        }
    }
}

// Gives the texels outside the image the value of the nearest texel inside it, so that values
// fitted over the whole footprint (grid weights) follow the image smoothly to its edge.
GLYPTORA_HD inline void astcExtendFromValidTexels(const AstcBlockTexels& t, float* values) {
    if (t.validWidth >= t.blockWidth && t.validHeight >= t.blockHeight) return;
    const int vw = t.validWidth > 0 ? t.validWidth : 1, vh = t.validHeight > 0 ? t.validHeight : 1;
    for (int y = 0; y < t.blockHeight; ++y)
        for (int x = 0; x < t.blockWidth; ++x)
            if (x >= vw || y >= vh)
                values[y * t.blockWidth + x] = values[(y < vh ? y : vh - 1) * t.blockWidth + (x < vw ? x : vw - 1)];
}

// Whether the valid texels of a fetched tile hold alpha below opaque (by more than half an
// 8-bit step).
GLYPTORA_HD inline bool astcTileHasAlpha(const float* rgba, int blockWidth, uint16_t validRegion) {
    const int validWidth = validRegion & 0xFF, validHeight = validRegion >> 8;
    for (int y = 0; y < validHeight; ++y)
        for (int x = 0; x < validWidth; ++x) {
            const float a = rgba[(y * blockWidth + x) * 4 + 3];
            if (!(a >= 1.0f - 0.5f / 255.0f)) return true;  // NaN counts as alpha
        }
    return false;
}

}  // namespace glyptora_astc
