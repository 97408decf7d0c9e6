#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "bc/bc1_decoder.h"
#include "bc/bc1_encoder.h"
#include "bc/single_colour_tables.h"
#include "core/cpu_encoders.h"
#include "core/cpu_input_buffer.h"

using namespace glyptora_dxt;

namespace {

using Block = std::array<uint8_t, 8>;
using Pixels = std::array<uint8_t, 64>;  // blue, green, red, alpha per pixel

enum class Encoder { BC1aFast, BC1aHQ, ColourFast, ColourHQ };
constexpr Encoder kAllEncoders[] = {Encoder::BC1aFast, Encoder::BC1aHQ, Encoder::ColourFast, Encoder::ColourHQ};
constexpr float kUnitMetric[3] = {1.0f, 1.0f, 1.0f};

Block encode(Encoder e, const Pixels& px, const float* metric = kUnitMetric) {
    Block b{};
    switch (e) {
        case Encoder::BC1aFast: encodeBC1aBlock(px.data(), true, metric, b.data()); break;
        case Encoder::BC1aHQ: encodeBC1aBlock(px.data(), false, metric, b.data()); break;
        case Encoder::ColourFast: encodeColourBlock(px.data(), true, metric, b.data()); break;
        case Encoder::ColourHQ: encodeColourBlock(px.data(), false, metric, b.data()); break;
    }
    return b;
}

unsigned col0(const Block& b) { return b[0] | (b[1] << 8); }
unsigned col1(const Block& b) { return b[2] | (b[3] << 8); }
uint32_t indices(const Block& b) { return uint32_t(b[4]) | (b[5] << 8) | (b[6] << 16) | (uint32_t(b[7]) << 24); }
unsigned pack(int r, int g, int b) { return unsigned((r << 11) | (g << 5) | b); }

Pixels solid(int r, int g, int b, int a = 255) {
    Pixels p;
    for (int i = 0; i < 16; ++i) p[4 * i] = uint8_t(b), p[4 * i + 1] = uint8_t(g), p[4 * i + 2] = uint8_t(r), p[4 * i + 3] = uint8_t(a);
    return p;
}

void setPixel(Pixels& p, int i, int r, int g, int b, int a = 255) {
    p[4 * i] = uint8_t(b), p[4 * i + 1] = uint8_t(g), p[4 * i + 2] = uint8_t(r), p[4 * i + 3] = uint8_t(a);
}

// Squared RGB error of the decoded block over the pixels it keeps opaque.
double decodedError(const Pixels& px, const Block& b) {
    uint8_t rgba[64];
    decodeBC1Block(b.data(), rgba);
    double sum = 0;
    for (int i = 0; i < 16; ++i)
        for (int c = 0; c < 3; ++c) {
            const double d = double(rgba[4 * i + c]) - px[4 * i + 2 - c];
            sum += rgba[4 * i + 3] ? d * d : 0.0;
        }
    return sum;
}

// A linear ramp between two random colours across the block, with optional noise.
Pixels gradient(std::mt19937& rng, int noise) {
    int a[3], b[3];
    for (int c = 0; c < 3; ++c) a[c] = int(rng() % 256), b[c] = int(rng() % 256);
    const int dx = int(rng() % 3), dy = int(rng() % 3) + 1;
    Pixels p;
    for (int i = 0; i < 16; ++i) {
        const float t = float((i % 4) * dx + (i / 4) * dy) / float(3 * dx + 3 * dy);
        int v[3];
        for (int c = 0; c < 3; ++c) {
            const int n = noise ? int(rng() % (2 * noise + 1)) - noise : 0;
            v[c] = std::clamp(int(float(a[c]) + float(b[c] - a[c]) * t + 0.5f) + n, 0, 255);
        }
        setPixel(p, i, v[0], v[1], v[2]);
    }
    return p;
}

}  // namespace

TEST(SingleColourTables, PublishedExamples) {
    EXPECT_EQ(OMatch5[11][0], 0);
    EXPECT_EQ(OMatch5[11][1], 4);
    EXPECT_EQ(OMatch5[255][0], 31);
    EXPECT_EQ(OMatch5[255][1], 31);
    EXPECT_EQ(OMatch6[1][0], 0);
    EXPECT_EQ(OMatch6[1][1], 1);
}

TEST(SingleColourTables, EveryEntryIsTheBestPairByDirectSearch) {
    struct Table {
        const uint8_t (*entries)[2];
        int bits;
        bool threeColour;
    } tables[] = {{OMatch5, 5, false}, {OMatch6, 6, false}, {OMatchAlpha5, 5, true}, {OMatchAlpha6, 6, true}};
    for (const Table& t : tables) {
        const int levels = 1 << t.bits;
        auto e = [&](int x) { return t.bits == 5 ? (x << 3) | (x >> 2) : (x << 2) | (x >> 4); };
        for (int v = 0; v < 256; ++v) {
            // Lexicographic: |I - v|, then |e(a) - e(b)|, then b, then a.
            std::array<int, 4> best{1 << 20, 0, 0, 0};
            for (int a = 0; a < levels; ++a)
                for (int b = 0; b < levels; ++b) {
                    const int value = t.threeColour ? (e(a) + e(b)) / 2 : (2 * e(a) + e(b)) / 3;
                    const std::array<int, 4> key{std::abs(value - v), std::abs(e(a) - e(b)), b, a};
                    best = std::min(best, key);
                }
            ASSERT_EQ(t.entries[v][0], best[3]) << "bits " << t.bits << " three " << t.threeColour << " v " << v;
            ASSERT_EQ(t.entries[v][1], best[2]) << "bits " << t.bits << " three " << t.threeColour << " v " << v;
        }
    }
}

TEST(BC1FlatBlock, LiteralBlocks) {
    // (11, 1, 255): col0 = (0, 0, 31) < col1 = (4, 1, 31), so the endpoints swap and every index becomes 3.
    const Block swapped{0x3F, 0x20, 0x1F, 0x00, 0xFF, 0xFF, 0xFF, 0xFF};
    // White: equal endpoints stay, every index 2.
    const Block white{0xFF, 0xFF, 0xFF, 0xFF, 0xAA, 0xAA, 0xAA, 0xAA};
    for (Encoder e : kAllEncoders) {
        EXPECT_EQ(encode(e, solid(11, 1, 255)), swapped);
        EXPECT_EQ(encode(e, solid(255, 255, 255)), white);
    }
}

TEST(BC1FlatBlock, EveryEncoderTakesTheTableEndpoints) {
    std::mt19937 rng(7);
    for (int n = 0; n < 300; ++n) {
        const int r = int(rng() % 256), g = int(rng() % 256), b = int(rng() % 256);
        unsigned c0 = pack(OMatch5[r][0], OMatch6[g][0], OMatch5[b][0]);
        unsigned c1 = pack(OMatch5[r][1], OMatch6[g][1], OMatch5[b][1]);
        uint32_t expectedIndices = 0xAAAAAAAAu;
        if (c0 < c1) std::swap(c0, c1), expectedIndices = 0xFFFFFFFFu;
        // The opaque encoders ignore alpha; the BC1a ones see an opaque block.
        for (Encoder e : kAllEncoders) {
            const int alpha = (e == Encoder::ColourFast || e == Encoder::ColourHQ) ? int(rng() % 256) : 255;
            const Block block = encode(e, solid(r, g, b, alpha));
            ASSERT_EQ(col0(block), c0);
            ASSERT_EQ(col1(block), c1);
            ASSERT_EQ(indices(block), expectedIndices);
        }

        // BC1a with transparent pixels: 3-colour table, col0 <= col1, opaque pixels on the midpoint.
        Pixels p = solid(r, g, b);
        uint32_t mask = 0;
        for (int i = 0; i < 16; ++i)
            if (rng() % 3 == 0) p[4 * i + 3] = 0, mask |= 3u << (2 * i);
        if (mask == 0) p[4 * 5 + 3] = 0, mask = 3u << 10;
        unsigned a0 = pack(OMatchAlpha5[r][0], OMatchAlpha6[g][0], OMatchAlpha5[b][0]);
        unsigned a1 = pack(OMatchAlpha5[r][1], OMatchAlpha6[g][1], OMatchAlpha5[b][1]);
        if (a0 > a1) std::swap(a0, a1);
        for (Encoder e : {Encoder::BC1aFast, Encoder::BC1aHQ}) {
            const Block block = encode(e, p);
            ASSERT_EQ(col0(block), a0);
            ASSERT_EQ(col1(block), a1);
            ASSERT_EQ(indices(block), 0xAAAAAAAAu | mask);
        }
    }
}

TEST(BC1aBlock, AllTransparentIsThreeColourWithEveryIndex3) {
    std::mt19937 rng(3);
    Pixels p;
    for (int i = 0; i < 16; ++i) setPixel(p, i, int(rng() % 256), int(rng() % 256), int(rng() % 256), 0);
    for (Encoder e : {Encoder::BC1aFast, Encoder::BC1aHQ}) {
        const Block block = encode(e, p);
        EXPECT_LE(col0(block), col1(block));
        EXPECT_EQ(indices(block), 0xFFFFFFFFu);
    }
}

TEST(BC1aFastBlock, AlphaUpTo127IsTransparentOnlyOnceAPixelHasAlpha0) {
    std::mt19937 rng(11);
    Pixels p;
    for (int i = 0; i < 16; ++i) setPixel(p, i, int(rng() % 256), int(rng() % 256), int(rng() % 256), 1 + int(rng() % 127));
    p[3] = 0;
    Block block = encode(Encoder::BC1aFast, p);
    EXPECT_LE(col0(block), col1(block));
    EXPECT_EQ(indices(block), 0xFFFFFFFFu);

    // Without an alpha-0 pixel the block is 4-colour and every pixel stays opaque.
    p[3] = 1;
    block = encode(Encoder::BC1aFast, p);
    EXPECT_GT(col0(block), col1(block));
    uint8_t rgba[64];
    decodeBC1Block(block.data(), rgba);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(rgba[4 * i + 3], 255);

    // Mixed: the threshold is 127 once in 3-colour mode.
    for (int i = 0; i < 16; ++i) p[4 * i + 3] = uint8_t(i % 2 ? 128 : 127);
    p[3] = 0;
    block = encode(Encoder::BC1aFast, p);
    EXPECT_LE(col0(block), col1(block));
    for (int i = 0; i < 16; ++i) EXPECT_EQ(((indices(block) >> (2 * i)) & 3u) == 3u, i % 2 == 0) << i;
}

TEST(BC1FastBlock, EqualRoundedEndpointsKeepTheFourColourIndices) {
    // Red 100 and 101 round to the same 5-bit level; the thirds land on 98.99999 and 99
    // exactly, so no pixel is strictly nearer to either and all take index 0. The
    // refinement has no weight on col1 and leaves the block alone.
    Pixels p;
    for (int i = 0; i < 16; ++i) setPixel(p, i, i % 3 ? 100 : 101, 0, 0);
    const Block expected{0x00, 0x60, 0x00, 0x60, 0x00, 0x00, 0x00, 0x00};
    EXPECT_EQ(encode(Encoder::ColourFast, p), expected);
    EXPECT_EQ(encode(Encoder::BC1aFast, p), expected);
}

TEST(BC1FastBlock, SingularRefinementKeepsTheBoundingBoxBlock) {
    // Red and green pixels with constant blue: no diagonal flip, the box corners round to
    // (29, 59, 0) and (2, 4, 0), and both colours sit nearest the 2/3 entry. With every
    // pixel on one index the normal equations are singular.
    Pixels p;
    for (int i = 0; i < 16; ++i) {
        const bool red = (i * 7) % 3 == 0;
        setPixel(p, i, red ? 255 : 0, red ? 0 : 255, 0);
    }
    EXPECT_EQ(encode(Encoder::ColourFast, p), (Block{0x60, 0xEF, 0x80, 0x10, 0xAA, 0xAA, 0xAA, 0xAA}));
}

TEST(BC1Block, BlackAndWhiteRefineToTheExactEndpoints) {
    Pixels p;
    for (int i = 0; i < 16; ++i) setPixel(p, i, i < 8 ? 0 : 255, i < 8 ? 0 : 255, i < 8 ? 0 : 255);
    const Block expected{0xFF, 0xFF, 0x00, 0x00, 0x55, 0x55, 0x00, 0x00};
    for (Encoder e : kAllEncoders) EXPECT_EQ(encode(e, p), expected);
}

TEST(BC1HighQuality, TwoColoursOnTheGridDecodeWithinOneLevel) {
    // Both colours are endpoint values. The fit's error model sees the same colour for an
    // endpoint q and for a two-thirds mixture landing on q (3q = 2a + b), so it may pick
    // either; the decoder's truncating thirds then differ by at most one level. Most blocks
    // come out exact.
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
            const int* c = colours[i == 0 ? 0 : i == 1 ? 1 : int(rng() % 2)];
            setPixel(p, i, c[0], c[1], c[2]);
        }
        for (Encoder e : {Encoder::ColourHQ, Encoder::BC1aHQ}) {
            uint8_t rgba[64];
            decodeBC1Block(encode(e, p).data(), rgba);
            bool same = true;
            for (int i = 0; i < 16; ++i)
                for (int c = 0; c < 3; ++c) {
                    const int d = std::abs(int(rgba[4 * i + c]) - int(p[4 * i + 2 - c]));
                    ASSERT_LE(d, 1) << "block " << n << " pixel " << i;
                    same = same && d == 0;
                }
            exact += same;
        }
    }
    EXPECT_GT(exact, 800);
}

TEST(BC1HighQuality, BetterThanFastOnRandomBlocks) {
    std::mt19937 rng(9);
    for (int noise : {0, 4, 128}) {
        double fast[2] = {0, 0}, hq[2] = {0, 0};
        for (int n = 0; n < 3000; ++n) {
            Pixels p = gradient(rng, noise);
            if (noise == 128)
                for (auto& v : p) v = uint8_t(rng());
            for (int i = 0; i < 16; ++i) p[4 * i + 3] = 255;
            fast[0] += decodedError(p, encode(Encoder::ColourFast, p));
            hq[0] += decodedError(p, encode(Encoder::ColourHQ, p));
            fast[1] += decodedError(p, encode(Encoder::BC1aFast, p));
            hq[1] += decodedError(p, encode(Encoder::BC1aHQ, p));
        }
        EXPECT_LT(hq[0], fast[0]) << "noise " << noise;
        EXPECT_LT(hq[1], fast[1]) << "noise " << noise;
    }
}

TEST(BC1Encoders, GradientsDecodeClosely) {
    // Bounds relative to the block's largest channel range (3-colour blocks have one palette
    // entry fewer). The fast diagonal only orients red and green against blue, so a
    // red-green ramp over constant blue may run along the wrong diagonal; the cluster fit
    // follows the principal axis.
    std::mt19937 rng(21);
    for (int n = 0; n < 2000; ++n) {
        Pixels p = gradient(rng, n % 2 ? 3 : 0);
        int range = 0;
        for (int c = 0; c < 3; ++c) {
            int lo = 255, hi = 0;
            for (int i = 0; i < 16; ++i) lo = std::min<int>(lo, p[4 * i + c]), hi = std::max<int>(hi, p[4 * i + c]);
            range = std::max(range, hi - lo);
        }
        if (n % 4 == 3)
            for (int i = 0; i < 16; ++i)
                if (rng() % 4 == 0) p[4 * i + 3] = 0;
        for (Encoder e : kAllEncoders) {
            const bool punchThrough = e == Encoder::BC1aFast || e == Encoder::BC1aHQ;
            const bool fast = e == Encoder::BC1aFast || e == Encoder::ColourFast;
            const int bound = 10 + range * (fast ? 4 : 3) / 10;
            const Block block = encode(e, p);
            uint8_t rgba[64];
            decodeBC1Block(block.data(), rgba, punchThrough);
            for (int i = 0; i < 16; ++i) {
                if (punchThrough) {
                    // Alpha 0 stays transparent; every other pixel here has alpha 255 and stays opaque.
                    ASSERT_EQ(rgba[4 * i + 3], p[4 * i + 3] ? 255 : 0) << n << " pixel " << i;
                    if (!p[4 * i + 3]) continue;
                }
                for (int c = 0; c < 3; ++c)
                    ASSERT_LE(std::abs(int(rgba[4 * i + c]) - int(p[4 * i + 2 - c])), bound)
                        << "block " << n << " encoder " << int(e) << " pixel " << i;
            }
        }
    }
}

TEST(BC1HighQuality, MetricWeightsTheRightChannels) {
    // Weighting one channel up lowers its share of the error: a swapped or ignored metric would not.
    std::mt19937 rng(23);
    const float metrics[4][3] = {{1, 1, 1}, {1, 0.2f, 0.2f}, {0.2f, 1, 0.2f}, {0.2f, 0.2f, 1}};
    double channelError[4][3] = {};
    for (int n = 0; n < 2000; ++n) {
        Pixels p;
        for (auto& v : p) v = uint8_t(rng());
        for (int m = 0; m < 4; ++m) {
            uint8_t rgba[64];
            const Block block = encode(Encoder::ColourHQ, p, metrics[m]);
            decodeBC1Block(block.data(), rgba, false);
            for (int i = 0; i < 16; ++i)
                for (int c = 0; c < 3; ++c) channelError[m][c] += std::pow(double(rgba[4 * i + c]) - p[4 * i + 2 - c], 2);
        }
    }
    for (int c = 0; c < 3; ++c) EXPECT_LT(channelError[c + 1][c], 0.8 * channelError[0][c]) << "channel " << c;
}

TEST(BC1Decoder, PalettesOfBothModes) {
    // col0 pure red, col1 pure blue, pixels 0-3 on indices 0-3.
    const uint8_t four[8] = {0x00, 0xF8, 0x1F, 0x00, 0xE4, 0x00, 0x00, 0x00};
    uint8_t rgba[64];
    decodeBC1Block(four, rgba);
    const uint8_t expectFour[16] = {255, 0, 0, 255, 0, 0, 255, 255, 170, 0, 85, 255, 85, 0, 170, 255};
    EXPECT_EQ(0, std::memcmp(rgba, expectFour, 16));

    const uint8_t three[8] = {0x1F, 0x00, 0x00, 0xF8, 0xE4, 0x00, 0x00, 0x00};
    decodeBC1Block(three, rgba);
    const uint8_t expectThree[16] = {0, 0, 255, 255, 255, 0, 0, 255, 127, 0, 127, 255, 0, 0, 0, 0};
    EXPECT_EQ(0, std::memcmp(rgba, expectThree, 16));

    // The colour half of BC2/BC3 is always 4-colour; 5:6:5 expands by bit replication.
    decodeBC1Block(three, rgba, false);
    const uint8_t expectForced[16] = {0, 0, 255, 255, 255, 0, 0, 255, 85, 0, 170, 255, 170, 0, 85, 255};
    EXPECT_EQ(0, std::memcmp(rgba, expectForced, 16));
    const uint8_t grey[8] = {0x41, 0x08, 0x41, 0x08, 0, 0, 0, 0};  // (1, 2, 1) in 5:6:5
    decodeBC1Block(grey, rgba);
    EXPECT_EQ(rgba[0], 8);
    EXPECT_EQ(rgba[1], 8);
    EXPECT_EQ(rgba[2], 8);
}

TEST(BC1aCPU, EncodesAnOddSizedImageTileByTile) {
    // 5 x 3 RGBA image: tile 0 covers columns 0-3, tile 1 column 4; rows wrap to fill the tiles.
    std::mt19937 rng(13);
    std::vector<uint8_t> image(5 * 3 * 4);
    for (auto& v : image) v = uint8_t(rng());
    image[3] = 0;  // one transparent pixel in tile 0
    glyptora::ImageRecord record;
    record.data = image.data();
    record.width = 5;
    record.height = 3;
    const float weights[3] = {0.2126f, 0.7152f, 0.0722f};
    glyptora::CPUInputBuffer input(&record, 1, glyptora::kValueU8, 4, 4, weights[0], weights[1], weights[2], 1.0f);
    const auto* tiles = dynamic_cast<const glyptora::U8TileBuffer*>(input.buffer());
    ASSERT_NE(tiles, nullptr);
    const glyptora_internal::CPUU8View view = tiles->view();

    Pixels expected[2];
    for (int t = 0; t < 2; ++t)
        for (int i = 0; i < 16; ++i) {
            const int x = t == 0 ? i % 4 : 4, y = (i / 4) % 3;
            const uint8_t* s = &image[(y * 5 + x) * 4];
            setPixel(expected[t], i, s[0], s[1], s[2], s[3]);
        }
    for (bool fast : {true, false}) {
        std::vector<uint8_t> out(2 * 8 + 4, 0xCD);
        encodeBC1aCPU(view, fast, out.data());
        for (int t = 0; t < 2; ++t) {
            Block want{};
            encodeBC1aBlock(expected[t].data(), fast, weights, want.data());
            EXPECT_EQ(0, std::memcmp(out.data() + 8 * t, want.data(), 8)) << "tile " << t << " fast " << fast;
        }
        for (int i = 16; i < 20; ++i) EXPECT_EQ(out[i], 0xCD);
    }
}
