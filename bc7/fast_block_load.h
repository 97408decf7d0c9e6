#pragma once
// The block and shape masks of the fast BC7 encoder.
//
// Texels are kept in lanes of four (texel 4g + lane is lane `lane` of group g)
// on a 0..255 scale (and a copy on 0..1); a shape gives each subset its lane
// masks. The shape masks come from the partition tables at compile time.
#include <cstdint>

#include "bc7/bc7_simd.h"
#include "bc7/bc7_tables.h"
#include "core/host_device.h"
#include "core/vec4.h"

namespace glyptora_bc7 {
inline namespace GLYPTORA_SIMD_ABI {
namespace fastenc {

using glyptora_simd::Vec4f;
using glyptora_simd::Vec4i;

// ---------------------------------------------------------------------------
// Shape masks and small tables, derived from the format tables at compile time.

struct ShapeBits {
    uint16_t second[64];  // texels of subset 1
    uint16_t third[64];   // texels of subset 2 (three-subset shapes only)
};

constexpr ShapeBits makeShapeBits(int subsets) {
    ShapeBits s{};
    for (int p = 0; p < 64; ++p) {
        uint16_t a = 0, b = 0;
        for (int i = 0; i < 16; ++i) {
            const int subset = subsets == 2 ? kPartitions2[p][i] : kPartitions3[p][i];
            if (subset == 1) a = uint16_t(a | (1u << i));
            if (subset == 2) b = uint16_t(b | (1u << i));
        }
        s.second[p] = a;
        s.third[p] = b;
    }
    return s;
}

GLYPTORA_BC7_TABLE ShapeBits kShapeBits2 = makeShapeBits(2);
GLYPTORA_BC7_TABLE ShapeBits kShapeBits3 = makeShapeBits(3);

// Where the row moments of each subset's texels are (see RowMoments): for
// subset 1 and 2 of every shape and each row, the float offset 256 row +
// 16 (column subset of the row).
struct ShapeRowOffsets {
    uint16_t at[64][2][4];
};

constexpr ShapeRowOffsets makeShapeRowOffsets(const ShapeBits& bits) {
    ShapeRowOffsets o{};
    for (int p = 0; p < 64; ++p)
        for (int r = 0; r < 4; ++r) {
            o.at[p][0][r] = uint16_t(256 * r + 16 * ((bits.second[p] >> (4 * r)) & 15));
            o.at[p][1][r] = uint16_t(256 * r + 16 * ((bits.third[p] >> (4 * r)) & 15));
        }
    return o;
}

GLYPTORA_BC7_TABLE ShapeRowOffsets kShapeRows2 = makeShapeRowOffsets(kShapeBits2);
GLYPTORA_BC7_TABLE ShapeRowOffsets kShapeRows3 = makeShapeRowOffsets(kShapeBits3);

GLYPTORA_HD inline float clampf(float v, float lo, float hi) { return v < lo ? lo : (v > hi ? hi : v); }
GLYPTORA_HD inline int clampi(int v, int lo, int hi) { return v < lo ? lo : (v > hi ? hi : v); }
// NaN reads as 0.
GLYPTORA_HD inline float saturate(float v) { return v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f; }

// ---------------------------------------------------------------------------
// The block.

struct Block {
    Vec4f ch[4][4];     // [channel][group], 0..255
    Vec4f uch[4][4];    // the same on the 0..1 scale
    Vec4f valid[4];     // lane masks of the valid texels
    float px[16][4];    // 0..255
    float unit[16][4];  // 0..1
    uint32_t validMask;
    int validCount;
    bool opaque;
};

GLYPTORA_HD inline void loadBlock(const float texels[64], uint16_t validRegion, bool imageHasAlpha, Block& b) {
    const int w = clampi(validRegion & 0xFF, 1, 4);
    const int h = clampi(validRegion >> 8, 1, 4);
    b.validMask = 0;
    b.validCount = 0;
    b.opaque = true;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const int i = y * 4 + x;
            b.validMask |= 1u << i;
            ++b.validCount;
            // Opaque means "alpha of at least 1.0": written so that NaN alpha counts as translucent.
            if (imageHasAlpha && !(texels[i * 4 + 3] >= 1.0f)) b.opaque = false;
        }
    for (int i = 0; i < 16; ++i)
        for (int c = 0; c < 4; ++c) {
            float v = saturate(texels[i * 4 + c]);
            if (c == 3 && b.opaque) v = 1.0f;
            b.unit[i][c] = v;
            b.px[i][c] = v * 255.0f;
        }
    for (int g = 0; g < 4; ++g) {
        for (int c = 0; c < 4; ++c) {
            b.ch[c][g] = Vec4f(b.px[4 * g][c], b.px[4 * g + 1][c], b.px[4 * g + 2][c], b.px[4 * g + 3][c]);
            b.uch[c][g] = Vec4f(b.unit[4 * g][c], b.unit[4 * g + 1][c], b.unit[4 * g + 2][c], b.unit[4 * g + 3][c]);
        }
        b.valid[g] = lanes::laneMask(int(b.validMask >> (4 * g)) & 15);
    }
}

// ---------------------------------------------------------------------------
// Shapes: lane masks of each subset (valid texels only) and per-texel subsets.

template <int NS>
struct Shape {
    int partition;
    Vec4f sel[NS][4];
    int8_t subsetOf[16];
};

template <int NS>
GLYPTORA_HD inline void makeShape(const Block& b, int partition, Shape<NS>& s) {
    s.partition = partition;
    uint32_t second = 0, third = 0;
    if (NS == 2) second = kShapeBits2.second[partition];
    if (NS == 3) {
        second = kShapeBits3.second[partition];
        third = kShapeBits3.third[partition];
    }
    for (int g = 0; g < 4; ++g) {
        Vec4f rest = b.valid[g];
        if (NS >= 2) {
            s.sel[1 % NS][g] = lanes::maskAnd(lanes::laneMask(int(second >> (4 * g)) & 15), b.valid[g]);
            rest = lanes::maskAndNot(rest, s.sel[1 % NS][g]);
        }
        if (NS >= 3) {
            s.sel[2 % NS][g] = lanes::maskAnd(lanes::laneMask(int(third >> (4 * g)) & 15), b.valid[g]);
            rest = lanes::maskAndNot(rest, s.sel[2 % NS][g]);
        }
        s.sel[0][g] = rest;
    }
    for (int i = 0; i < 16; ++i) s.subsetOf[i] = int8_t(((second >> i) & 1) ? 1 : (((third >> i) & 1) ? 2 : 0));
}

}  // namespace fastenc
}  // namespace GLYPTORA_SIMD_ABI
}  // namespace glyptora_bc7
