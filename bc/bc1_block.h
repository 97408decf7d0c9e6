#pragma once
// Building blocks of the BC1 colour encoders: block packing, single-colour blocks,
// 5:6:5 rounding, index selection, and the fast bounding-box encoders (opaque and
// punch-through). Everything here is plain float arithmetic on 16 fixed pixels so
// that the same code serves the CPU encoders and the CUDA kernels.
//
// Pixels arrive as 4 bytes each in memory order blue, green, red, alpha, row by row.
// Fast-path colours are red, green, blue floats on the 0..255 scale.
#include <cmath>
#include <cstdint>

#include "bc/single_colour_tables.h"
#include "core/host_device.h"

namespace glyptora_dxt {
namespace bc1 {

struct Colour3f {
    float r, g, b;
};

GLYPTORA_HD inline float clampf(float v, float lo, float hi) {
    // NaN reads as lo.
    return v > lo ? (v < hi ? v : hi) : lo;
}

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

// Nearest 5- or 6-bit level of a 0..255 value; the value is replaced by the level's
// expansion so that later steps see the colour the decoder will produce.
GLYPTORA_HD inline int roundChannel(float& value, float scale, int limit, int bits) {
    int q = int(floorf(clampf(value * scale, 0.0f, float(limit))));
    const int below = bits == 5 ? expand5(q) : expand6(q);
    const int above = bits == 5 ? (q + 1) * 8 + (q + 1) / 4 : (q + 1) * 4 + (q + 1) / 16;
    const float d0 = fabsf(value - float(below));
    const float d1 = fabsf(value - float(above));
    if (d1 < d0) q = q + 1 < limit ? q + 1 : limit;
    value = float(bits == 5 ? expand5(q) : expand6(q));
    return q;
}

// Rounds a 0..255 colour to 5:6:5 in place and returns the packed value.
GLYPTORA_HD inline unsigned round565(Colour3f& c) {
    const int r = roundChannel(c.r, 0.12156863f, 31, 5);
    const int g = roundChannel(c.g, 0.24705882f, 63, 6);
    const int b = roundChannel(c.b, 0.12156863f, 31, 5);
    return pack565(r, g, b);
}

GLYPTORA_HD inline float distanceSquared(const Colour3f& a, const Colour3f& b) {
    const float dr = a.r - b.r, dg = a.g - b.g, db = a.b - b.b;
    return dr * dr + dg * dg + db * db;
}

// 4-colour indices by unweighted squared distance to c0, c1 and the two thirds points.
// The thirds use two slightly different constant pairs; ties fall to the lower entry.
GLYPTORA_HD inline uint32_t selectFourColourIndices(const Colour3f* px, const Colour3f& c0, const Colour3f& c1) {
    const float k2a = 0x1.555554p-1f;  // 0.6666666  (0x3F2AAAAA)
    const float k2b = 0x1.555556p-2f;  // 0.33333334 (0x3EAAAAAB)
    const float k3a = 0x1.555554p-2f;  // 0.3333333  (0x3EAAAAAA)
    const float k3b = 0x1.555556p-1f;  // 0.6666667  (0x3F2AAAAB)
    const Colour3f p2{c0.r * k2a + c1.r * k2b, c0.g * k2a + c1.g * k2b, c0.b * k2a + c1.b * k2b};
    const Colour3f p3{c0.r * k3a + c1.r * k3b, c0.g * k3a + c1.g * k3b, c0.b * k3a + c1.b * k3b};
    uint32_t indices = 0;
    for (int i = 0; i < 16; ++i) {
        const float d0 = distanceSquared(px[i], c0);
        const float d1 = distanceSquared(px[i], c1);
        const float d2 = distanceSquared(px[i], p2);
        const float d3 = distanceSquared(px[i], p3);
        const uint32_t hi = ((d0 > d2 && d1 > d2) || (d0 > d3 && d1 > d3)) ? 1u : 0u;
        const uint32_t lo = (d0 > d3 && d2 > d3) ? 1u : 0u;
        indices |= (2u * hi + lo) << (2 * i);
    }
    return indices;
}

// 3-colour indices: nearest of c0, c1 and their midpoint (ties to the lower entry);
// every pixel whose alpha is 127 or less is written transparent (index 3).
GLYPTORA_HD inline uint32_t selectThreeColourIndices(const Colour3f* px, const uint8_t* bgra, const Colour3f& c0,
                                                     const Colour3f& c1) {
    const Colour3f mid{(c0.r + c1.r) * 0.5f, (c0.g + c1.g) * 0.5f, (c0.b + c1.b) * 0.5f};
    uint32_t indices = 0;
    for (int i = 0; i < 16; ++i) {
        uint32_t index = 3;
        if (bgra[4 * i + 3] > 127) {
            const float d0 = distanceSquared(px[i], c0);
            const float d1 = distanceSquared(px[i], c1);
            const float d2 = distanceSquared(px[i], mid);
            float best = d0;
            index = 0;
            if (d1 < best) {
                best = d1;
                index = 1;
            }
            if (d2 < best) index = 2;
        }
        indices |= index << (2 * i);
    }
    return indices;
}

GLYPTORA_HD inline void loadPixels(const uint8_t* bgra, Colour3f* px) {
    for (int i = 0; i < 16; ++i) px[i] = Colour3f{float(bgra[4 * i + 2]), float(bgra[4 * i + 1]), float(bgra[4 * i])};
}

GLYPTORA_HD inline uint32_t rgbOf(const uint8_t* bgra, int i) {
    return uint32_t(bgra[4 * i]) | (uint32_t(bgra[4 * i + 1]) << 8) | (uint32_t(bgra[4 * i + 2]) << 16);
}

// Bounding box of the pixels not marked in `mask` (3 at bits 2i..2i+1 skips pixel i),
// turned to the block's diagonal and inset by a sixteenth of its extent.
GLYPTORA_HD inline void boundingDiagonal(const Colour3f* px, uint32_t mask, Colour3f& mx, Colour3f& mn) {
    mx = Colour3f{0.0f, 0.0f, 0.0f};
    mn = Colour3f{255.0f, 255.0f, 255.0f};
    for (int i = 0; i < 16; ++i) {
        if ((mask >> (2 * i)) & 3u) continue;
        mx.r = px[i].r > mx.r ? px[i].r : mx.r;
        mx.g = px[i].g > mx.g ? px[i].g : mx.g;
        mx.b = px[i].b > mx.b ? px[i].b : mx.b;
        mn.r = px[i].r < mn.r ? px[i].r : mn.r;
        mn.g = px[i].g < mn.g ? px[i].g : mn.g;
        mn.b = px[i].b < mn.b ? px[i].b : mn.b;
    }
    // Blue is the reference axis: flip red or green when it runs against blue.
    const Colour3f centre{(mx.r + mn.r) * 0.5f, (mx.g + mn.g) * 0.5f, (mx.b + mn.b) * 0.5f};
    float covRB = 0.0f, covGB = 0.0f;
    for (int i = 0; i < 16; ++i) {
        if ((mask >> (2 * i)) & 3u) continue;
        const float db = px[i].b - centre.b;
        covRB += (px[i].r - centre.r) * db;
        covGB += (px[i].g - centre.g) * db;
    }
    if (covRB < 0.0f) {
        const float t = mx.r;
        mx.r = mn.r;
        mn.r = t;
    }
    if (covGB < 0.0f) {
        const float t = mx.g;
        mx.g = mn.g;
        mn.g = t;
    }
    const Colour3f inset{(mx.r - mn.r) * 0.0625f - 0.0019607844f, (mx.g - mn.g) * 0.0625f - 0.0019607844f,
                         (mx.b - mn.b) * 0.0625f - 0.0019607844f};
    mx = Colour3f{clampf(mx.r - inset.r, 0.0f, 255.0f), clampf(mx.g - inset.g, 0.0f, 255.0f),
                  clampf(mx.b - inset.b, 0.0f, 255.0f)};
    mn = Colour3f{clampf(mn.r + inset.r, 0.0f, 255.0f), clampf(mn.g + inset.g, 0.0f, 255.0f),
                  clampf(mn.b + inset.b, 0.0f, 255.0f)};
}

// Least-squares endpoints for fixed indices: pixel i contributes weight w on e0 and
// 1 - w on e1 (w = weightOf[index], negative leaves the pixel out). Returns false when
// the normal equations are too close to singular to trust.
GLYPTORA_HD inline bool solveEndpoints(const Colour3f* px, uint32_t indices, const float weightOf[4], Colour3f& e0,
                                       Colour3f& e1) {
    float aa = 0.0f, bb = 0.0f, ab = 0.0f;
    Colour3f ax{0.0f, 0.0f, 0.0f}, bx{0.0f, 0.0f, 0.0f};
    for (int i = 0; i < 16; ++i) {
        const float w = weightOf[(indices >> (2 * i)) & 3u];
        if (w < 0.0f) continue;
        const float v = 1.0f - w;
        aa += w * w;
        bb += v * v;
        ab += w * v;
        ax.r += w * px[i].r;
        ax.g += w * px[i].g;
        ax.b += w * px[i].b;
        bx.r += v * px[i].r;
        bx.g += v * px[i].g;
        bx.b += v * px[i].b;
    }
    const float det = aa * bb - ab * ab;
    const float absDet = fabsf(det);
    if (absDet <= 0.0001f * (absDet > 1.0f ? absDet : 1.0f)) return false;
    const float inv = 1.0f / det;
    e0 = Colour3f{clampf((bb * ax.r - ab * bx.r) * inv, 0.0f, 255.0f), clampf((bb * ax.g - ab * bx.g) * inv, 0.0f, 255.0f),
                  clampf((bb * ax.b - ab * bx.b) * inv, 0.0f, 255.0f)};
    e1 = Colour3f{clampf((aa * bx.r - ab * ax.r) * inv, 0.0f, 255.0f), clampf((aa * bx.g - ab * ax.g) * inv, 0.0f, 255.0f),
                  clampf((aa * bx.b - ab * ax.b) * inv, 0.0f, 255.0f)};
    return true;
}

// Rounds both endpoints and orders them: 4-colour mode puts the larger first,
// 3-colour mode the smaller. The float endpoints follow the packed ones.
GLYPTORA_HD inline void roundAndOrder(Colour3f& e0, Colour3f& e1, bool threeColour, unsigned& col0, unsigned& col1) {
    const unsigned c0 = round565(e0);
    const unsigned c1 = round565(e1);
    const bool keep = threeColour ? c0 < c1 : c0 >= c1;
    if (keep) {
        col0 = c0;
        col1 = c1;
    } else {
        col0 = c1;
        col1 = c0;
        const Colour3f t = e0;
        e0 = e1;
        e1 = t;
    }
}

// Opaque 4-colour block: bounding-box diagonal, then one least-squares refinement.
// Alpha is ignored.
GLYPTORA_HD inline void encodeOpaqueBlockFast(const uint8_t* bgra, uint8_t* out) {
    const uint32_t first = rgbOf(bgra, 0);
    bool flat = true;
    for (int i = 1; i < 16; ++i) flat = flat && rgbOf(bgra, i) == first;
    if (flat) {
        writeSingleColourBlock(bgra[2], bgra[1], bgra[0], out);
        return;
    }
    Colour3f px[16];
    loadPixels(bgra, px);
    Colour3f e0, e1;
    boundingDiagonal(px, 0, e0, e1);
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

// BC1 with punch-through alpha. Pixels with alpha 0 decide the mode; once in 3-colour
// mode every pixel with alpha 127 or less is written transparent.
GLYPTORA_HD inline void encodePunchThroughBlockFast(const uint8_t* bgra, uint8_t* out) {
    uint32_t mask = 0;
    for (int i = 0; i < 16; ++i)
        if (bgra[4 * i + 3] == 0) mask |= 3u << (2 * i);
    if (mask == 0) {
        encodeOpaqueBlockFast(bgra, out);
        return;
    }
    int firstOpaque = -1;
    bool flat = true;
    for (int i = 0; i < 16; ++i) {
        if ((mask >> (2 * i)) & 3u) continue;
        if (firstOpaque < 0) firstOpaque = i;
        else flat = flat && rgbOf(bgra, i) == rgbOf(bgra, firstOpaque);
    }
    if (flat) {
        // One opaque colour, or none at all (then black: every index is 3 anyway).
        if (firstOpaque < 0) {
            writeSingleColourBlockMasked(0, 0, 0, mask, out);
        } else {
            const uint8_t* p = bgra + 4 * firstOpaque;
            writeSingleColourBlockMasked(p[2], p[1], p[0], mask, out);
        }
        return;
    }
    Colour3f px[16];
    loadPixels(bgra, px);
    Colour3f e0, e1;
    boundingDiagonal(px, mask, e0, e1);
    unsigned col0, col1;
    roundAndOrder(e0, e1, true, col0, col1);
    uint32_t indices = selectThreeColourIndices(px, bgra, e0, e1);

    // Transparent pixels are left out; the midpoint weighs half on each endpoint.
    const float weightOf[4] = {1.0f, 0.0f, 0.5f, -1.0f};
    if (solveEndpoints(px, indices, weightOf, e0, e1)) {
        roundAndOrder(e0, e1, true, col0, col1);
        indices = selectThreeColourIndices(px, bgra, e0, e1);
    }
    writeBlock(out, col0, col1, indices);
}

}  // namespace bc1
}  // namespace glyptora_dxt
