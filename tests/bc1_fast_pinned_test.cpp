// Pins the exact output of the fast BC1 block functions: a few thousand deterministic blocks
// of many kinds are encoded and the FNV-1a hash of every output byte is compared with the
// value recorded from the reference build. Any change to the fast path that alters even one
// bit of one block fails here. (The unsigned tile fetch is checked pixel by pixel in
// cpu_input_buffer_test, the BC1 entry against these block functions in bc1_encoder_test.)
#include <gtest/gtest.h>

#include <array>
#include <cstdint>

#include "bc/bc1_encoder.h"
#include "bc/colour_block.h"
#include "fnv1a.h"

namespace {

using Pixels = std::array<uint8_t, 64>;  // blue, green, red, alpha per pixel

// Small deterministic generator (xorshift64*), independent of the standard library's distributions.
struct Rng {
    uint64_t s;
    uint32_t next() {
        s ^= s >> 12, s ^= s << 25, s ^= s >> 27;
        return uint32_t((s * 0x2545F4914F6CDD1Dull) >> 32);
    }
    int below(int n) { return int(next() % uint32_t(n)); }
    int range(int lo, int hi) { return lo + below(hi - lo + 1); }
};

void setPixel(Pixels& p, int i, int r, int g, int b, int a) {
    const int bgra[4] = {b, g, r, a};
    for (int c = 0; c < 4; ++c) p[4 * i + c] = uint8_t(bgra[c] < 0 ? 0 : bgra[c] > 255 ? 255 : bgra[c]);
}

// Alpha patterns: opaque, random full range, some zeros, zeros plus 1..127, only 1..127, all zero.
int alphaFor(Rng& rng, int pattern, int i) {
    switch (pattern) {
    case 0: return 255;
    case 1: return rng.below(256);
    case 2: return rng.below(4) == 0 ? 0 : rng.range(128, 255);
    case 3: {
        const int k = rng.below(4);
        return k == 0 ? 0 : (k == 1 ? rng.range(1, 127) : rng.range(128, 255));
    }
    case 4: return rng.below(3) == 0 ? rng.range(1, 127) : 255;
    case 5: return 0;
    case 6: return i == 5 ? 0 : rng.range(1, 127);
    default: return (i & 1) ? 255 : rng.range(0, 2);
    }
}

// The generator's calls are sequenced one per statement or declarator: the pinned hashes
// depend on their order.
Pixels makeBlock(Rng& rng, int kind) {
    Pixels p{};
    const int alphaPattern = rng.below(8) < 4 ? 0 : rng.below(8);
    switch (kind) {
    case 0:  // uniform noise
        for (int i = 0; i < 16; ++i) {
            const int r = rng.below(256), g = rng.below(256), b = rng.below(256);
            setPixel(p, i, r, g, b, alphaFor(rng, alphaPattern, i));
        }
        break;
    case 1: {  // smooth gradient plus noise
        const int base[3] = {rng.below(256), rng.below(256), rng.below(256)};
        int dx[3], dy[3];
        for (int c = 0; c < 3; ++c) dx[c] = rng.range(-24, 24), dy[c] = rng.range(-24, 24);
        const int noise = rng.below(4) == 0 ? 0 : rng.range(1, 12);
        for (int i = 0; i < 16; ++i) {
            int v[3];
            for (int c = 0; c < 3; ++c)
                v[c] = base[c] + dx[c] * (i & 3) + dy[c] * (i >> 2) + (noise ? rng.range(-noise, noise) : 0);
            setPixel(p, i, v[0], v[1], v[2], alphaFor(rng, alphaPattern, i));
        }
        break;
    }
    case 2:    // flat colour (alpha may vary)
    case 4: {  // nearly flat: one or two pixels differ slightly or strongly
        const int r = rng.below(256), g = rng.below(256), b = rng.below(256);
        for (int i = 0; i < 16; ++i) setPixel(p, i, r, g, b, alphaFor(rng, alphaPattern, i));
        const int spread = kind == 2 ? 0 : rng.below(2) ? 2 : 80;
        for (int n = spread ? rng.range(1, 2) : 0; n > 0; --n) {
            const int i = rng.below(16);
            const int dr = rng.range(-spread, spread), dg = rng.range(-spread, spread), db = rng.range(-spread, spread);
            setPixel(p, i, r + dr, g + dg, b + db, p[4 * i + 3]);
        }
        break;
    }
    case 3: {  // two colours
        int c[2][3];
        for (auto& col : c)
            for (int& v : col) v = rng.below(256);
        const uint32_t pick = rng.next();
        for (int i = 0; i < 16; ++i) {
            const int* col = c[(pick >> i) & 1];
            setPixel(p, i, col[0], col[1], col[2], alphaFor(rng, alphaPattern, i));
        }
        break;
    }
    case 5:  // extremes: channels at 0 or 255, and values near them
        for (int i = 0; i < 16; ++i) {
            int v[3];
            for (int& x : v) {
                const int k = rng.below(4);
                x = k == 0 ? 0 : (k == 1 ? 255 : (k == 2 ? rng.range(0, 6) : rng.range(249, 255)));
            }
            setPixel(p, i, v[0], v[1], v[2], alphaFor(rng, alphaPattern, i));
        }
        break;
    case 6: {  // grey ramps and anti-correlated channels
        const int lo = rng.below(200), span = rng.range(1, 255 - lo);
        const bool flipRed = rng.below(2), flipGreen = rng.below(2);
        for (int i = 0; i < 16; ++i) {
            const int t = lo + span * rng.below(16) / 15, other = lo + span - (t - lo);
            setPixel(p, i, flipRed ? other : t, flipGreen ? other : t, t, alphaFor(rng, alphaPattern, i));
        }
        break;
    }
    default: {  // few distinct colours with small differences (near-singular refinements)
        int c[3][3];
        const int r = rng.below(250), g = rng.below(250), b = rng.below(250);
        for (auto& col : c) col[0] = r + rng.below(6), col[1] = g + rng.below(6), col[2] = b + rng.below(6);
        for (int i = 0; i < 16; ++i) {
            const int* col = c[rng.below(3)];
            setPixel(p, i, col[0], col[1], col[2], alphaFor(rng, alphaPattern, i));
        }
        break;
    }
    }
    return p;
}

}  // namespace

// Values recorded from the reference implementation of the fast path; the library's entry
// and the inlined forms of colour_block.h must give the same blocks.
TEST(BC1FastPinned, BlockFunctions) {
    Rng rng{0x9E3779B97F4A7C15ull};
    uint64_t colour = kFnv1aStart, colourInlined = kFnv1aStart, bc1a = kFnv1aStart, bc1aInlined = kFnv1aStart;
    for (int n = 0; n < 6000; ++n) {
        const Pixels p = makeBlock(rng, n % 8);
        uint8_t b[4][8];
        glyptora_dxt::encodeColourBlock(p.data(), true, nullptr, b[0]);
        glyptora_dxt::encodeColourBlockFast(p.data(), b[1]);
        glyptora_dxt::encodeBC1aBlock(p.data(), true, nullptr, b[2]);
        glyptora_dxt::encodeBC1aBlockFast(p.data(), b[3]);
        colour = fnv1a(colour, b[0], 8), colourInlined = fnv1a(colourInlined, b[1], 8);
        bc1a = fnv1a(bc1a, b[2], 8), bc1aInlined = fnv1a(bc1aInlined, b[3], 8);
    }
    EXPECT_EQ(colour, colourInlined);
    EXPECT_EQ(bc1a, bc1aInlined);
    EXPECT_EQ(colour, 0x562349860667a782ull) << std::hex << "0x" << colour;
    EXPECT_EQ(bc1a, 0x1963e1d1a6c668feull) << std::hex << "0x" << bc1a;
}
