// The BC6H search encoder: every block decodes (through the block decoder) to the palette
// and the error the search believed, its output pinned; texel preparation, the quantiser's
// rounding, the first pattern that fits, the layout tie-break and the shape loop's stop; the
// failure path.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "bc6h/bc6h_cpu.h"
#include "bc6h/bc6h_decoder.h"
#include "bc6h/bc6h_format.h"
#include "bc6h/search_encoder.h"
#include "bc6h_test_blocks.h"
#include "bc7/bc7_tables.h"
#include "fnv1a.h"
#include "lcg.h"
#include "recording_assert_handler.h"

using namespace BC6HModes;

namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// Error of decoded texels against the tile, summed region by region in texel order as the
// search sums it.
float decodedError(const Tile& tile, const SearchBlock& block, const uint16_t decoded[16][3]) {
    float total = 0.0f;
    for (int r = 0; r < block.pattern->regions; ++r) {
        float sum = 0.0f;
        for (int i = 0; i < 16; ++i) {
            if (glyptora_bc7::partitionSubset(block.pattern->regions, block.shape, i) != r) continue;
            float e = 0.0f;
            for (int c = 0; c < 3; ++c) {
                const float d = tile.linear[i][c] - glyptora_bc6h::halfToFloat(decoded[i][c]);
                e += d * d;
            }
            sum += e * tile.importance_map[i];
        }
        total += sum;
    }
    return total;
}

}  // namespace

// And the blocks, hashed, guard the search's output against unintended change (speed work
// must keep it).
TEST(BC6HSearch, EveryBlockDecodesToThePaletteAndErrorTheSearchBelieved) {
    RecordingHandler handler;
    const uint64_t pinned[2] = {0x06615a3ccd0ddef1ull, 0x46a8d434d22e6775ull};
    for (const bool isSigned : {false, true}) {
        int twoRegion = 0;
        uint64_t hash = kFnv1aStart;
        for (const BC6HSample& s : bc6hSampleBlocks(48)) {
            const Tile tile = makeTile(s.tex, s.region, isSigned);
            uint8_t block[16];
            SearchBlock chosen;
            const float error = compress_tile(tile, block, isSigned, &chosen);
            uint16_t believed[16][3], decoded[16][3];
            blockTexels(chosen, isSigned, believed);
            glyptora_bc6h::decodeBC6HBlock(block, isSigned, decoded);
            ASSERT_EQ(std::memcmp(believed, decoded, sizeof decoded), 0);
            ASSERT_EQ(glyptora_bc6h::patternOfBlock(block), chosen.pattern);
            EXPECT_EQ(error, chosen.error);
            EXPECT_EQ(error, decodedError(tile, chosen, decoded));
            uint8_t again[16];
            EXPECT_EQ(glyptora_bc6h::encodeBC6HBlockSearch(s.tex, s.region, isSigned, again), error);
            EXPECT_EQ(std::memcmp(block, again, 16), 0);
            twoRegion += chosen.pattern->regions == 2;
            hash = fnv1a(hash, again, 16);
        }
        EXPECT_GT(twoRegion, 30);  // both layouts are exercised
        EXPECT_EQ(hash, pinned[isSigned]) << std::hex << "0x" << hash;
    }
    EXPECT_EQ(handler.expressions, std::vector<std::string>{});
}

TEST(BC6HSearch, TexelPreparation) {
    struct Case {
        float value;
        bool isSigned;
        float expected;
    };
    const Case cases[] = {{kInf, false, 31743}, {kInf, true, 31743},   {kNaN, false, 31743}, {kNaN, true, 31743},
                          {-1.0f, false, 0},    {-1.0f, true, -15360}, {-kInf, true, -31743}, {1.0f, false, 15360},
                          {-0.0f, false, 0},    {65504.0f, false, 31743}};
    for (const Case& c : cases) {
        float tex[64];
        for (float& v : tex) v = c.value;
        const Tile tile = makeTile(tex, 0x0201, c.isSigned);
        EXPECT_EQ(tile.data[5][1], c.expected) << c.value << " signed " << c.isSigned;
        EXPECT_EQ(tile.importance_map[0], 1.0f);
        EXPECT_EQ(tile.importance_map[1], 0.0f);  // one column valid
        EXPECT_EQ(tile.importance_map[4], 1.0f);
        EXPECT_EQ(tile.importance_map[8], 0.0f);  // two rows valid
    }
}

TEST(BC6HSearch, QuantiserRoundsWithItsConstantFromElevenBitsUp) {
    struct Case {
        float x;
        int prec;
        bool isSigned;
        int expected;
    };
    const Case cases[] = {
        {30, 10, false, 0},          // truncates below 11 bits (30 * 1024 / 31744 = 0.97)
        {23, 12, false, 3},          // 23 * 4096 / 31744 = 2.97, the constant carries it to 3
        {22.5f, 12, false, 3},       // rounded half up first
        {0.49f, 11, false, 0},       {31743, 16, false, 65534}, {31743, 10, false, 1023},
        {-16, 16, true, -17},        // magnitude 16.5 carried to 17
        {-15, 16, true, -15},        {31743, 16, true, 32767},  {-31743, 11, true, -1023},
        {100, 11, true, 3},          {-100, 11, true, -3},
    };
    for (const Case& c : cases) EXPECT_EQ(quantize(c.x, c.prec, c.isSigned), c.expected) << c.x << " " << c.prec;
}

TEST(BC6HSearch, EqualErrorsKeepTheOneRegionBlockAndAConstantStopsAtShapeZero) {
    // Constants that both layouts' first patterns reproduce exactly: error 0 either way.
    for (const bool isSigned : {false, true}) {
        const int patterns[3] = {isSigned ? 31743 : 15879, isSigned ? 0 : 23, isSigned ? -31743 : 16019};
        float tex[64];
        for (int i = 0; i < 64; ++i) tex[i] = i % 4 == 3 ? 1.0f : linearValue(patterns[i % 4], isSigned);
        const Tile tile = makeTile(tex, 0x0404, isSigned);
        uint8_t one[16], two[16], chosen[16];
        SearchBlock twoBlock, block;
        EXPECT_EQ(compress_one_region(tile, one, isSigned), 0.0f);
        EXPECT_EQ(compress_two_regions(tile, two, isSigned, &twoBlock), 0.0f);
        EXPECT_EQ(twoBlock.shape, 0);
        EXPECT_EQ(compress_tile(tile, chosen, isSigned, &block), 0.0f);
        EXPECT_EQ(std::memcmp(chosen, one, 16), 0);
        EXPECT_EQ(block.pattern->regions, 1);
    }
}

// Unoptimised error of rough endpoints quantised for `pattern` (indices and anchors as the
// search assigns them).
static float patternError(const Tile& tile, int shape, const FltEndpts rough[2], const glyptora_bc6h::Pattern& pattern) {
    float total = 0.0f;
    Region regions[2];
    makeRegions(tile, 2, shape, regions);
    for (int r = 0; r < 2; ++r) {
        const Region& region = regions[r];
        IntEndpoints e;
        for (int c = 0; c < 3; ++c)
            e.A[c] = quantize(rough[r].A[c], pattern.bits[0][0], false), e.B[c] = quantize(rough[r].B[c], pattern.bits[0][0], false);
        Palette palette;
        buildPalette({pattern.bits[0][0], false, 3}, e, palette);
        int indices[16];
        total += scanPalette(region, palette, FLT_MAX, indices);
    }
    return total;
}

TEST(BC6HSearch, TheFirstPatternThatHoldsTheEndpointsIsTaken) {
    // Smooth blocks: their deltas fit the first two-region pattern (mode value 2). The last
    // one is two flat colours that the 10-bit pattern 4 reproduces exactly while the first
    // pattern's 11-bit grid misses them; the first pattern is still the one written.
    Lcg rng{77};
    for (int n = 0; n <= 40; ++n) {
        float tex[64];
        const float base = 0.5f + rng.unit(), slope = 0.004f * rng.unit();
        for (int i = 0; i < 64; ++i) {
            const int texel = i / 4, x = texel % 4, y = texel / 4;
            tex[i] = n < 40 ? base + slope * float(x + y) + 0.01f * float(i % 4)
                            : linearValue(glyptora_bc7::kPartitions2[13][texel] ? 15577 : 15515, false);
        }
        const Tile tile = makeTile(tex, 0x0404, false);
        Region regions[2];
        makeRegions(tile, 2, 13, regions);
        FltEndpts rough[2];
        for (int r = 0; r < 2; ++r) rough_region(regions[r], false, 3, rough[r]);
        uint8_t block[16];
        SearchBlock chosen;
        refinetwo(tile, 13, rough, block, false, &chosen);
        EXPECT_EQ(chosen.pattern, &glyptora_bc6h::kTwoRegionPatterns[0]);
        EXPECT_EQ(block[0] & 31, 2);
        if (n == 40) {
            EXPECT_EQ(patternError(tile, 13, rough, glyptora_bc6h::kTwoRegionPatterns[3]), 0.0f);
            EXPECT_GT(patternError(tile, 13, rough, glyptora_bc6h::kTwoRegionPatterns[0]), 0.0f);
        }
    }
}

TEST(BC6HSearch, EndpointsNoPatternHoldsFailTheSearch) {
    float tex[64] = {};
    const Tile tile = makeTile(tex, 0x0404, false);
    FltEndpts rough[2];
    for (FltEndpts& e : rough)
        for (int c = 0; c < 3; ++c) e.A[c] = 1e6f, e.B[c] = 0.0f;  // beyond every field
    uint8_t block[16] = {};
    for (const int regions : {1, 2}) {
        RecordingHandler handler;
        const float error = regions == 2 ? refinetwo(tile, 3, rough, block, false) : refineone(tile, 0, rough, block, false);
        EXPECT_EQ(error, FLT_MAX);
        EXPECT_EQ(handler.expressions, std::vector<std::string>{"false"});
        EXPECT_EQ(handler.files, std::vector<std::string>{regions == 2 ? "bc6h_two" : "bc6h_one"});
    }
}
