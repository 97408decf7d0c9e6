// The ASTC block writer: footprint lookup, the signed-position bit writer, integer sequences
// (checked against hand-packed bits), weight quantisation, the constant-colour block and the
// writer's consistency checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "astc/block_bits.h"
#include "astc/block_reader.h"
#include "astc/block_writer.h"
#include "astc/const_block.h"
#include "astc/footprints.h"
#include "astc/integer_sequence.h"
#include "astc/quantization_tables.h"
#include "astc/weight_quantization.h"
#include "recording_assert_handler.h"

using namespace glyptora_astc;

namespace {

std::string bitString(const uint8_t* block, int first, int count) {
    std::string s;
    for (int i = first; i < first + count; ++i) s += char('0' + readBlockBits(block, i, 1));
    return s;
}

}  // namespace

TEST(AstcFootprints, OnlyTheFourteenFootprintsHaveAnIndex) {
    // Index = position in this list; every other pair (4x5, 3x3, 12x8, ...) is refused.
    const std::vector<std::pair<int, int>> expected = {{4, 4}, {5, 4},  {5, 5},  {6, 5},  {6, 6},   {8, 5},   {8, 6},
                                                       {8, 8}, {10, 5}, {10, 6}, {10, 8}, {10, 10}, {12, 10}, {12, 12}};
    std::vector<std::pair<int, int>> accepted(14);
    int count = 0;
    for (int w = 0; w <= 16; ++w)
        for (int h = 0; h <= 16; ++h) {
            int index = -1;
            if (!AstcTileIndex(w, h, index)) continue;
            ++count;
            ASSERT_TRUE(index >= 0 && index < 14);
            accepted[index] = {w, h};
            EXPECT_EQ(astcFootprint(index).width * 100 + astcFootprint(index).height, w * 100 + h);
        }
    EXPECT_EQ(count, 14);
    EXPECT_EQ(accepted, expected);
    int index = 99;
    EXPECT_FALSE(AstcTileIndex(4, 5, index) || AstcTileIndex(3, 3, index) || AstcTileIndex(12, 8, index));
    EXPECT_EQ(index, 99);  // left alone
}

TEST(AstcBitWriter, WritesUpwardFromTheBottomAndReversedFromTheTop) {
    struct Case {
        int start, n;
        uint32_t value;
        int end, firstBit;   // position after the write; lowest block bit touched
        const char* bits;    // block bits firstBit upward after the write
    };
    const Case cases[] = {
        {0, 4, 0x9, 4, 0, "1001"},
        {5, 7, 0x55, 12, 5, "1010101"},                 // crosses a byte border
        {120, 8, 0xC3, 128, 120, "11000011"},
        {-1, 3, 0x6, -4, 125, "110"},                   // value bits 0, 1, 2 (011) at block bits 127, 126, 125
        {-10, 5, 0x13, -15, 114, "10011"},              // value bits 0..4 (11001) at block bits 118..114
    };
    for (const Case& c : cases) {
        uint8_t block[16];
        std::fill(block, block + 16, 0xA5);
        const std::vector<uint8_t> before(block, block + 16);
        int pos = c.start;
        writeBlockBits(block, pos, c.value, c.n);
        EXPECT_EQ(pos, c.end) << c.start;
        EXPECT_EQ(bitString(block, c.firstBit, c.n), c.bits) << c.start;
        for (int i = 0; i < 128; ++i)  // every other bit unchanged
            if (i < c.firstBit || i >= c.firstBit + c.n) {
                EXPECT_EQ(readBlockBits(block, i, 1), readBlockBits(before.data(), i, 1)) << c.start << " bit " << i;
            }
    }
}

TEST(AstcIntegerSequence, ShortGroupsMatchHandPackedBits) {
    struct Case {
        int range;
        std::vector<uint8_t> values;
        const char* bits;  // block bits 0 upward
    };
    const Case cases[] = {
        // Quints with one plain bit, values 7 2 9 | 4: quints 3 1 4 pack to 1001111 (q2 = 4 with
        // q1 != 4 takes the 11 form of bits 2..1); the short group's quints 2 0 0 pack to 0000010.
        // Per value: its low bit, then 3, 2, 2 code bits.
        {6, {7, 2, 9, 4}, "1" "111" "0" "10" "1" "01" "0" "010"},
        // Trits without plain bits, values 2 1: trits 2 1 0 0 0 pack to 00000110; code bits 2, 2.
        {1, {2, 1}, "01" "10"},
        // Plain three bits.
        {5, {5, 6}, "101" "011"},
    };
    for (const Case& c : cases) {
        uint8_t block[16] = {};
        int pos = 0;
        s_WriteIntegers(block, astcRangeFormat(c.range), c.values.data(), int(c.values.size()), pos);
        const int length = int(std::string(c.bits).size());
        EXPECT_EQ(pos, length) << c.range;
        EXPECT_EQ(astcSequenceBits(astcRangeFormat(c.range), int(c.values.size())), length) << c.range;
        EXPECT_EQ(bitString(block, 0, 128), c.bits + std::string(128 - length, '0')) << c.range;
    }
}

TEST(AstcIntegerSequence, EveryRangeAndLengthReadsBackInBothDirections) {
    std::mt19937 rng(7);
    for (int range = 0; range < kAstcRangeCount; ++range)
        for (int count = 1; count <= 12; ++count) {
            const AstcIntegerFormat f = astcRangeFormat(range);
            if (astcSequenceBits(f, count) > 128) continue;
            std::vector<uint8_t> values(count, 0), back(count, 0);
            for (uint8_t& v : values) v = uint8_t(rng() % uint32_t(astcRangeLevels(range)));
            uint8_t up[16] = {}, down[16] = {}, reversed[16];
            int pos = 0, top = -1;
            s_WriteIntegers(up, f, values.data(), count, pos);
            s_WriteIntegers(down, f, values.data(), count, top);
            EXPECT_EQ(pos, astcSequenceBits(f, count));
            EXPECT_EQ(top, -1 - pos);
            readIntegers(up, 0, f, count, back.data());
            EXPECT_EQ(back, values) << "range " << range << " count " << count;
            reverseBlockBits(down, reversed);
            readIntegers(reversed, 0, f, count, back.data());
            EXPECT_EQ(back, values) << "range " << range << " count " << count << " reversed";
        }
}

TEST(AstcQuantization, LevelsAreEvenlySpreadAndWeightsTakeTheNearest) {
    // Sorted unquantised levels of every range: 0 to the top, each within 1.5 of even spacing.
    for (int range = 0; range < kAstcRangeCount; ++range) {
        const bool weights = range < kAstcWeightRangeCount;
        if (!weights && range < kAstcFirstColourRange) continue;
        const int n = astcRangeLevels(range), top = weights ? 64 : 255;
        std::vector<int> levels;
        for (int v = 0; v < n; ++v)
            levels.push_back(weights ? astcWeightUnquant(range, v) : astcColourUnquant(range, v));
        std::sort(levels.begin(), levels.end());
        for (int k = 0; k < n; ++k) EXPECT_LE(std::abs(levels[k] - top * k / (n - 1.0)), 1.5) << range << " " << k;
    }
    // Six levels (trit and a bit): ISE values 0 2 4 5 3 1 stand for weights 0 12 25 39 52 64.
    const float in[] = {0.0f, 0.2f, 0.6f, 0.75f, 1.0f, -3.0f, 2.0f, NAN, 0.09f};
    const uint8_t expected[] = {0, 2, 5, 3, 1, 0, 1, 0, 0};  // 0.09 * 64 = 5.76: nearer 0 than 12
    FloatMatrix m(9);
    for (unsigned i = 0; i < 9; ++i) m(i) = in[i];
    uint8_t out[9];
    s_QuantizeIndices(m, 9, 4, out);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 9), std::vector<uint8_t>(expected, expected + 9));
    m(8) = 0.09375f;  // 6 of 64: halfway between 0 and 12, the lower level wins
    s_QuantizeIndices(m, 9, 4, out);
    EXPECT_EQ(out[8], 0);
}

TEST(AstcConstBlock, HeaderNoExtentAndColourBytes) {
    // Header 3580 (0xDFC) and four extents of 8191 fill bytes 0..7 with FC FD FF FF FF FF FF FF.
    const std::vector<uint8_t> header = {0xFC, 0xFD, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    const struct {
        uint16_t rgba[4];
        std::vector<uint8_t> colour;
    } cases[] = {
        {{65535, 65535, 65535, 65535}, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},  // opaque white
        {{0x1234, 0x5678, 0x9ABC, 0}, {0x34, 0x12, 0x78, 0x56, 0xBC, 0x9A, 0, 0}},
    };
    for (const auto& c : cases) {
        uint8_t out[16];
        std::fill(out, out + 16, 0x5A);
        writeConstBlock(c.rgba, out);
        EXPECT_EQ(std::vector<uint8_t>(out, out + 8), header);
        EXPECT_EQ(std::vector<uint8_t>(out + 8, out + 16), c.colour);
    }
}

TEST(AstcWriterChecks, ReportTheirExpressionSourceAndFunction) {
    struct Case {
        AstcIntegerFormat format;
        std::vector<uint8_t> values;
        const char* expression;
    };
    const Case cases[] = {
        {{1, 1, 1}, {0, 1, 2}, "!format.trits"},
        {{1, 0, 1}, {3, 10, 4}, "qVals[j] < 5"},  // 10 >> 1 = quint 5
        {{2, 1, 0}, {1, 2, 12, 3}, "tVals[j] < 3"},  // 12 >> 2 = trit 3
    };
    for (const Case& c : cases) {
        RecordingHandler handler;
        uint8_t block[16] = {};
        int pos = 0;
        s_WriteIntegers(block, c.format, c.values.data(), int(c.values.size()), pos);
        ASSERT_EQ(handler.expressions.size(), 1u) << c.expression;
        EXPECT_EQ(handler.expressions[0], c.expression);
        EXPECT_EQ(handler.files[0], "astc_encoder");
        EXPECT_EQ(handler.functions[0], "glyptora_astc::s_WriteIntegers");
    }
    RecordingHandler handler;
    FloatMatrix three(3);
    uint8_t out[4] = {9, 9, 9, 9};
    s_QuantizeIndices(three, 4, 2, out);
    ASSERT_EQ(handler.expressions.size(), 1u);
    EXPECT_EQ(handler.expressions[0], "floatInd.Lines() == (unsigned)numIndices");
    EXPECT_EQ(handler.files[0], "astc_encoder");
    EXPECT_EQ(handler.functions[0], "glyptora_astc::s_QuantizeIndices");
    EXPECT_EQ(out[3], 0);  // the missing line quantises as weight 0
}

TEST(AstcBlockWriter, RefusesContentThatHasNoLayout) {
    // What it stores is checked bit for bit by the decoder test (astcenc reads it as we do).
    struct Case {
        const char* what;
        AstcBlockMode mode;
        int partitions;
        uint8_t cem[4];
        int rangeChange;  // added to the layout's colour range
        bool stored;
    };
    const Case cases[] = {
        {"classes 2 and 3, two planes", {4, 3, true, 0}, 2, {9, 13}, 0, true},
        {"class 3 only, two modes", {4, 4, false, 2}, 2, {13, 12}, 0, true},
        {"four partitions on two planes", {4, 3, true, 0}, 4, {0, 0, 0, 0}, 0, false},
        {"classes 0 and 2", {4, 4, false, 2}, 2, {0, 8}, 0, false},
        {"a colour range the layout does not give", {4, 4, false, 2}, 1, {0}, -1, false},
        {"a grid without a block mode", {3, 13, false, 0}, 1, {0}, 0, false},
    };
    for (const Case& c : cases) {
        AstcBlockContent in;
        in.mode = c.mode, in.partitionCount = c.partitions;
        std::copy(c.cem, c.cem + 4, in.cem);
        in.colourRange = astcColourRangeOf(in) + c.rangeChange;
        uint8_t block[16] = {};
        EXPECT_EQ(writeAstcBlock(in, block), c.stored) << c.what;
        AstcBlockContent out;
        uint16_t constant[4];
        EXPECT_EQ(readAstcBlock(block, 4, 4, out, constant) == AstcBlockKind::Ordinary, c.stored) << c.what;
        if (c.stored) {
            EXPECT_TRUE(std::equal(c.cem, c.cem + c.partitions, out.cem)) << c.what;
        }
    }
}
