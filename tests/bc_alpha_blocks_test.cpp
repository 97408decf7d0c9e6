// Single-channel blocks: BC2 explicit alpha, the unsigned interpolated block (BC3 alpha, BC4,
// BC5 halves) and its signed twin (BC4S, BC5S halves), against pinned blocks and independent
// re-computations of the palettes and of the exhaustive endpoint search; and the BC2, BC3,
// BC4 and BC5 CPU entries over tiled input buffers (channel choice, halves). The entries'
// value-type conversions are pinned through the exported conversion (conversion_pinned_test).
#include <gtest/gtest.h>

#include <algorithm>
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
#include "fnv1a.h"

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

using Entry = void (*)(const CPUViewBase&, bool, uint8_t*);
const float kUnit[3] = {1, 1, 1};
const float kPerceptual[3] = {0.2126f, 0.7152f, 0.0722f};

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

// Literal blocks of the fast (F) and high-quality (H) encoders: the first bytes written, and
// every pixel decoding to its value (signed -128 to -127), but for `missed` (one below). The
// decoder's 3-bit indices from bit 16 are checked by the block that uses all eight entries.
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

// The exhaustive search, for both signs. The pruned search (host vector evaluator, and the
// one-pixel evaluator that device code runs) against the straightforward one on every block.
// On the first set, against the pair-by-pair model: endpoints, the 0/255 pinning of unsigned
// 8-value pairs, and nearest-entry indices with ties to the lower index; being the best pair
// of its windows, it is in total clearly better than the fast encoder. On the second set, the
// blocks of the straightforward and fast encoders pinned by a hash: any change shows up here.
TEST(InterpolatedHighQuality, MatchesTheModelAndThePrunedSearchGivesTheStraightforwardBlocks) {
    const uint64_t expectedHash[2] = {0x0FD4C184C54F2ADFull, 0x60E27B473161ECC7ull};
    for (const Domain* d : {&kUnsigned, &kSigned})
        for (const bool model : {true, false}) {
            BlockSource source(model ? (d->isSigned ? 99 : 7) : (d->isSigned ? 2024 : 1999));
            uint64_t hash = kFnv1aStart;
            int pinned = 0;
            long fastTotal = 0, searchTotal = 0;
            for (int n = 0; n < (model ? 49 : 300); ++n) {
                int x[16];
                source.block(*d, n % (model ? 7 : 6), x);
                uint8_t fast[8], pruned[8], straightforward[8];
                encode(*d, Encoder::Fast, x, fast);
                encode(*d, Encoder::HighQuality, x, pruned);
                encode(*d, Encoder::Straightforward, x, straightforward);
                ASSERT_EQ(bytes(pruned, 8), bytes(straightforward, 8)) << "block " << n;
                expectNearestIndices(*d, x, fast);
                hash = fnv1a(fnv1a(hash, fast, 8), straightforward, 8);

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
                if (!model) continue;

                int a0, a1;
                bool repinned = false;
                modelHighQualityPair(*d, x, &a0, &a1, &repinned);
                ASSERT_EQ(endpoint(*d, pruned[0]), a0) << "block " << n;
                ASSERT_EQ(endpoint(*d, pruned[1]), a1) << "block " << n;
                expectNearestIndices(*d, x, pruned);
                pinned += repinned;
                fastTotal += blockError(*d, x, fast);
                searchTotal += blockError(*d, x, pruned);
            }
            if (!model) {
                EXPECT_EQ(hash, expectedHash[d->isSigned]) << std::hex << hash;
                continue;
            }
            if (!d->isSigned) {
                EXPECT_GT(pinned, 0) << "no block exercised the 0/255 pinning";
            }
            EXPECT_LT(searchTotal * 10, fastTotal * 9) << "search " << searchTotal << " fast " << fastTotal;
        }
}

// Each CPU entry against the block functions on the buffer's own fetches, tile by tile, on an
// image whose four channels differ. BC2 and BC3: the alpha block (explicit; the fast
// interpolated one at both qualities), then the colour block (the fast fit, or the
// high-quality one weighted by the buffer's weights). BC4: red; BC5: red, then green; BC4S and
// BC5S: the same from the signed fetch.
TEST(AlphaBlockEntries, EveryEntryEncodesItsChannelsOfTheFetchedTiles) {
    std::vector<uint8_t> pixels(12 * 12 * 4);
    for (uint32_t i = 0, seed = 3; i < pixels.size(); ++i)
        seed = seed * 1664525u + 1013904223u, pixels[i] = uint8_t(((i / 4) % 8) * 25 + (seed >> 24) % 48);
    const ImageRecord record{.data = pixels.data(), .width = 12, .height = 12};
    const CPUInputBuffer input(&record, 1, kValueU8, 4, 4, kPerceptual[0], kPerceptual[1], kPerceptual[2], 1);
    const CPUU8View view = dynamic_cast<const U8TileBuffer*>(input.buffer())->view();
    ASSERT_EQ(view.tileCount, 9u);
    const struct {
        Entry entry;
        const char* name;
        int bytes;
    } entries[] = {{encodeBC2CPU, "BC2", 16}, {encodeBC3CPU, "BC3", 16}, {encodeBC4CPU, "BC4", 8},
                   {encodeBC5CPU, "BC5", 16}, {encodeBC4SCPU, "BC4S", 8}, {encodeBC5SCPU, "BC5S", 16}};
    for (bool fast : {true, false})
        for (const auto& e : entries) {
            const bool colour = e.entry == encodeBC2CPU || e.entry == encodeBC3CPU;
            const bool isSigned = e.entry == encodeBC4SCPU || e.entry == encodeBC5SCPU;
            std::vector<uint8_t> out(9 * e.bytes, 0xCD);
            e.entry(view, fast, out.data());
            int fitsDiffer = 0, weightsMatter = 0;
            for (uint32_t t = 0; t < 9; ++t) {
                uint8_t bgra[64], want[16], colourFast[8], unweighted[8];
                int8_t sbgra[64];
                view.fetchBGRA8(t, bgra), view.fetchSignedBGRA8(t, sbgra);
                // The interpolated block of channel c (1 green, 2 red, 3 alpha) at want + offset.
                auto channel = [&](int c, Encoder how, int offset) {
                    int x[16];
                    for (int i = 0; i < 16; ++i) x[i] = isSigned ? sbgra[4 * i + c] : bgra[4 * i + c];
                    encode(isSigned ? kSigned : kUnsigned, how, x, want + offset);
                };
                if (colour) {
                    uint8_t alpha[16];
                    for (int i = 0; i < 16; ++i) alpha[i] = bgra[4 * i + 3];
                    e.entry == encodeBC2CPU ? encodeExplicitAlphaBlock(alpha, want) : channel(3, Encoder::Fast, 0);
                    encodeColourBlockFast(bgra, colourFast);
                    encodeColourBlockHighQuality(bgra, kPerceptual, want + 8);
                    encodeColourBlockHighQuality(bgra, kUnit, unweighted);
                    fitsDiffer += bytes(colourFast, 8) != bytes(want + 8, 8);
                    weightsMatter += bytes(unweighted, 8) != bytes(want + 8, 8);
                    if (fast) std::memcpy(want + 8, colourFast, 8);
                } else {
                    channel(2, fast ? Encoder::Fast : Encoder::HighQuality, 0);
                    if (e.bytes == 16) channel(1, fast ? Encoder::Fast : Encoder::HighQuality, 8);
                }
                EXPECT_EQ(bytes(&out[t * e.bytes], e.bytes), bytes(want, e.bytes)) << e.name << " " << t << " " << fast;
            }
            if (colour) {
                EXPECT_GT(fitsDiffer, 0) << "the image should tell the two colour fits apart";
                EXPECT_GT(weightsMatter, 0) << "the image should tell weighted from unweighted fits apart";
            }
        }
}
