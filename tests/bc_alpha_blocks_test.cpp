// Single-channel blocks: BC2 explicit alpha, the unsigned interpolated block (BC3 alpha, BC4,
// BC5 halves) and its signed twin (BC4S, BC5S halves), against pinned blocks and independent
// re-computations of the palettes and of the exhaustive endpoint search; and the BC2, BC3,
// BC4 and BC5 CPU entries over tiled input buffers (channel choice, halves, signed fetch).
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <vector>

#include "bc/alpha_block_bc2_bc3.h"
#include "bc/alpha_block_encoders.h"
#include "bc/alpha_block_formats.h"
#include "bc/alpha_decoders.h"
#include "bc/explicit_alpha.h"
#include "bc/signed_alpha_block.h"
#include "bc/bc2_bc3_cpu.h"
#include "bc/bc4_bc5_cpu.h"
#include "core/cpu_input_buffer.h"

using namespace glyptora;
using namespace glyptora_dxt;
using namespace glyptora_internal;

namespace {

const float kUnitWeights[16] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};

std::vector<uint8_t> bytes(const uint8_t* p, size_t n) { return std::vector<uint8_t>(p, p + n); }

// --- Independent model of the interpolated block ------------------------------------------

struct Domain {
    bool isSigned;
    int lowest, highest;  // endpoint clamp, fixed 6-value entries
    int smallestInput;    // -128 is a valid signed input
};
const Domain kUnsigned{false, 0, 255, 0};
const Domain kSigned{true, -127, 127, -128};

// Palette entry k, with the divisions done in double precision and truncated toward zero.
int modelPalette(const Domain& d, int a0, int a1, int k) {
    if (k == 0) return a0;
    if (k == 1) return a1;
    if (a0 > a1) return int(std::trunc(double((8 - k) * a0 + (k - 1) * a1 + 3) / 7.0));
    if (k < 6) return int(std::trunc(double((6 - k) * a0 + (k - 1) * a1 + 2) / 5.0));
    return k == 6 ? d.lowest : d.highest;
}

int modelError(const Domain& d, const int x[16], int a0, int a1) {
    int p[8];
    for (int k = 0; k < 8; ++k) p[k] = modelPalette(d, a0, a1, k);
    int error = 0;
    for (int i = 0; i < 16; ++i) {
        int best = 1 << 30;
        for (int k = 0; k < 8; ++k) best = std::min(best, (x[i] - p[k]) * (x[i] - p[k]));
        error += best;
    }
    return error;
}

int endpoint(const Domain& d, uint8_t byte) { return d.isSigned ? int(int8_t(byte)) : int(byte); }
int blockIndex(const uint8_t block[8], int i) {
    uint64_t bits = 0;
    for (int j = 0; j < 6; ++j) bits |= uint64_t(block[2 + j]) << (8 * j);
    return int((bits >> (3 * i)) & 7);
}

// Error of a block as written (its own indices), on the encoder's palette.
int blockError(const Domain& d, const int x[16], const uint8_t block[8]) {
    int error = 0;
    for (int i = 0; i < 16; ++i) {
        const int diff = x[i] - modelPalette(d, endpoint(d, block[0]), endpoint(d, block[1]), blockIndex(block, i));
        error += diff * diff;
    }
    return error;
}

// Every pixel must sit on its nearest palette entry, ties going to the lower index.
void expectNearestIndices(const Domain& d, const int x[16], const uint8_t block[8]) {
    const int a0 = endpoint(d, block[0]), a1 = endpoint(d, block[1]);
    for (int i = 0; i < 16; ++i) {
        int best = 0;
        for (int k = 1; k < 8; ++k)
            if (std::abs(x[i] - modelPalette(d, a0, a1, k)) < std::abs(x[i] - modelPalette(d, a0, a1, best))) best = k;
        ASSERT_EQ(blockIndex(block, i), best) << "pixel " << i << " value " << x[i] << " pair " << a0 << "," << a1;
    }
}

// The high-quality endpoint choice, written out pair by pair from its definition.
void modelHighQualityPair(const Domain& d, const int x[16], int* alpha0, int* alpha1, bool* pinned) {
    int mn = d.highest, mx = d.lowest, innerMin = d.highest, innerMax = d.lowest;
    for (int i = 0; i < 16; ++i) {
        mn = std::min(mn, x[i]);
        mx = std::max(mx, x[i]);
        if (x[i] > d.lowest && x[i] < d.highest) innerMin = std::min(innerMin, x[i]), innerMax = std::max(innerMax, x[i]);
    }
    if (mx - mn < 8) {
        *alpha0 = mx, *alpha1 = mn;
        return;
    }
    if (innerMax - innerMin < 6) {
        *alpha0 = innerMin, *alpha1 = innerMax;
        return;
    }
    const int lo = d.isSigned ? (mn < -118 ? -127 : mn - 8) : (mn < 9 ? 0 : mn - 8);
    const int hi = d.isSigned ? (mx >= 119 ? 127 : mx + 8) : (mx >= 247 ? 255 : mx + 8);
    const int lo6 = d.isSigned ? (innerMin < -120 ? -127 : innerMin - 6) : (innerMin < 7 ? 0 : innerMin - 6);
    const int hi6 = d.isSigned ? (innerMax >= 121 ? 127 : innerMax + 6) : (innerMax >= 249 ? 255 : innerMax + 6);
    int best0 = mx, best1 = mn, bestError = modelError(d, x, mx, mn);
    auto consider = [&](int a0, int a1) {
        const int e = modelError(d, x, a0, a1);
        if (e < bestError) bestError = e, best0 = a0, best1 = a1;
    };
    for (int a0 = lo + 9; a0 <= hi - 1; ++a0)
        for (int a1 = lo; a1 <= a0 - 9; ++a1) consider(a0, a1);
    for (int a1 = lo6 + 9; a1 <= hi6 - 1; ++a1)
        for (int a0 = lo6; a0 <= a1 - 9; ++a0) consider(a0, a1);
    if (!d.isSigned && best0 > best1) {
        *pinned = (mn == 0 && best1 != 0) || (mx == 255 && best0 != 255);
        if (mn == 0) best1 = 0;
        if (mx == 255) best0 = 255;
    }
    *alpha0 = best0, *alpha1 = best1;
}

// --- Reproducible test blocks -----------------------------------------------------------------

class BlockSource {
public:
    explicit BlockSource(uint32_t seed) : m_state(seed) {}
    int uniform(int n) {
        m_state ^= m_state << 13;
        m_state ^= m_state >> 17;
        m_state ^= m_state << 5;
        return int(m_state % uint32_t(n));
    }
    // Shapes 0-5: uniform noise, a noisy level, a noisy level with domain extremes, two
    // levels, a flat level with outliers, a gradient; 6: noise touching the domain's bottom
    // or top (the values the unsigned search pins its endpoints to).
    void block(const Domain& d, int kind, int x[16]) {
        const int base = d.lowest + uniform(d.highest - d.lowest + 1);
        const int spread = 1 + uniform(80);
        const bool top = kind == 6 && uniform(2) != 0;
        for (int i = 0; i < 16; ++i) {
            int v;
            switch (kind) {
                case 6: v = i == 0 ? 0 : 10 + uniform(60); v = top ? d.highest - v : d.smallestInput + v; break;
                case 0: v = d.smallestInput + uniform(d.highest - d.smallestInput + 1); break;
                case 1: v = base + uniform(spread) - spread / 2; break;
                case 2:
                    v = uniform(4) == 0 ? (uniform(2) ? d.highest : d.smallestInput) : base + uniform(spread) - spread / 2;
                    break;
                case 3: v = uniform(2) ? base : base + spread; break;
                case 4: v = uniform(3) == 0 ? d.smallestInput + uniform(d.highest - d.smallestInput + 1) : base; break;
                default: v = base + i * spread / 16; break;
            }
            x[i] = std::clamp(v, d.smallestInput, d.highest);
        }
    }

private:
    uint32_t m_state;
};

enum class Encoder { Fast, HighQuality, Straightforward };

void encode(const Domain& d, Encoder e, const int x[16], uint8_t out[8]) {
    uint8_t u[16];
    int8_t v[16];
    for (int i = 0; i < 16; ++i) u[i] = uint8_t(x[i]), v[i] = int8_t(x[i]);
    if (e == Encoder::Fast) d.isSigned ? encodeSignedInterpolatedBlockFast(v, out) : encodeInterpolatedBlockFast(u, out);
    if (e == Encoder::HighQuality)
        d.isSigned ? encodeSignedInterpolatedBlockHighQuality(v, kUnitWeights, out)
                   : encodeInterpolatedBlockHighQuality(u, kUnitWeights, out);
    if (e == Encoder::Straightforward)
        d.isSigned ? encodeSignedInterpolatedBlockHighQualityReference(v, kUnitWeights, out)
                   : encodeInterpolatedBlockHighQualityReference(u, kUnitWeights, out);
}

// --- CPU entries over an RGBA image of size x size pixels ---------------------------------------

using Entry = void (*)(const CPUViewBase&, bool, uint8_t*);
using Tile = std::array<uint8_t, 64>;  // fetched B, G, R, A pixels
const float kUnit[3] = {1, 1, 1};
const float kPerceptual[3] = {0.2126f, 0.7152f, 0.0722f};

// Pseudo-random smooth-ish content whose four channels differ, so that a block built from the
// wrong channel shows.
template <typename T>
std::vector<T> testImage(uint32_t seed, int size, int lowest, int highest) {
    std::vector<T> pixels(size_t(size) * size * 4);
    for (size_t i = 0; i < pixels.size(); ++i) {
        seed = seed * 1664525u + 1013904223u;
        const int span = highest - lowest + 1;
        pixels[i] = T(lowest + (int((i / 4) % 8) * span / 10 + int((seed >> 24) % 48)) % span);
    }
    return pixels;
}

std::vector<uint8_t> runEntry(Entry entry, const void* pixels, int size, int32_t valueType, bool fast, int blockBytes,
                              const float* weights = kUnit, std::vector<Tile>* tiles = nullptr) {
    ImageRecord record;
    record.data = pixels;
    record.width = record.height = size;
    CPUInputBuffer input(&record, 1, valueType, 4, 4, weights[0], weights[1], weights[2], 1);
    std::vector<uint8_t> out(size_t(input.tileCount()) * blockBytes, 0xCD);
    if (auto* u8 = dynamic_cast<const U8TileBuffer*>(input.buffer())) {
        entry(u8->view(), fast, out.data());
        for (uint32_t t = 0; tiles && t < input.tileCount(); ++t) u8->view().fetchBGRA8(t, tiles->emplace_back().data());
    }
    if (auto* s8 = dynamic_cast<const S8TileBuffer*>(input.buffer())) entry(s8->view(), fast, out.data());
    if (auto* f32 = dynamic_cast<const F32TileBuffer*>(input.buffer())) entry(f32->view(), fast, out.data());
    return out;
}

}  // namespace

TEST(ExplicitAlpha, NearestLevelsPackedLowNibbleFirst) {
    for (int v = 0; v < 256; ++v) {
        int nearest = 0;
        for (int c = 1; c < 16; ++c)
            if (std::abs(v - 17 * c) < std::abs(v - 17 * nearest)) nearest = c;
        EXPECT_EQ(quantiseExplicitAlpha(v), nearest) << v;  // includes the clamped ends 0..8, 247..255
    }
    uint8_t alpha[16], block[8], decoded[16];
    for (int i = 0; i < 16; ++i) alpha[i] = uint8_t(17 * i);
    encodeExplicitAlphaBlock(alpha, block);
    EXPECT_EQ(bytes(block, 8), (std::vector<uint8_t>{0x10, 0x32, 0x54, 0x76, 0x98, 0xBA, 0xDC, 0xFE}));
    decodeExplicitAlphaBlock(block, decoded);
    EXPECT_EQ(bytes(decoded, 16), bytes(alpha, 16));
}

// Truncation toward zero on negative numerators is what sets the signed palette apart.
TEST(InterpolatedPalette, AgreesWithTheModelForEveryPair) {
    int p[8];
    for (int a0 = -128; a0 < 256; ++a0)
        for (int a1 = -128; a1 < 256; ++a1) {
            if (a0 >= 0 && a1 >= 0) {
                interpolatedAlphaPalette(a0, a1, p);
                for (int k = 0; k < 8; ++k) ASSERT_EQ(p[k], modelPalette(kUnsigned, a0, a1, k)) << a0 << "," << a1;
            }
            if (a0 < 128 && a1 < 128) {
                signedInterpolatedAlphaPalette(a0, a1, p);
                for (int k = 0; k < 8; ++k) ASSERT_EQ(p[k], modelPalette(kSigned, a0, a1, k)) << a0 << "," << a1;
            }
        }
    interpolatedAlphaPalette(10, 20, p);
    EXPECT_EQ(std::vector<int>(p, p + 8), (std::vector<int>{10, 20, 12, 14, 16, 18, 0, 255}));
    signedInterpolatedAlphaPalette(-10, -40, p);  // p2 = -97 / 7 = -13.9 -> -13
    EXPECT_EQ(std::vector<int>(p, p + 8), (std::vector<int>{-10, -40, -13, -18, -22, -26, -31, -35}));
}

TEST(InterpolatedDecoder, ReadsThreeBitIndicesFromBitSixteen) {
    // Indices 0..7 twice: 0b111'110'101'100'011'010'001'000 = 0xFAC688 per eight pixels.
    const uint8_t block[8] = {255, 0, 0x88, 0xC6, 0xFA, 0x88, 0xC6, 0xFA};
    uint8_t values[16];
    decodeInterpolatedBlock(block, values);
    const uint8_t expected[16] = {255, 0, 219, 182, 146, 109, 73, 36, 255, 0, 219, 182, 146, 109, 73, 36};
    EXPECT_EQ(bytes(values, 16), bytes(expected, 16));
}

// Literal blocks of the fast (F) and high-quality (H) encoders: the first bytes written, and
// every pixel decoding to its value (signed -128 to -127), but for `missed` (one below).
TEST(InterpolatedBlocks, PinnedCases) {
    const struct {
        bool isSigned, fast, hq;
        std::vector<int> x;  // 16 values, or one for a flat block
        std::vector<uint8_t> expected;
        int missed;
        const char* why;
    } cases[] = {
        {false, true, false, {255}, {255, 255, 0, 0, 0, 0, 0, 0}, 999, "flat"},
        {false, true, false, {0}, {0, 0, 0, 0, 0, 0, 0, 0}, 999, "flat"},
        {false, true, false, {77}, {77, 77, 0, 0, 0, 0, 0, 0}, 999, "flat"},
        // Every value on the (255, 0) palette; the 6-value start reaches error 0 as well but only
        // a strictly smaller error replaces the 8-value block.
        {false, true, false, {0, 255, 219, 182, 146, 109, 73, 36, 0, 255, 219, 182, 146, 109, 73, 36},
         {255, 0, 0x81, 0xC6, 0xFA, 0x81, 0xC6, 0xFA}, 999, "exact zero and 255 endpoints"},
        // Only 0 and 255: the 6-value start (248, 7) below is an 8-value pair; (255, 0) wins.
        {false, true, false, {0, 255, 255, 0, 0, 0, 255, 255, 0, 255, 0, 255, 0, 0, 0, 0}, {255, 0}, 999, "extremes"},
        {false, false, true, {100, 101, 102, 103, 104, 105, 106, 107, 100, 100, 107, 107, 103, 103, 104, 104}, {107, 100},
         999, "narrow range written without search"},
        // Inner range below 6: a 6-value pair on the inner values, 0 and 255 from the fixed entries.
        {false, false, true, {0, 255, 100, 105, 101, 102, 103, 104, 0, 255, 100, 105, 0, 0, 255, 255}, {100, 105}, 999,
         "narrow inner range"},
        {true, true, true, {127}, {127, 127, 0, 0, 0, 0, 0, 0}, 999, "constant top value"},
        // Both paths write (-127, -128) with every pixel on the -128 endpoint (index 1), read as -127.
        {true, true, true, {-128}, {0x81, 0x80, 0x49, 0x92, 0x24, 0x49, 0x92, 0x24}, 999, "-128 approximated by -127"},
        // -128 next to 127: no inner values, so the search is skipped for the pair (127, -127).
        {true, false, true, {127, -128, -128, 127, -128, -128, 127, -128, -128, 127, -128, -128, 127, -128, -128, 127},
         {0x7F, 0x81}, 999, "-128 and 127"},
        // Truncation toward zero makes the (2, -5) palette {2, -5, 1, 0, 0, -1, -2, -3}: -4 is
        // missed (it ties between -5 and -3 and takes the lower index, -5), yet a range below 8
        // keeps (max, min) without searching for a better pair.
        {true, false, true, {-5, -4, -3, -2, -1, 0, 1, 2, -5, 2, -5, 2, 0, 0, 0, 0}, {0x02, 0xFB}, -4, "small range"},
    };
    for (const auto& c : cases) {
        const Domain& d = c.isSigned ? kSigned : kUnsigned;
        int x[16];
        for (int i = 0; i < 16; ++i) x[i] = c.x[c.x.size() == 1 ? 0 : i];
        for (Encoder e : {Encoder::Fast, Encoder::HighQuality}) {
            if (!(e == Encoder::Fast ? c.fast : c.hq)) continue;
            uint8_t block[8], u[16];
            int8_t s[16];
            encode(d, e, x, block);
            EXPECT_EQ(bytes(block, c.expected.size()), c.expected) << c.why << (e == Encoder::Fast ? " fast" : " hq");
            c.isSigned ? decodeSignedInterpolatedBlock(block, s) : decodeInterpolatedBlock(block, u);
            for (int i = 0; i < 16; ++i)
                EXPECT_EQ(c.isSigned ? s[i] : u[i], x[i] == c.missed ? x[i] - 1 : std::max(x[i], -127))
                    << c.why << " " << i;
        }
    }
    int x[16] = {0, 255, 255, 0, 0, 0, 255, 255, 0, 255, 0, 255, 0, 0, 0, 0}, a0, a1;
    fastSixValueStart<false>(alphaRange<false>(x), &a0, &a1);  // (0 + 248, 255 - 248): no inner values
    EXPECT_EQ(a0, 248);
    EXPECT_EQ(a1, 7);
}

// The exhaustive search against the pair-by-pair model, for both signs: endpoints, the 0/255
// pinning of unsigned 8-value pairs, and nearest-entry indices with ties to the lower index.
// Being the best pair of its windows, the search is never worse than a fast pair inside them,
// and in total clearly better than the fast encoder.
TEST(InterpolatedHighQuality, MatchesTheModelSearch) {
    for (const Domain* d : {&kUnsigned, &kSigned}) {
        BlockSource source(d->isSigned ? 99 : 7);
        int pinned = 0;
        long fastTotal = 0, searchTotal = 0;
        for (int n = 0; n < 49; ++n) {
            int x[16], a0, a1;
            bool repinned = false;
            source.block(*d, n % 7, x);
            modelHighQualityPair(*d, x, &a0, &a1, &repinned);
            uint8_t block[8], fast[8];
            encode(*d, Encoder::HighQuality, x, block);
            ASSERT_EQ(endpoint(*d, block[0]), a0) << "block " << n;
            ASSERT_EQ(endpoint(*d, block[1]), a1) << "block " << n;
            expectNearestIndices(*d, x, block);
            pinned += repinned;
            encode(*d, Encoder::Fast, x, fast);
            fastTotal += blockError(*d, x, fast);
            searchTotal += blockError(*d, x, block);
        }
        if (!d->isSigned) {
            EXPECT_GT(pinned, 0) << "no block exercised the 0/255 pinning";
        }
        EXPECT_LT(searchTotal * 10, fastTotal * 9) << "search " << searchTotal << " fast " << fastTotal;
    }
}

// The pruned search (host vector evaluator, and the one-pixel evaluator that device code runs)
// against the straightforward one, with the blocks of the straightforward and fast encoders
// pinned by a hash: any change of the blocks shows up here.
TEST(InterpolatedHighQuality, PrunedSearchGivesTheStraightforwardBlocks) {
    const uint64_t expectedHash[2] = {0x0FD4C184C54F2ADFull, 0x60E27B473161ECC7ull};
    for (const Domain* d : {&kUnsigned, &kSigned}) {
        BlockSource source(d->isSigned ? 2024 : 1999);
        uint64_t hash = 0xCBF29CE484222325ull;
        for (int n = 0; n < 300; ++n) {
            int x[16];
            source.block(*d, n % 6, x);
            uint8_t fast[8], pruned[8], straightforward[8];
            encode(*d, Encoder::Fast, x, fast);
            encode(*d, Encoder::HighQuality, x, pruned);
            encode(*d, Encoder::Straightforward, x, straightforward);
            ASSERT_EQ(bytes(pruned, 8), bytes(straightforward, 8)) << "block " << n;
            expectNearestIndices(*d, x, fast);
            for (const uint8_t* block : {fast, straightforward})
                for (int i = 0; i < 8; ++i) hash = (hash ^ block[i]) * 0x100000001B3ull;

            int host0, host1, portable0, portable1;
            if (d->isSigned) {
                const AlphaRange r = alphaRange<true>(x);
                searchAlphaPairsUnitWeights<true>(x, r, &host0, &host1);
                searchAlphaPairsPruned<true>(PortableAlphaEvaluator<true>{x}, r, &portable0, &portable1);
            } else {
                const AlphaRange r = alphaRange<false>(x);
                searchAlphaPairsUnitWeights<false>(x, r, &host0, &host1);
                searchAlphaPairsPruned<false>(PortableAlphaEvaluator<false>{x}, r, &portable0, &portable1);
            }
            ASSERT_EQ(host0, portable0) << "block " << n;
            ASSERT_EQ(host1, portable1) << "block " << n;
        }
        EXPECT_EQ(hash, expectedHash[d->isSigned]) << std::hex << hash;
    }
}

// Alpha half first, from the alpha channel: BC2 explicit, BC3 the fast interpolated block in
// both forms. Colour half second: the fast fit, or the high-quality fit weighted by the
// buffer's red, green and blue weights.
TEST(BC2BC3Entries, AlphaHalfThenColourHalf) {
    const auto pixels = testImage<uint8_t>(3, 12, 0, 255);
    for (Entry entry : {encodeBC2CPU, encodeBC3CPU})
        for (bool fast : {true, false}) {
            std::vector<Tile> tiles;
            const auto blocks = runEntry(entry, pixels.data(), 12, kValueU8, fast, 16, kPerceptual, &tiles);
            ASSERT_EQ(tiles.size(), 9u);
            int fitsDiffer = 0, weightsMatter = 0;
            for (int t = 0; t < 9; ++t) {
                uint8_t alpha[16], expectedAlpha[8], colourFast[8], colourHQ[8], unweighted[8];
                for (int i = 0; i < 16; ++i) alpha[i] = tiles[t][4 * i + 3];
                entry == encodeBC2CPU ? encodeExplicitAlphaBlock(alpha, expectedAlpha)
                                      : encodeInterpolatedBlockFast(alpha, expectedAlpha);
                encodeColourBlockFast(tiles[t].data(), colourFast);
                encodeColourBlockHighQuality(tiles[t].data(), kPerceptual, colourHQ);
                encodeColourBlockHighQuality(tiles[t].data(), kUnit, unweighted);
                EXPECT_EQ(bytes(&blocks[16 * t], 8), bytes(expectedAlpha, 8)) << "tile " << t;
                EXPECT_EQ(bytes(&blocks[16 * t + 8], 8), bytes(fast ? colourFast : colourHQ, 8)) << "tile " << t;
                fitsDiffer += bytes(colourFast, 8) != bytes(colourHQ, 8);
                weightsMatter += bytes(colourHQ, 8) != bytes(unweighted, 8);
            }
            EXPECT_GT(fitsDiffer, 0) << "the image should tell the two colour fits apart";
            EXPECT_GT(weightsMatter, 0) << "the image should tell weighted from unweighted fits apart";
        }
}

TEST(BC2BC3Entries, FlatBlockAlphaHalves) {
    // Alpha 128 lies between levels 7 (119) and 8 (136) and goes to the nearer, 8.
    std::vector<uint8_t> pixels(12 * 12 * 4);
    for (size_t i = 0; i < pixels.size(); i += 4) pixels[i] = 255, pixels[i + 3] = 128;
    const auto bc2 = runEntry(encodeBC2CPU, pixels.data(), 12, kValueU8, true, 16);
    const auto bc3 = runEntry(encodeBC3CPU, pixels.data(), 12, kValueU8, true, 16);
    for (int t = 0; t < 9; ++t) {
        EXPECT_EQ(bytes(&bc2[16 * t], 8), std::vector<uint8_t>(8, 0x88)) << "tile " << t;
        EXPECT_EQ(bytes(&bc3[16 * t], 8), (std::vector<uint8_t>{128, 128, 0, 0, 0, 0, 0, 0})) << "tile " << t;
    }
}

// BC4 encodes red as the first BC5 half does; swapping red and green swaps the BC5 halves.
template <typename T>
void expectBC4BC5Halves(const std::vector<T>& pixels, int32_t valueType, Entry bc4, Entry bc5, bool fast) {
    std::vector<T> swapped = pixels;
    for (size_t i = 0; i < swapped.size(); i += 4) std::swap(swapped[i], swapped[i + 1]);
    const auto a = runEntry(bc5, pixels.data(), 8, valueType, fast, 16);
    const auto b = runEntry(bc5, swapped.data(), 8, valueType, fast, 16);
    const auto red = runEntry(bc4, pixels.data(), 8, valueType, fast, 8);
    for (int t = 0; t < 4; ++t) {
        EXPECT_EQ(bytes(&a[16 * t], 8), bytes(&b[16 * t + 8], 8)) << "tile " << t << " fast " << fast;
        EXPECT_EQ(bytes(&a[16 * t + 8], 8), bytes(&b[16 * t], 8)) << "tile " << t << " fast " << fast;
        EXPECT_EQ(bytes(&red[8 * t], 8), bytes(&a[16 * t], 8)) << "tile " << t << " fast " << fast;
        EXPECT_NE(bytes(&a[16 * t], 8), bytes(&a[16 * t + 8], 8)) << "red and green should differ";
    }
}

TEST(BC4BC5Entries, ChannelsAndHalves) {
    const auto u8 = testImage<uint8_t>(11, 8, 0, 255);
    const auto s8 = testImage<int8_t>(12, 8, -128, 127);
    for (bool fast : {true, false}) {
        expectBC4BC5Halves(u8, kValueU8, encodeBC4CPU, encodeBC5CPU, fast);
        expectBC4BC5Halves(s8, kValueS8, encodeBC4SCPU, encodeBC5SCPU, fast);
        uint8_t red[16], block[8];  // tile 0 of the red channel, fetched by hand
        for (int i = 0; i < 16; ++i) red[i] = u8[((i / 4) * 8 + i % 4) * 4 + 0];
        fast ? encodeInterpolatedBlockFast(red, block) : encodeInterpolatedBlockHighQuality(red, kUnitWeights, block);
        EXPECT_EQ(bytes(runEntry(encodeBC4CPU, u8.data(), 8, kValueU8, fast, 8).data(), 8), bytes(block, 8));
    }
}

TEST(BC4BC5Entries, SignedEntriesReadThroughTheSignedView) {
    // Unsigned 0 becomes -127 and float -1.0 becomes -127: a flat block at the bottom.
    std::vector<uint8_t> zeros(8 * 8 * 4, 0);
    std::vector<float> minusOnes(8 * 8 * 4, -1.0f);
    const std::vector<uint8_t> bottom{0x81, 0x81, 0, 0, 0, 0, 0, 0};
    for (bool fast : {true, false}) {
        const auto fromU8 = runEntry(encodeBC4SCPU, zeros.data(), 8, kValueU8, fast, 8);
        const auto fromF32 = runEntry(encodeBC4SCPU, minusOnes.data(), 8, kValueF32, fast, 8);
        for (int t = 0; t < 4; ++t) {
            EXPECT_EQ(bytes(&fromU8[8 * t], 8), bottom) << "tile " << t;
            EXPECT_EQ(bytes(&fromF32[8 * t], 8), bottom) << "tile " << t;
        }
    }
}
