// BC1 block encoders (fast and high quality, opaque and with one-bit alpha), the BC1 decoder and
// the single-colour tables: pinned blocks, brute-force searches, and a double-precision search
// over the cluster fit's splits. (The fast encoders' blocks on thousands of random blocks are
// pinned in bc1_fast_pinned_test.)
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "bc/bc1_decoder.h"
#include "bc/bc1_encoder.h"
#include "bc/single_colour_tables.h"
#include "core/cpu_input_buffer.h"

using namespace glyptora_dxt;

namespace {

using Block = std::array<uint8_t, 8>;
using Pixels = std::array<uint8_t, 64>;  // blue, green, red, alpha per pixel

enum Encoder { BC1aFast, BC1aHQ, ColourFast, ColourHQ };
constexpr Encoder kAll[] = {BC1aFast, BC1aHQ, ColourFast, ColourHQ};
constexpr float kUnit[3] = {1, 1, 1}, kPerceptual[3] = {0.2126f, 0.7152f, 0.0722f};

Block encode(Encoder e, const Pixels& px, const float* metric = kUnit) {
    Block b{};
    if (e == BC1aFast || e == BC1aHQ) encodeBC1aBlock(px.data(), e == BC1aFast, metric, b.data());
    else encodeColourBlock(px.data(), e == ColourFast, metric, b.data());
    return b;
}

unsigned col0(const Block& b) { return b[0] | (b[1] << 8); }
unsigned col1(const Block& b) { return b[2] | (b[3] << 8); }
uint32_t indices(const Block& b) { return uint32_t(b[4]) | (b[5] << 8) | (b[6] << 16) | (uint32_t(b[7]) << 24); }
unsigned pack(int r, int g, int b) { return unsigned((r << 11) | (g << 5) | b); }

void setPixel(Pixels& p, int i, int r, int g, int b, int a = 255) {
    p[4 * i] = uint8_t(b), p[4 * i + 1] = uint8_t(g), p[4 * i + 2] = uint8_t(r), p[4 * i + 3] = uint8_t(a);
}
Pixels solid(int r, int g, int b, int a = 255) {
    Pixels p;
    for (int i = 0; i < 16; ++i) setPixel(p, i, r, g, b, a);
    return p;
}

// --- Double-precision reference of the cluster fit -------------------------------------------

struct Point {
    double x[3], w;
};

// Pixel weight: 1, or (alpha + 1) / 256 for BC1a; alpha-0 pixels are skipped for BC1a.
double weightOf(const uint8_t* p, bool bc1a) { return bc1a ? (p[3] + 1) / 256.0 : 1.0; }

// Distinct colours with summed weights, ordered along the dominant axis of their weighted
// covariance (power iteration from the row with the largest diagonal entry).
std::vector<Point> sortedPoints(const uint8_t* bgra, bool bc1a) {
    std::vector<Point> pts;
    for (int i = 0; i < 16; ++i) {
        const uint8_t* p = bgra + 4 * i;
        if (bc1a && p[3] == 0) continue;
        const Point q{{p[2] / 255.0, p[1] / 255.0, p[0] / 255.0}, weightOf(p, bc1a)};
        auto same = std::find_if(pts.begin(), pts.end(), [&](const Point& o) {
            return o.x[0] == q.x[0] && o.x[1] == q.x[1] && o.x[2] == q.x[2];
        });
        if (same != pts.end()) same->w += q.w;
        else pts.push_back(q);
    }
    double total = 0, centre[3] = {}, cov[3][3] = {};
    for (const Point& p : pts)
        for (int c = 0; c < 3; ++c) centre[c] += p.w * p.x[c], total += c == 0 ? p.w : 0;
    for (const Point& p : pts)
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c)
                cov[r][c] += p.w * (p.x[r] - centre[r] / total) * (p.x[c] - centre[c] / total);
    int start = 0;
    for (int d = 1; d < 3; ++d)
        if (cov[d][d] > cov[start][start]) start = d;
    double v[3] = {cov[start][0], cov[start][1], cov[start][2]};
    for (int it = 0; it < 8; ++it) {
        double u[3];
        for (int r = 0; r < 3; ++r) u[r] = cov[r][0] * v[0] + cov[r][1] * v[1] + cov[r][2] * v[2];
        const double m = std::max({std::fabs(u[0]), std::fabs(u[1]), std::fabs(u[2])});
        for (int r = 0; r < 3; ++r) v[r] = u[r] / m;
    }
    auto along = [&](const Point& p) { return p.x[0] * v[0] + p.x[1] * v[1] + p.x[2] * v[2]; };
    std::stable_sort(pts.begin(), pts.end(), [&](const Point& a, const Point& b) { return along(a) < along(b); });
    return pts;
}

// Smallest error over every split of the sorted points into consecutive clusters with palette
// weights `clusterAlpha` on endpoint a (1 - alpha on b): least-squares endpoints, clamped and
// snapped to 5:6:5.
double bestSplitError(const std::vector<Point>& pts, const std::vector<double>& clusterAlpha, const float* metric) {
    const double levels[3] = {31, 63, 31};
    const int n = int(pts.size()), clusters = int(clusterAlpha.size());
    double best = 1e30;
    std::vector<int> cut(clusters - 1, 0);
    for (;;) {
        std::vector<double> alpha(n);
        for (int i = 0; i < n; ++i)
            alpha[i] = clusterAlpha[std::upper_bound(cut.begin(), cut.end(), i) - cut.begin()];
        double aa = 0, bb = 0, ab = 0, ax[3] = {}, bx[3] = {};
        for (int i = 0; i < n; ++i) {
            const double al = alpha[i], be = 1 - al, w = pts[i].w;
            aa += w * al * al, bb += w * be * be, ab += w * al * be;
            for (int c = 0; c < 3; ++c) ax[c] += w * al * pts[i].x[c], bx[c] += w * be * pts[i].x[c];
        }
        const double det = aa * bb - ab * ab;
        if (std::fabs(det) > 1e-9) {
            double e = 0;
            for (int c = 0; c < 3; ++c) {
                auto snap = [&](double v) {
                    return std::trunc(std::clamp(v, 0.0, 1.0) * levels[c] + 0.5) / levels[c];
                };
                const double a = snap((bb * ax[c] - ab * bx[c]) / det), b = snap((aa * bx[c] - ab * ax[c]) / det);
                for (int i = 0; i < n; ++i)
                    e += metric[c] * metric[c] * pts[i].w * std::pow(alpha[i] * a + (1 - alpha[i]) * b - pts[i].x[c], 2);
            }
            best = std::min(best, e);
        }
        int k = clusters - 2;  // next non-decreasing cut vector
        while (k >= 0 && cut[k] == n) --k;
        if (k < 0) return best;
        ++cut[k];
        for (int m = k + 1; m < clusters - 1; ++m) cut[m] = cut[k];
    }
}

// The block's error in the same units: endpoints as grid levels / (31, 63, 31), palette
// weights from the indices and the block's mode. Opaque pixels must not be on index 3.
double blockError(const uint8_t* block, const uint8_t* bgra, bool bc1a, const float* metric) {
    const unsigned c0 = block[0] | (block[1] << 8), c1 = block[2] | (block[3] << 8);
    const double e0[3] = {(c0 >> 11) / 31.0, ((c0 >> 5) & 63) / 63.0, (c0 & 31) / 31.0};
    const double e1[3] = {(c1 >> 11) / 31.0, ((c1 >> 5) & 63) / 63.0, (c1 & 31) / 31.0};
    const double four[4] = {1, 0, 2.0 / 3, 1.0 / 3}, three[4] = {1, 0, 0.5, -1};
    double e = 0;
    for (int i = 0; i < 16; ++i) {
        const uint8_t* p = bgra + 4 * i;
        const int index = (block[4 + i / 4] >> (2 * (i % 4))) & 3;
        if (bc1a && p[3] == 0) {
            EXPECT_EQ(index, 3) << "transparent pixel " << i;
            continue;
        }
        const double al = (c0 > c1 ? four : three)[index];
        EXPECT_GE(al, 0.0) << "opaque pixel " << i << " written transparent";
        for (int c = 0; c < 3; ++c)
            e += metric[c] * metric[c] * weightOf(p, bc1a) *
                 std::pow(al * e0[c] + (1 - al) * e1[c] - p[2 - c] / 255.0, 2);
    }
    return e;
}

// Random block with a dominant direction, repeated colours, noise and random alpha.
Pixels randomBlock(std::mt19937& rng) {
    Pixels px;
    int a[3], b[3];
    for (int c = 0; c < 3; ++c) a[c] = int(rng() % 256), b[c] = int(rng() % 256);
    const int noise = int(rng() % 40);
    for (int i = 0; i < 16; ++i) {
        const int j = i > 0 && rng() % 4 == 0 ? int(rng() % i) : -1;
        const double t = (rng() % 1000) / 999.0;
        for (int c = 0; c < 3; ++c)
            px[4 * i + 2 - c] =
                uint8_t(std::clamp(int(a[c] + (b[c] - a[c]) * t) + int(rng() % (2 * noise + 1)) - noise, 0, 255));
        px[4 * i + 3] = uint8_t(rng());
        if (j >= 0) std::copy_n(&px[4 * j], 4, &px[4 * i]);
    }
    return px;
}

}  // namespace

TEST(SingleColourTables, EveryEntryIsTheBestPairByDirectSearch) {
    const struct {
        const uint8_t (*entries)[2];
        int bits;
        bool threeColour;
    } tables[] = {{OMatch5, 5, false}, {OMatch6, 6, false}, {OMatchAlpha5, 5, true}, {OMatchAlpha6, 6, true}};
    for (const auto& t : tables) {
        auto e = [&](int x) { return t.bits == 5 ? (x << 3) | (x >> 2) : (x << 2) | (x >> 4); };
        for (int v = 0; v < 256; ++v) {
            // Lexicographic: |I - v|, then |e(a) - e(b)|, then b, then a.
            std::array<int, 4> best{1 << 20, 0, 0, 0};
            for (int a = 0; a < (1 << t.bits); ++a)
                for (int b = 0; b < (1 << t.bits); ++b) {
                    const int value = t.threeColour ? (e(a) + e(b)) / 2 : (2 * e(a) + e(b)) / 3;
                    best = std::min(best, {std::abs(value - v), std::abs(e(a) - e(b)), b, a});
                }
            ASSERT_EQ(t.entries[v][0], best[3]) << t.bits << " " << t.threeColour << " v " << v;
            ASSERT_EQ(t.entries[v][1], best[2]) << t.bits << " " << t.threeColour << " v " << v;
        }
    }
}

TEST(BC1FlatBlock, EveryEncoderTakesTheTableEndpoints) {
    // (11, 1, 255): col0 = (0, 0, 31) < col1 = (4, 1, 31), so they swap and every index
    // becomes 3. White: equal endpoints stay, every index 2.
    for (Encoder e : kAll) {
        EXPECT_EQ(encode(e, solid(11, 1, 255)), (Block{0x3F, 0x20, 0x1F, 0x00, 0xFF, 0xFF, 0xFF, 0xFF}));
        EXPECT_EQ(encode(e, solid(255, 255, 255)), (Block{0xFF, 0xFF, 0xFF, 0xFF, 0xAA, 0xAA, 0xAA, 0xAA}));
    }
    std::mt19937 rng(7);
    for (int n = 0; n < 300; ++n) {
        const int r = int(rng() % 256), g = int(rng() % 256), b = int(rng() % 256);
        unsigned c0 = pack(OMatch5[r][0], OMatch6[g][0], OMatch5[b][0]);
        unsigned c1 = pack(OMatch5[r][1], OMatch6[g][1], OMatch5[b][1]);
        const uint32_t expectIndices = c0 < c1 ? 0xFFFFFFFFu : 0xAAAAAAAAu;
        if (c0 < c1) std::swap(c0, c1);
        for (Encoder e : kAll) {  // the opaque encoders ignore alpha
            const Block block = encode(e, solid(r, g, b, e >= ColourFast ? int(rng() % 256) : 255));
            ASSERT_EQ(col0(block), c0);
            ASSERT_EQ(col1(block), c1);
            ASSERT_EQ(indices(block), expectIndices);
        }
        // With transparent pixels: 3-colour table, col0 <= col1, opaque pixels on the midpoint.
        Pixels p = solid(r, g, b);
        uint32_t mask = 3u << 10;
        p[4 * 5 + 3] = 0;
        for (int i = 0; i < 16; ++i)
            if (rng() % 3 == 0) p[4 * i + 3] = 0, mask |= 3u << (2 * i);
        unsigned a0 = pack(OMatchAlpha5[r][0], OMatchAlpha6[g][0], OMatchAlpha5[b][0]);
        unsigned a1 = pack(OMatchAlpha5[r][1], OMatchAlpha6[g][1], OMatchAlpha5[b][1]);
        if (a0 > a1) std::swap(a0, a1);
        for (Encoder e : {BC1aFast, BC1aHQ}) {
            const Block block = encode(e, p);
            ASSERT_EQ(col0(block), a0);
            ASSERT_EQ(col1(block), a1);
            ASSERT_EQ(indices(block), 0xAAAAAAAAu | mask);
        }
    }
}

TEST(BC1aBlock, TransparencyRules) {
    std::mt19937 rng(11);
    Pixels p;
    for (int i = 0; i < 16; ++i) setPixel(p, i, int(rng() % 256), int(rng() % 256), int(rng() % 256), 0);
    for (Encoder e : {BC1aFast, BC1aHQ}) {  // all transparent: 3-colour block, every index 3
        EXPECT_LE(col0(encode(e, p)), col1(encode(e, p)));
        EXPECT_EQ(indices(encode(e, p)), 0xFFFFFFFFu);
    }

    // Fast path: one alpha-0 pixel makes every pixel with alpha 1..127 transparent too.
    for (int i = 0; i < 16; ++i) p[4 * i + 3] = uint8_t(1 + rng() % 127);
    p[3] = 0;
    EXPECT_LE(col0(encode(BC1aFast, p)), col1(encode(BC1aFast, p)));
    EXPECT_EQ(indices(encode(BC1aFast, p)), 0xFFFFFFFFu);
    // Without an alpha-0 pixel the block is 4-colour and every pixel stays opaque.
    p[3] = 1;
    uint8_t rgba[64];
    decodeBC1Block(encode(BC1aFast, p).data(), rgba);
    EXPECT_GT(col0(encode(BC1aFast, p)), col1(encode(BC1aFast, p)));
    for (int i = 0; i < 16; ++i) EXPECT_EQ(rgba[4 * i + 3], 255);
    // Mixed: the 127 threshold; the high-quality path keeps everything but alpha 0 opaque.
    for (int i = 0; i < 16; ++i) p[4 * i + 3] = uint8_t(i % 2 ? 128 : 127);
    p[3] = 0;
    for (int i = 0; i < 16; ++i) {
        EXPECT_EQ(((indices(encode(BC1aFast, p)) >> (2 * i)) & 3u) == 3u, i % 2 == 0) << i;
        EXPECT_EQ(((indices(encode(BC1aHQ, p)) >> (2 * i)) & 3u) == 3u, i == 0) << i;
    }
}

TEST(BC1FastBlock, LiteralBlocks) {
    // Red 100/101 rounds to one level for both endpoints; the thirds land on 98.99999 and
    // exactly 99, so every pixel keeps index 0 and the refinement has nothing to solve.
    Pixels p;
    for (int i = 0; i < 16; ++i) setPixel(p, i, i % 3 ? 100 : 101, 0, 0);
    EXPECT_EQ(encode(ColourFast, p), (Block{0x00, 0x60, 0x00, 0x60, 0, 0, 0, 0}));
    EXPECT_EQ(encode(BC1aFast, p), (Block{0x00, 0x60, 0x00, 0x60, 0, 0, 0, 0}));

    // Red and green over constant blue: no diagonal flip, corners (29, 59, 0) and (2, 4, 0),
    // both colours nearest the 2/3 entry; with one index for all the refinement is singular.
    for (int i = 0; i < 16; ++i) setPixel(p, i, (i * 7) % 3 ? 0 : 255, (i * 7) % 3 ? 255 : 0, 0);
    EXPECT_EQ(encode(ColourFast, p), (Block{0x60, 0xEF, 0x80, 0x10, 0xAA, 0xAA, 0xAA, 0xAA}));

    // Black and white: the refinement moves the inset corners out to the exact colours.
    for (int i = 0; i < 16; ++i) setPixel(p, i, i < 8 ? 0 : 255, i < 8 ? 0 : 255, i < 8 ? 0 : 255);
    for (Encoder e : kAll) EXPECT_EQ(encode(e, p), (Block{0xFF, 0xFF, 0x00, 0x00, 0x55, 0x55, 0x00, 0x00}));
}

TEST(BC1HighQuality, TwoColoursOnTheGridDecodeWithinOneLevel) {
    // Both colours are endpoint values. The fit's error model sees the same colour for an
    // endpoint q and a two-thirds mixture landing on q (3q = 2a + b), so it may pick
    // either; the decoder's truncating thirds then differ by at most one level.
    std::mt19937 rng(5);
    int exact = 0;
    for (int n = 0; n < 500; ++n) {
        int colours[2][3];
        for (auto& c : colours) {
            const int r = int(rng() % 32), g = int(rng() % 64), b = int(rng() % 32);
            c[0] = (r << 3) | (r >> 2), c[1] = (g << 2) | (g >> 4), c[2] = (b << 3) | (b >> 2);
        }
        Pixels p;
        for (int i = 0; i < 16; ++i) {
            const int* c = colours[i < 2 ? i : int(rng() % 2)];
            setPixel(p, i, c[0], c[1], c[2]);
        }
        for (Encoder e : {ColourHQ, BC1aHQ}) {
            uint8_t rgba[64];
            decodeBC1Block(encode(e, p).data(), rgba);
            int worst = 0;
            for (int i = 0; i < 16; ++i)
                for (int c = 0; c < 3; ++c) worst = std::max(worst, std::abs(rgba[4 * i + c] - p[4 * i + 2 - c]));
            ASSERT_LE(worst, 1) << "block " << n;
            exact += worst == 0;
        }
    }
    EXPECT_GT(exact, 800);
}

// The block the high-quality fit writes reaches the smallest error of the reference search,
// with unit and perceptual metrics: 4-colour opaque blocks; 3-colour BC1a blocks with a
// transparent pixel; BC1a blocks without one, the better of both modes.
TEST(BC1HighQuality, ClusterFitReachesTheBestSplit) {
    const std::vector<double> four{1, 2.0 / 3, 1.0 / 3, 0}, three{1, 0.5, 0};
    for (int kind : {0, 1, 2}) {  // colour half, BC1a with a transparent pixel, BC1a with random alpha
        const bool bc1a = kind > 0;
        std::mt19937 rng(17 + 2 * kind);
        for (int n = 0; n < 300; ++n) {
            const float* metric = n % 2 ? kPerceptual : kUnit;
            Pixels px = randomBlock(rng);
            if (kind == 1) px[4 * (n % 16) + 3] = 0;  // forces 3-colour mode
            const std::vector<Point> pts = sortedPoints(px.data(), bc1a);
            if (pts.size() < 2) continue;
            bool transparent = false;
            for (int i = 0; i < 16; ++i) transparent |= bc1a && px[4 * i + 3] == 0;
            const double fourError = bc1a && transparent ? 1e30 : bestSplitError(pts, four, metric);
            const double best = bc1a ? std::min(fourError, bestSplitError(pts, three, metric)) : fourError;
            const Block block = encode(bc1a ? BC1aHQ : ColourHQ, px, metric);
            ASSERT_NEAR(blockError(block.data(), px.data(), bc1a, metric), best, 1e-4) << "kind " << kind << " " << n;
        }
    }
}

TEST(BC1Decoder, PalettesOfBothModes) {
    // Pure red and pure blue endpoints, pixels 0-3 on indices 0-3.
    const uint8_t four[8] = {0x00, 0xF8, 0x1F, 0x00, 0xE4, 0, 0, 0}, three[8] = {0x1F, 0x00, 0x00, 0xF8, 0xE4, 0, 0, 0};
    const uint8_t expectFour[16] = {255, 0, 0, 255, 0, 0, 255, 255, 170, 0, 85, 255, 85, 0, 170, 255};
    const uint8_t expectThree[16] = {0, 0, 255, 255, 255, 0, 0, 255, 127, 0, 127, 255, 0, 0, 0, 0};
    const uint8_t expectForced[16] = {0, 0, 255, 255, 255, 0, 0, 255, 85, 0, 170, 255, 170, 0, 85, 255};
    uint8_t rgba[64];
    decodeBC1Block(four, rgba);
    EXPECT_EQ(0, std::memcmp(rgba, expectFour, 16));
    decodeBC1Block(three, rgba);
    EXPECT_EQ(0, std::memcmp(rgba, expectThree, 16));
    decodeBC1Block(three, rgba, false);  // BC2/BC3 colour halves are always 4-colour
    EXPECT_EQ(0, std::memcmp(rgba, expectForced, 16));
    const uint8_t grey[8] = {0x41, 0x08, 0x41, 0x08, 0, 0, 0, 0};  // (1, 2, 1): bit replication gives 8
    decodeBC1Block(grey, rgba);
    EXPECT_EQ(rgba[0] + (rgba[1] << 8) + (rgba[2] << 16), 0x080808);
}

TEST(BC1aCPU, EncodesAnOddSizedImageTileByTile) {
    // 5 x 3 RGBA image: tile 0 covers columns 0-3, tile 1 column 4; rows wrap to fill the tiles.
    std::mt19937 rng(13);
    std::vector<uint8_t> image(5 * 3 * 4);
    for (auto& v : image) v = uint8_t(rng());
    image[3] = 0;  // one transparent pixel in tile 0
    const glyptora::ImageRecord record{.data = image.data(), .width = 5, .height = 3};
    const float weights[3] = {0.2126f, 0.7152f, 0.0722f};
    glyptora::CPUInputBuffer input(&record, 1, glyptora::kValueU8, 4, 4, weights[0], weights[1], weights[2], 1.0f);
    const auto* tiles = dynamic_cast<const glyptora::U8TileBuffer*>(input.buffer());
    ASSERT_NE(tiles, nullptr);
    Pixels expected[2];
    for (int t = 0; t < 2; ++t)
        for (int i = 0; i < 16; ++i) {
            const uint8_t* s = &image[(((i / 4) % 3) * 5 + (t == 0 ? i % 4 : 4)) * 4];
            setPixel(expected[t], i, s[0], s[1], s[2], s[3]);
        }
    for (bool fast : {true, false}) {
        std::vector<uint8_t> out(2 * 8 + 4, 0xCD);
        encodeBC1aCPU(tiles->view(), fast, out.data());
        for (int t = 0; t < 2; ++t) {
            Block want{};
            encodeBC1aBlock(expected[t].data(), fast, weights, want.data());
            EXPECT_EQ(0, std::memcmp(out.data() + 8 * t, want.data(), 8)) << "tile " << t << " fast " << fast;
        }
        EXPECT_EQ(out[16] & out[17] & out[18] & out[19], 0xCD);  // nothing past the last block
    }
}
