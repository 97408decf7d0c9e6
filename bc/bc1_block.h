#pragma once
// Building blocks of the BC1 colour encoders: block packing, single-colour blocks,
// 5:6:5 rounding, index selection, and the fast bounding-box encoders (opaque and
// punch-through). The fast encoders are written against the four-lane vector layer
// (core/vec4.h): its SSE backend on x86 hosts, its scalar backend in CUDA device code,
// so that the same code serves the CPU encoders and the kernels.
//
// Pixels arrive as 4 bytes each in memory order blue, green, red, alpha, row by row.
// Fast-path colours are floats on the 0..255 scale, held in two layouts:
//  - planes: per channel, four vectors of four pixels (pixels 4k..4k+3 in vector k),
//    for the per-pixel work (bounding box, diagonal, index selection);
//  - colour vectors: one colour in lanes (blue, green, red, 0), for endpoints and the
//    per-pixel sums of the least-squares refinement.
// Every lane computes exactly the float operations, in the same order, that the plain
// per-channel formulation would, so the blocks do not depend on the backend.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "bc/single_colour_tables.h"
#include "core/host_device.h"
#include "core/vec4.h"

namespace glyptora_dxt {
namespace bc1 {
inline namespace GLYPTORA_SIMD_ABI {

using glyptora_simd::Vec4f;
using glyptora_simd::Vec4i;

// Little-endian block: col0, col1, then the 32-bit index word (pixel i at bits 2i..2i+1).
GLYPTORA_HD inline void writeBlock(uint8_t* out, unsigned col0, unsigned col1, uint32_t indices) {
    out[0] = uint8_t(col0);
    out[1] = uint8_t(col0 >> 8);
    out[2] = uint8_t(col1);
    out[3] = uint8_t(col1 >> 8);
    out[4] = uint8_t(indices);
    out[5] = uint8_t(indices >> 8);
    out[6] = uint8_t(indices >> 16);
    out[7] = uint8_t(indices >> 24);
}

GLYPTORA_HD inline unsigned pack565(int r, int g, int b) { return unsigned((r << 11) | (g << 5) | b); }

// One block of a single colour in 4-colour mode: every pixel on palette entry 2, whose
// decoded value per channel is the table's interpolation. `palette` (optional) receives
// that decoded colour as red, green, blue bytes.
GLYPTORA_HD inline void writeSingleColourBlock(int red, int green, int blue, uint8_t* out, int* palette = nullptr) {
    const SingleColourTables& t = singleColourTables();
    unsigned col0 = pack565(t.match5[red][0], t.match6[green][0], t.match5[blue][0]);
    unsigned col1 = pack565(t.match5[red][1], t.match6[green][1], t.match5[blue][1]);
    uint32_t indices = 0xAAAAAAAAu;
    if (col0 < col1) {
        // Swapping the endpoints moves the colour to entry 3; equal endpoints stay.
        const unsigned c = col0;
        col0 = col1;
        col1 = c;
        indices ^= 0x55555555u;
    }
    writeBlock(out, col0, col1, indices);
    if (palette) {
        palette[0] = (2 * expand5(t.match5[red][0]) + expand5(t.match5[red][1])) / 3;
        palette[1] = (2 * expand6(t.match6[green][0]) + expand6(t.match6[green][1])) / 3;
        palette[2] = (2 * expand5(t.match5[blue][0]) + expand5(t.match5[blue][1])) / 3;
    }
}

// One block of a single colour in 3-colour mode (opaque pixels on the midpoint entry 2),
// with `mask` holding index 3 for every transparent pixel. Without transparent pixels
// this is the 4-colour block.
GLYPTORA_HD inline void writeSingleColourBlockMasked(int red, int green, int blue, uint32_t mask, uint8_t* out,
                                                     int* palette = nullptr) {
    if (mask == 0) {
        writeSingleColourBlock(red, green, blue, out, palette);
        return;
    }
    const SingleColourTables& t = singleColourTables();
    unsigned col0 = pack565(t.matchAlpha5[red][0], t.matchAlpha6[green][0], t.matchAlpha5[blue][0]);
    unsigned col1 = pack565(t.matchAlpha5[red][1], t.matchAlpha6[green][1], t.matchAlpha5[blue][1]);
    if (col0 > col1) {
        // 3-colour mode needs col0 <= col1; the midpoint does not care about the order.
        const unsigned c = col0;
        col0 = col1;
        col1 = c;
    }
    writeBlock(out, col0, col1, 0xAAAAAAAAu | mask);
    if (palette) {
        palette[0] = (expand5(t.matchAlpha5[red][0]) + expand5(t.matchAlpha5[red][1])) / 2;
        palette[1] = (expand6(t.matchAlpha6[green][0]) + expand6(t.matchAlpha6[green][1])) / 2;
        palette[2] = (expand5(t.matchAlpha5[blue][0]) + expand5(t.matchAlpha5[blue][1])) / 2;
    }
}

// Moves bit j of the low 16 bits to bit 2j (one pixel flag to its index position).
GLYPTORA_HD inline uint32_t spreadPixelBits(uint32_t x) {
    x = (x | (x << 8)) & 0x00FF00FFu;
    x = (x | (x << 4)) & 0x0F0F0F0Fu;
    x = (x | (x << 2)) & 0x33333333u;
    x = (x | (x << 1)) & 0x55555555u;
    return x;
}

// The 16 pixels: packed words (blue in the low byte), the colour planes and, for the
// punch-through encoder, the alpha plane.
struct FastPixels {
    int32_t words[16];
    Vec4f r[4], g[4], b[4], a[4];
};

GLYPTORA_HD inline void loadFastPixels(const uint8_t* bgra, FastPixels& px) {
    memcpy(px.words, bgra, sizeof(px.words));  // little-endian: blue, green, red, alpha
    const Vec4i byteMask(0xFF);
    for (int k = 0; k < 4; ++k) {
        const Vec4i w = Vec4i::load(px.words + 4 * k);
        px.b[k] = glyptora_simd::toFloat(w & byteMask);
        px.g[k] = glyptora_simd::toFloat((w >> 8) & byteMask);
        px.r[k] = glyptora_simd::toFloat((w >> 16) & byteMask);
    }
}

GLYPTORA_HD inline void loadAlphaPlane(FastPixels& px) {
    for (int k = 0; k < 4; ++k)
        px.a[k] = glyptora_simd::toFloat((Vec4i::load(px.words + 4 * k) >> 24) & Vec4i(0xFF));
}

// Bit i set for every pixel whose alpha is at most `limit` (alpha plane loaded).
GLYPTORA_HD inline uint32_t alphaAtMost(const FastPixels& px, float limit) {
    const Vec4f bound(limit);
    uint32_t bits = 0;
    for (int k = 0; k < 4; ++k)
        bits |= uint32_t(glyptora_simd::moveMask(glyptora_simd::cmpLessEqual(px.a[k], bound))) << (4 * k);
    return bits;
}

// Colour vector (blue, green, red, 0) of pixel i.
GLYPTORA_HD inline Vec4f pixelColour(const FastPixels& px, int i) {
    const int32_t w = px.words[i];
#if defined(GLYPTORA_SIMD_SSE)
    return Vec4f(_mm_cvtepi32_ps(_mm_cvtepu8_epi32(_mm_cvtsi32_si128(w & 0xFFFFFF))));
#else
    return Vec4f(float(w & 0xFF), float((w >> 8) & 0xFF), float((w >> 16) & 0xFF), 0.0f);
#endif
}

// Lanes of a vector combined with max / min (exact, any order).
GLYPTORA_HD inline float laneMax(Vec4f v) {
    const float a = v.x() > v.y() ? v.x() : v.y();
    const float b = v.z() > v.w() ? v.z() : v.w();
    return a > b ? a : b;
}
GLYPTORA_HD inline float laneMin(Vec4f v) {
    const float a = v.x() < v.y() ? v.x() : v.y();
    const float b = v.z() < v.w() ? v.z() : v.w();
    return a < b ? a : b;
}

// 5:6:5 grid of the colour lanes (blue, green, red): per-lane scale to the level range,
// level limit, and the bit-replicating expansion level * expandMul + floor(level * expandShift).
struct Grid565 {
    Vec4f scale{0.12156863f, 0.24705882f, 0.12156863f, 0.0f};  // 31/255, 63/255, 31/255
    Vec4f limit{31.0f, 63.0f, 31.0f, 0.0f};
    Vec4f expandMul{8.0f, 4.0f, 8.0f, 0.0f};
    Vec4f expandShift{0.25f, 0.0625f, 0.25f, 0.0f};
    GLYPTORA_HD Vec4f expand(Vec4f level) const { return level * expandMul + glyptora_simd::floor(level * expandShift); }
};

// Rounds a 0..255 colour vector to 5:6:5 in place and returns the packed value. Per
// channel: q = floor(clamp(value * 31/255 (63/255), 0, limit)), moved up one level when
// the next level's expansion is strictly nearer (capped at the limit); the value becomes
// the chosen level's expansion so that later steps see the colour the decoder produces.
// All levels and expansions are small integers, exact in float.
GLYPTORA_HD inline unsigned round565(Vec4f& c) {
    const Grid565 grid;
    const Vec4f zero(0.0f);
    // The clamped value is never negative, so truncation is the floor (NaN reads as 0).
    const Vec4f level = glyptora_simd::truncate(glyptora_simd::clamp(c * grid.scale, zero, grid.limit));
    const Vec4f next = level + Vec4f(1.0f);
    const Vec4f d0 = glyptora_simd::abs(c - grid.expand(level));
    const Vec4f d1 = glyptora_simd::abs(c - grid.expand(next));
    const Vec4f chosen =
        glyptora_simd::select(glyptora_simd::cmpLess(d1, d0), glyptora_simd::min(next, grid.limit), level);
    c = grid.expand(chosen);
    return pack565(int(chosen.z()), int(chosen.y()), int(chosen.x()));
}

// A palette colour broadcast to all four lanes, one vector per channel.
struct SplatColour {
    Vec4f b, g, r;
    GLYPTORA_HD explicit SplatColour(Vec4f c) : b(c.splat<0>()), g(c.splat<1>()), r(c.splat<2>()) {}
};

// Squared RGB distance of four pixels to one palette colour.
GLYPTORA_HD inline Vec4f squaredDistance(Vec4f r, Vec4f g, Vec4f b, const SplatColour& c) {
    const Vec4f dr = r - c.r, dg = g - c.g, db = b - c.b;
    return dr * dr + dg * dg + db * db;
}

// 4-colour indices by unweighted squared distance to c0, c1 and the two thirds points.
// The thirds use two slightly different constant pairs; ties fall to the lower entry:
// index = 2*((d0 > d2 && d1 > d2) || (d0 > d3 && d1 > d3)) + (d0 > d3 && d2 > d3),
// evaluated as 2*(min(d0, d1) > min(d2, d3)) + (min(d0, d2) > d3) (distances are never NaN).
GLYPTORA_HD inline uint32_t selectFourColourIndices(const FastPixels& px, Vec4f c0, Vec4f c1) {
    const Vec4f k2a(0x1.555554p-1f);  // 0.6666666  (0x3F2AAAAA)
    const Vec4f k2b(0x1.555556p-2f);  // 0.33333334 (0x3EAAAAAB)
    const Vec4f k3a(0x1.555554p-2f);  // 0.3333333  (0x3EAAAAAA)
    const Vec4f k3b(0x1.555556p-1f);  // 0.6666667  (0x3F2AAAAB)
    const Vec4f c2 = c0 * k2a + c1 * k2b;
    const Vec4f c3 = c0 * k3a + c1 * k3b;
    const SplatColour p0(c0), p1(c1), p2(c2), p3(c3);
    uint32_t hiBits = 0, loBits = 0;
    for (int k = 0; k < 4; ++k) {
        const Vec4f r = px.r[k], g = px.g[k], b = px.b[k];
        const Vec4f d0 = squaredDistance(r, g, b, p0), d1 = squaredDistance(r, g, b, p1);
        const Vec4f d2 = squaredDistance(r, g, b, p2), d3 = squaredDistance(r, g, b, p3);
        const int hi = glyptora_simd::moveMask(
            glyptora_simd::cmpGreater(glyptora_simd::min(d0, d1), glyptora_simd::min(d2, d3)));
        const int lo = glyptora_simd::moveMask(glyptora_simd::cmpGreater(glyptora_simd::min(d0, d2), d3));
        hiBits |= uint32_t(hi) << (4 * k);
        loBits |= uint32_t(lo) << (4 * k);
    }
    return (spreadPixelBits(hiBits) << 1) | spreadPixelBits(loBits);
}

// 3-colour indices: nearest of c0, c1 and their midpoint (ties to the lower entry);
// every pixel flagged in `transparent` (alpha 127 or less) is written with index 3.
GLYPTORA_HD inline uint32_t selectThreeColourIndices(const FastPixels& px, uint32_t transparent, Vec4f c0, Vec4f c1) {
    const Vec4f c2 = (c0 + c1) * Vec4f(0.5f);
    const SplatColour p0(c0), p1(c1), p2(c2);
    uint32_t oneBits = 0, twoBits = 0;
    for (int k = 0; k < 4; ++k) {
        const Vec4f r = px.r[k], g = px.g[k], b = px.b[k];
        const Vec4f d0 = squaredDistance(r, g, b, p0), d1 = squaredDistance(r, g, b, p1);
        const Vec4f d2 = squaredDistance(r, g, b, p2);
        // Entry 1 when d1 < d0; entry 2 when d2 is below the better of the two.
        const int one = glyptora_simd::moveMask(glyptora_simd::cmpLess(d1, d0));
        const int two = glyptora_simd::moveMask(glyptora_simd::cmpLess(d2, glyptora_simd::min(d1, d0)));
        oneBits |= uint32_t(one) << (4 * k);
        twoBits |= uint32_t(two) << (4 * k);
    }
    const uint32_t hi = twoBits | transparent;
    const uint32_t lo = (oneBits & ~twoBits) | transparent;
    return (spreadPixelBits(hi) << 1) | spreadPixelBits(lo);
}

// Bounding box of the pixels selected by `keep` (all pixels when null; otherwise one lane
// mask per plane vector), as colour vectors. Left-out pixels leave the box alone (the
// maximum starts at 0, the minimum at 255).
GLYPTORA_HD inline void boundingBox(const FastPixels& px, const Vec4f* keep, Vec4f& mx, Vec4f& mn) {
    const Vec4f zero(0.0f), full(255.0f);
    Vec4f maxR = zero, maxG = zero, maxB = zero, minR = full, minG = full, minB = full;
    for (int k = 0; k < 4; ++k) {
        const Vec4f r = px.r[k], g = px.g[k], b = px.b[k];
        if (keep) {
            maxR = glyptora_simd::max(maxR, glyptora_simd::select(keep[k], r, zero));
            maxG = glyptora_simd::max(maxG, glyptora_simd::select(keep[k], g, zero));
            maxB = glyptora_simd::max(maxB, glyptora_simd::select(keep[k], b, zero));
            minR = glyptora_simd::min(minR, glyptora_simd::select(keep[k], r, full));
            minG = glyptora_simd::min(minG, glyptora_simd::select(keep[k], g, full));
            minB = glyptora_simd::min(minB, glyptora_simd::select(keep[k], b, full));
        } else {
            maxR = glyptora_simd::max(maxR, r);
            maxG = glyptora_simd::max(maxG, g);
            maxB = glyptora_simd::max(maxB, b);
            minR = glyptora_simd::min(minR, r);
            minG = glyptora_simd::min(minG, g);
            minB = glyptora_simd::min(minB, b);
        }
    }
    mx = Vec4f(laneMax(maxB), laneMax(maxG), laneMax(maxR), 0.0f);
    mn = Vec4f(laneMin(minB), laneMin(minG), laneMin(minR), 0.0f);
}

// Turns the bounding box to the block's diagonal and insets it by a sixteenth of its extent.
// Blue is the reference axis: red or green flips when it runs against blue. The sums are
// of multiples of 0.25 far below 2^22, hence exact in any order.
GLYPTORA_HD inline void diagonalInset(const FastPixels& px, const Vec4f* keep, Vec4f& mx, Vec4f& mn) {
    const Vec4f centre = (mx + mn) * Vec4f(0.5f);
    const Vec4f cr = centre.splat<2>(), cg = centre.splat<1>(), cb = centre.splat<0>();
    Vec4f sumRB(0.0f), sumGB(0.0f);
    for (int k = 0; k < 4; ++k) {
        Vec4f db = px.b[k] - cb;
        if (keep) db = glyptora_simd::select(keep[k], db, Vec4f(0.0f));
        sumRB += (px.r[k] - cr) * db;
        sumGB += (px.g[k] - cg) * db;
    }
    const float covRB = sumRB.x() + sumRB.y() + sumRB.z() + sumRB.w();
    const float covGB = sumGB.x() + sumGB.y() + sumGB.z() + sumGB.w();
    const Vec4f flip = glyptora_simd::cmpLess(Vec4f(0.0f, covGB, covRB, 0.0f), Vec4f(0.0f));
    const Vec4f hi = glyptora_simd::select(flip, mn, mx);
    const Vec4f lo = glyptora_simd::select(flip, mx, mn);
    const Vec4f inset = (hi - lo) * Vec4f(0.0625f) - Vec4f(0.0019607844f);
    const Vec4f zero(0.0f), full(255.0f);
    mx = glyptora_simd::clamp(hi - inset, zero, full);
    mn = glyptora_simd::clamp(lo + inset, zero, full);
}

// Least-squares endpoints for fixed indices: pixel i contributes weight w on e0 and
// 1 - w on e1 (w = weightOf[index], negative leaves the pixel out). Returns false when
// the normal equations are too close to singular to trust. The sums run over the pixels
// in order, one lane per sum.
GLYPTORA_HD inline bool solveEndpoints(const FastPixels& px, uint32_t indices, const float weightOf[4], Vec4f& e0,
                                       Vec4f& e1) {
    Vec4f moments[4], onE0[4], onE1[4];  // per index: (w*w, v*v, w*v, 0), w, v (all 0 when left out)
    for (int j = 0; j < 4; ++j) {
        const float w = weightOf[j];
        const float v = 1.0f - w;
        const bool used = !(w < 0.0f);
        moments[j] = used ? Vec4f(w * w, v * v, w * v, 0.0f) : Vec4f(0.0f);
        onE0[j] = Vec4f(used ? w : 0.0f);
        onE1[j] = Vec4f(used ? v : 0.0f);
    }
    Vec4f sums(0.0f), ax(0.0f), bx(0.0f);
    for (int i = 0; i < 16; ++i) {
        const uint32_t index = (indices >> (2 * i)) & 3u;
        const Vec4f p = pixelColour(px, i);
        sums += moments[index];
        ax += onE0[index] * p;
        bx += onE1[index] * p;
    }
    const float aa = sums.x(), bb = sums.y(), ab = sums.z();
    const float det = aa * bb - ab * ab;
    const float absDet = fabsf(det);
    if (absDet <= 0.0001f * (absDet > 1.0f ? absDet : 1.0f)) return false;
    const Vec4f inv(1.0f / det);
    const Vec4f zero(0.0f), full(255.0f);
    e0 = glyptora_simd::clamp((Vec4f(bb) * ax - Vec4f(ab) * bx) * inv, zero, full);
    e1 = glyptora_simd::clamp((Vec4f(aa) * bx - Vec4f(ab) * ax) * inv, zero, full);
    return true;
}

// Rounds both endpoints and orders them: 4-colour mode puts the larger first,
// 3-colour mode the smaller. The float endpoints follow the packed ones.
GLYPTORA_HD inline void roundAndOrder(Vec4f& e0, Vec4f& e1, bool threeColour, unsigned& col0, unsigned& col1) {
    const unsigned c0 = round565(e0);
    const unsigned c1 = round565(e1);
    const bool keep = threeColour ? c0 < c1 : c0 >= c1;
    if (keep) {
        col0 = c0;
        col1 = c1;
    } else {
        col0 = c1;
        col1 = c0;
        const Vec4f t = e0;
        e0 = e1;
        e1 = t;
    }
}

// True when the box is a single colour (maximum equals minimum in every channel).
GLYPTORA_HD inline bool isPoint(Vec4f mx, Vec4f mn) {
    return glyptora_simd::moveMask(glyptora_simd::cmpLess(mn, mx)) == 0;
}

// The opaque 4-colour block of loaded pixels (alpha ignored).
GLYPTORA_HD inline void encodeOpaquePixels(const FastPixels& px, const uint8_t* bgra, uint8_t* out) {
    Vec4f e0, e1;
    boundingBox(px, nullptr, e0, e1);
    if (isPoint(e0, e1)) {
        writeSingleColourBlock(bgra[2], bgra[1], bgra[0], out);
        return;
    }
    diagonalInset(px, nullptr, e0, e1);
    unsigned col0, col1;
    roundAndOrder(e0, e1, false, col0, col1);
    uint32_t indices = selectFourColourIndices(px, e0, e1);

    // Index 0 is col0, 1 is col1, 2 and 3 the thirds nearer col0 and col1.
    const float third = 0.33333334f;
    const float weightOf[4] = {1.0f, 0.0f, 2.0f * third, third};
    if (solveEndpoints(px, indices, weightOf, e0, e1)) {
        roundAndOrder(e0, e1, false, col0, col1);
        indices = selectFourColourIndices(px, e0, e1);
    }
    writeBlock(out, col0, col1, indices);
}

// Opaque 4-colour block: bounding-box diagonal, then one least-squares refinement.
// Alpha is ignored; a block of one colour takes the single-colour table block.
GLYPTORA_HD inline void encodeOpaqueBlockFast(const uint8_t* bgra, uint8_t* out) {
    FastPixels px;
    loadFastPixels(bgra, px);
    encodeOpaquePixels(px, bgra, out);
}

// BC1 with punch-through alpha. Pixels with alpha 0 decide the mode; once in 3-colour
// mode every pixel with alpha 127 or less is written transparent.
GLYPTORA_HD inline void encodePunchThroughBlockFast(const uint8_t* bgra, uint8_t* out) {
    FastPixels px;
    loadFastPixels(bgra, px);
    loadAlphaPlane(px);
    const uint32_t clear = alphaAtMost(px, 0.0f);
    if (clear == 0) {
        encodeOpaquePixels(px, bgra, out);
        return;
    }
    const uint32_t mask = 3u * spreadPixelBits(clear);
    if (clear == 0xFFFFu) {
        // No opaque pixel: black, every index 3.
        writeSingleColourBlockMasked(0, 0, 0, mask, out);
        return;
    }
    Vec4f keep[4];
    for (int k = 0; k < 4; ++k) keep[k] = glyptora_simd::cmpGreater(px.a[k], Vec4f(0.0f));
    Vec4f e0, e1;
    boundingBox(px, keep, e0, e1);
    if (isPoint(e0, e1)) {
        // All opaque pixels share one colour.
        writeSingleColourBlockMasked(int(e0.z()), int(e0.y()), int(e0.x()), mask, out);
        return;
    }
    diagonalInset(px, keep, e0, e1);
    unsigned col0, col1;
    roundAndOrder(e0, e1, true, col0, col1);
    const uint32_t transparent = alphaAtMost(px, 127.0f);
    uint32_t indices = selectThreeColourIndices(px, transparent, e0, e1);

    // Transparent pixels are left out; the midpoint weighs half on each endpoint.
    const float weightOf[4] = {1.0f, 0.0f, 0.5f, -1.0f};
    if (solveEndpoints(px, indices, weightOf, e0, e1)) {
        roundAndOrder(e0, e1, true, col0, col1);
        indices = selectThreeColourIndices(px, transparent, e0, e1);
    }
    writeBlock(out, col0, col1, indices);
}

}  // namespace GLYPTORA_SIMD_ABI
}  // namespace bc1
}  // namespace glyptora_dxt
