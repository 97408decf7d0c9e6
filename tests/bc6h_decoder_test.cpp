// BC6H decoding against reference decodes of every mode and partition, the header layouts'
// write/read symmetry, texel preparation and half-float conversion.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <fstream>
#include <iterator>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "bc6h/bc6h_decoder.h"
#include "bc6h/bc6h_format.h"
#include "bc6h/half_float.h"

namespace {

using namespace glyptora_bc6h;

const std::string kDataDir = GLYPTORA_SOURCE_DIR "/../shared/testdata/bc6h/";

std::vector<uint8_t> readFile(const std::string& name) {
    std::ifstream file(kDataDir + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

class BC6HReference : public testing::TestWithParam<bool> {};

TEST_P(BC6HReference, EveryBlockDecodesToTheReference) {
    const bool isSigned = GetParam();
    const std::vector<uint8_t> blocks = readFile("blocks.bin");
    const std::vector<uint8_t> expected = readFile(isSigned ? "sfloat_half.bin" : "ufloat_half.bin");
    if (blocks.empty() || expected.empty()) GTEST_SKIP() << "BC6H reference data not found in " << kDataDir;
    const size_t count = blocks.size() / 16;
    ASSERT_EQ(count, 1552u);
    ASSERT_EQ(expected.size(), count * 16 * 3 * 2);

    int failures = 0;
    for (size_t b = 0; b < count && failures < 10; ++b) {
        uint16_t texels[16][3];
        decodeBC6HBlock(&blocks[b * 16], isSigned, texels);
        // Report the first wrong channel of each wrong block.
        for (int k = 0; k < 48; ++k) {
            const size_t at = (b * 48 + k) * 2;
            const uint16_t want = uint16_t(expected[at] | (expected[at + 1] << 8));
            if (texels[k / 3][k % 3] == want) continue;
            const Pattern* pattern = patternOfBlock(&blocks[b * 16]);
            ADD_FAILURE() << "block " << b << " mode " << (pattern ? pattern->modeValue : -1) << " texel " << k / 3
                          << " channel " << k % 3 << ": got 0x" << std::hex << texels[k / 3][k % 3] << " want 0x"
                          << want;
            ++failures;
            break;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, BC6HReference, testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Signed" : "Unsigned"; });

// Writing random field values through every layout and reading them back must reproduce them,
// cover exactly the header bits (82 or 65) and be recognised as the same mode.
TEST(BC6HLayout, HeaderRoundTripsForEveryPattern) {
    std::mt19937 random(1234);
    std::vector<const Pattern*> patterns;
    for (const Pattern& p : kTwoRegionPatterns) patterns.push_back(&p);
    for (const Pattern& p : kOneRegionPatterns) patterns.push_back(&p);
    for (const Pattern* pattern : patterns) {
        for (int trial = 0; trial < 50; ++trial) {
            StoredEndpoints written{};
            for (int e = 0; e < pattern->regions * 2; ++e)
                for (int c = 0; c < 3; ++c) written.field[e][c] = int(random() & ((1u << pattern->bits[c][e]) - 1));
            const int shape = pattern->regions == 2 ? int(random() % 32) : 0;
            uint8_t block[16] = {};
            BC6HModes::Bits out(block, 128);
            writeHeader(*pattern, shape, written, out);
            ASSERT_EQ(out.getptr(), pattern->regions == 2 ? 82 : 65) << "mode " << pattern->modeValue;
            ASSERT_EQ(patternOfBlock(block), pattern);

            int readShape = -1;
            StoredEndpoints read{};
            readHeader(*pattern, block, readShape, read);
            EXPECT_EQ(readShape, shape);
            for (int e = 0; e < 4; ++e)
                for (int c = 0; c < 3; ++c)
                    ASSERT_EQ(read.field[e][c], written.field[e][c])
                        << "mode " << pattern->modeValue << " field " << e << " channel " << c;
        }
    }
}

TEST(BC6HLayout, ReservedModesHaveNoPatternAndDecodeToZero) {
    for (const int mode : {0x13, 0x17, 0x1B, 0x1F}) {
        uint8_t block[16];
        for (uint8_t& byte : block) byte = 0xA5;
        block[0] = uint8_t((0xA5 & ~31) | mode);
        EXPECT_EQ(patternOfBlock(block), nullptr);
        uint16_t texels[16][3];
        decodeBC6HBlock(block, false, texels);
        for (const auto& texel : texels) EXPECT_EQ(texel[0] | texel[1] | texel[2], 0);
    }
}

TEST(BC6HTexels, ValuesAreClampedHalfPatterns) {
    const float inf = std::numeric_limits<float>::infinity();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    struct Case {
        float value;
        int asUnsigned, asSigned;
    } cases[] = {
        {inf, 31743, 31743},   {nan, 31743, 31743},   {-inf, 0, -31743}, {65504.0f, 31743, 31743},
        {1.0f, 0x3C00, 0x3C00}, {-1.0f, 0, -0x3C00},  {-0.0f, 0, 0},     {0.0f, 0, 0},
        {0.5f, 0x3800, 0x3800}, {-2.0f, 0, -0x4000},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(texelValue(c.value, false), c.asUnsigned) << c.value;
        EXPECT_EQ(texelValue(c.value, true), c.asSigned) << c.value;
    }
}

TEST(BC6HHalf, ConvertsKnownValues) {
    struct Case {
        float value;
        uint16_t half;
    } exact[] = {
        {0.0f, 0x0000},     {-0.0f, 0x8000},        {1.0f, 0x3C00},      {-2.0f, 0xC000},
        {65504.0f, 0x7BFF}, {0.5f, 0x3800},         {6.103515625e-05f, 0x0400},  // smallest normal
        {5.9604644775390625e-08f, 0x0001},  // smallest denormal
        {std::numeric_limits<float>::infinity(), 0x7C00},
    };
    for (const Case& c : exact) {
        EXPECT_EQ(floatToHalf(c.value), c.half) << c.value;
        EXPECT_EQ(std::bit_cast<uint32_t>(halfToFloat(c.half)), std::bit_cast<uint32_t>(c.value)) << c.value;
    }
    // Rounding to nearest even and overflow.
    EXPECT_EQ(floatToHalf(1.0f + 1.0f / 2048), 0x3C00);      // tie, to even
    EXPECT_EQ(floatToHalf(1.0f + 3.0f / 2048), 0x3C02);      // tie, to even (up)
    EXPECT_EQ(floatToHalf(65520.0f), 0x7C00);                // rounds past the largest finite
    EXPECT_EQ(floatToHalf(2.98023223876953125e-08f), 0x0000);  // 2^-25: tie to zero
    EXPECT_TRUE(std::isnan(halfToFloat(0x7E00)));
}

}  // namespace
