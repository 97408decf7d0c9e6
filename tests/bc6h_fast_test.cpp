// The fast BC6H encoder: every block decodes, through the BC6H decoder, to the palette values
// the encoder measured (and so to the error it returned); special values, ties, partial
// blocks; the vector texel conversion and block writer against their scalar originals; a
// quality bound on smooth blocks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "bc6h/bc6h_cpu.h"
#include "bc6h/bc6h_decoder.h"
#include "bc6h/bc6h_format.h"
#include "bc6h/fast_block_writer.h"
#include "bc6h/fast_encoder.h"
#include "bc6h/fast_texels.h"
#include "bc6h/half_float.h"
#include "bc6h_test_blocks.h"

namespace {

using namespace glyptora_bc6h;

// Decoded channel as a texel value (sign and magnitude in signed form).
int decodedValue(uint16_t half, bool isSigned) { return isSigned && (half & 0x8000) ? -(half & 0x7FFF) : half; }

float valueToFloat(int v) { return v < 0 ? -halfToFloat(uint16_t(-v)) : halfToFloat(uint16_t(v)); }

bool isValid(uint16_t region, int i) { return i % 4 < (region & 0xFF) && i / 4 < (region >> 8); }

// The encoder's palette values are what the decoder produces, and its error is the measure of
// the decoded block: squared float differences over 1 + |texel| on the valid texels.
TEST(BC6HFast, EveryBlockDecodesToThePaletteItMeasured) {
    for (const bool isSigned : {false, true}) {
        int regions[3] = {};
        for (const BC6HSample& b : bc6hSampleBlocks(40)) {
            uint8_t out[16];
            FastBlockDetail detail;
            const float error = encodeBC6HBlockFastDetailed(b.tex, b.region, isSigned, out, &detail);
            uint8_t plain[16];
            EXPECT_EQ(encodeBC6HBlockFast(b.tex, b.region, isSigned, plain), error);
            EXPECT_EQ(0, std::memcmp(out, plain, 16));
            const Pattern* pattern = patternOfBlock(out);
            ASSERT_NE(pattern, nullptr);
            EXPECT_EQ(pattern->modeValue, detail.modeValue);
            ++regions[pattern->regions];
            uint16_t decoded[16][3];
            decodeBC6HBlock(out, isSigned, decoded);
            double measured = 0.0;
            for (int i = 0; i < 16; ++i) {
                if (!isValid(b.region, i)) continue;
                for (int c = 0; c < 3; ++c) {
                    const int v = decodedValue(decoded[i][c], isSigned);
                    ASSERT_EQ(v, detail.believed[i][c]) << "texel " << i << " channel " << c;
                    const double x = valueToFloat(texelValue(b.tex[4 * i + c], isSigned));
                    const double d = (valueToFloat(v) - x) / (1.0 + std::fabs(x));
                    measured += d * d;
                }
            }
            EXPECT_NEAR(error, measured, 1e-4 * measured + 1e-12);
        }
        EXPECT_GT(regions[1], 0);
        EXPECT_GT(regions[2], 0);  // both passes are exercised
    }
}

// Constant blocks come out exact, single-region (a tie at error 0 keeps the single region).
TEST(BC6HFast, ConstantBlocksDecodeToTheirTexelValue) {
    const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
    const struct {
        float value;
        bool isSigned;
        uint16_t half;
    } cases[] = {
        {inf, false, 0x7BFF},  {nan, false, 0x7BFF},   {70000.0f, false, 0x7BFF}, {-1.0f, false, 0x0000},
        {-0.0f, false, 0},     {1.0f, false, 0x3C00},  {3e-7f, false, 0x0005},    {-2.0f, true, 0xC000},
        {-inf, true, 0xFBFF},  {inf, true, 0x7BFF},    {0.5f, true, 0x3800},      {-3e-7f, true, 0x8005},
    };
    for (const auto& k : cases) {
        BC6HSample b;
        for (int i = 0; i < 64; ++i) b.tex[i] = i % 4 == 3 ? 1.0f : k.value;
        uint8_t out[16];
        EXPECT_EQ(encodeBC6HBlockFast(b.tex, b.region, k.isSigned, out), 0.0f) << k.value;
        EXPECT_EQ(patternOfBlock(out)->regions, 1);
        uint16_t decoded[16][3];
        decodeBC6HBlock(out, k.isSigned, decoded);
        for (int i = 0; i < 16; ++i)
            for (int c = 0; c < 3; ++c) EXPECT_EQ(decoded[i][c], k.half) << k.value << " texel " << i;
    }
}

// Texels outside the valid region play no part.
TEST(BC6HFast, InvalidTexelsDoNotMatter) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (const bool isSigned : {false, true})
        for (const BC6HSample& b : bc6hSampleBlocks(40)) {
            BC6HSample other = b;
            other.region = 0x0203;
            BC6HSample garbage = other;
            for (int i = 0; i < 16; ++i)
                if (!isValid(other.region, i))
                    for (int c = 0; c < 3; ++c) garbage.tex[4 * i + c] = i % 2 ? nan : -1e6f * float(c + 1);
            uint8_t a[16], g[16];
            EXPECT_EQ(encodeBC6HBlockFast(other.tex, other.region, isSigned, a),
                      encodeBC6HBlockFast(garbage.tex, garbage.region, isSigned, g));
            EXPECT_EQ(0, std::memcmp(a, g, 16));
        }
}

// Smooth blocks (colours along a line, brightness rising by up to half across the block)
// come out with an RMS error below half a step of a 16-entry palette over the block's
// spread, plus the endpoints' precision, in the measure (absolute below one, relative above).
TEST(BC6HFast, SmoothBlocksStayWithinHalfAPaletteStep) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    for (const bool isSigned : {false, true})
        for (int n = 0; n < 100; ++n) {
            BC6HSample b;
            float base[3], rise[3], spread = 0.0f;
            const float a = unit(rng), scale = std::exp2(-6.0f + 12.0f * unit(rng));
            for (int c = 0; c < 3; ++c) {
                base[c] = scale * (0.25f + unit(rng)) * (isSigned && n % 2 ? -1.0f : 1.0f);
                rise[c] = 0.5f * unit(rng);
                spread = std::max(spread, std::fabs(base[c] * rise[c]) / (1.0f + std::fabs(base[c])));
            }
            for (int i = 0; i < 16; ++i) {
                const float t = (a * float(i % 4) + (1.0f - a) * float(i / 4)) / 3.0f;
                for (int c = 0; c < 3; ++c) b.tex[4 * i + c] = base[c] * (1.0f + rise[c] * t);
                b.tex[4 * i + 3] = 1.0f;
            }
            uint8_t out[16];
            const float error = encodeBC6HBlockFast(b.tex, b.region, isSigned, out);
            const float rms = std::sqrt(error / 48.0f);
            EXPECT_LT(rms, spread / 30.0f + 0.002f) << n;
        }
}

// The four-lane texel conversion equals texelValue() on every half boundary and its
// neighbours, specials and random floats.
TEST(BC6HFast, LaneTexelConversionMatchesTexelValue) {
    std::vector<float> values = {0.0f, -0.0f, std::numeric_limits<float>::infinity(),
                                 -std::numeric_limits<float>::infinity(), std::numeric_limits<float>::quiet_NaN(),
                                 -std::numeric_limits<float>::quiet_NaN(), 65504.0f, 65519.0f, 65520.0f, 1e-30f};
    for (uint32_t h = 0; h < 0x7C00; ++h)
        for (const float sign : {1.0f, -1.0f}) {
            const float f = sign * halfToFloat(uint16_t(h));
            const float next = sign * halfToFloat(uint16_t(h + 1));
            values.insert(values.end(), {f, std::nextafter(f, 0.0f), std::nextafter(f, 2 * f), (f + next) / 2,
                                         std::nextafter((f + next) / 2, 0.0f)});
        }
    std::mt19937 rng(5);
    for (int n = 0; n < 100000; ++n) {
        const uint32_t bits = rng();
        float f;
        std::memcpy(&f, &bits, 4);
        values.push_back(f);
    }
    while (values.size() % 4) values.push_back(1.0f);
    for (const bool isSigned : {false, true})
        for (size_t i = 0; i < values.size(); i += 4) {
            float lanes[4];
            fast::texelValues(fast::Vec4f::load(&values[i]), isSigned).store(lanes);
            for (int j = 0; j < 4; ++j)
                ASSERT_EQ(lanes[j], float(texelValue(values[i + j], isSigned))) << values[i + j] << " " << isSigned;
        }
}

// Headers assembled from the compile-time layouts equal those of the layout-string writer.
TEST(BC6HFast, LearnedHeaderLayoutsMatchTheHeaderWriter) {
    std::mt19937 rng(9);
    const int noIndices[16] = {};
    for (int m = 0; m < 14; ++m) {
        const Pattern& pattern = m < 10 ? kTwoRegionPatterns[m] : kOneRegionPatterns[m - 10];
        const fast::ModeLayout& layout = m < 10 ? fast::kFastModes.two[m].layout : fast::kFastModes.one[m - 10].layout;
        EXPECT_EQ(layout.headerBits, pattern.regions == 2 ? 82 : 65);
        for (int n = 0; n < 20; ++n) {
            StoredEndpoints fields;
            for (auto& e : fields.field)
                for (int& v : e) v = int(rng() & 0xFFFF);
            const int shape = int(rng() % 32);
            uint8_t expected[16] = {}, actual[16];
            BC6HModes::Bits bits(expected, 128);
            writeHeader(pattern, pattern.regions == 2 ? shape : 0, fields, bits);
            fast::writeBlock(layout, shape, fields, noIndices, 3, 15, actual);
            EXPECT_EQ(0, std::memcmp(expected, actual, 16)) << "mode " << pattern.modeValue;
        }
    }
}

}  // namespace
