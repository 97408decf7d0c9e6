// The high-quality BC7 mode encoders: every block decodes (in our decoder and in Pillow) to
// the error the encoder reports; the driver's mode order and tie-break; partial edge blocks;
// the pinned output of a fixed block set; overall quality against the fast encoder.
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bc7/bc7_decoder.h"
#include "bc7/bc7_fast.h"
#include "bc7/bc7_modes.h"
#include "bc7/modes_assert.h"
#include "bc7/modes_layout.h"
#include "bc7_test_support.h"
#include "lcg.h"
#include "recording_assert_handler.h"

using namespace glyptora_bc7;
using bc7_test::decodedError;

namespace {

struct Sample {
    float tex[64];
    uint16_t region = 0x0404;
    bool alphaMatters = true;
    int forcedMode = -1;  // -1: the driver picks
    std::string label;
};

// Photo-like: a ramp in x and y with a little noise, sometimes split by a hard edge.
void photo(Lcg& rng, float tex[64], bool translucent) {
    float base[2][4], dx[4], dy[4];
    for (int c = 0; c < 4; ++c)
        base[0][c] = rng.unit(), base[1][c] = rng.unit(), dx[c] = rng.around(0.5f, 0.16f) - 0.5f,
        dy[c] = rng.around(0.5f, 0.16f) - 0.5f;
    const float noise = rng.unit() * 0.04f;
    const bool edge = rng.next() % 3 == 0;
    const int cut = int(rng.next() % 7);
    for (int i = 0; i < 16; ++i) {
        const int x = i % 4, y = i / 4, side = edge && x + y > cut ? 1 : 0;
        for (int c = 0; c < 4; ++c) tex[i * 4 + c] = rng.around(base[side][c] + dx[c] * x + dy[c] * y, noise);
        if (!translucent) tex[i * 4 + 3] = 1.0f;
    }
}

// Normal-map-like: unit vectors of a smoothly bent surface, packed to 0..1.
void normals(Lcg& rng, float tex[64]) {
    const float a = rng.around(0.5f, 1.0f) - 0.5f, b = rng.around(0.5f, 1.0f) - 0.5f;
    const float da = (rng.unit() - 0.5f) * 0.3f, db = (rng.unit() - 0.5f) * 0.3f;
    for (int i = 0; i < 16; ++i) {
        const float nx = a + da * float(i % 4), ny = b + db * float(i / 4), nz = 1.0f;
        const float len = std::sqrt(nx * nx + ny * ny + nz * nz);
        tex[i * 4 + 0] = nx / len * 0.5f + 0.5f, tex[i * 4 + 1] = ny / len * 0.5f + 0.5f;
        tex[i * 4 + 2] = nz / len * 0.5f + 0.5f, tex[i * 4 + 3] = 1.0f;
    }
}

// The sets of the decode and quality checks: photo, alpha, normal map, partial edge
// blocks (outside texels hold nonsense), and each mode forced.
std::vector<Sample> sampleSet(uint32_t seed, int perSet) {
    std::vector<Sample> set;
    Lcg rng{seed};
    for (int i = 0; i < perSet * 4 + 8 * 6; ++i) {
        Sample s;
        const int kind = i < perSet * 4 ? i / perSet : 4;
        if (kind == 2) normals(rng, s.tex);
        else photo(rng, s.tex, kind == 1 || (kind == 4 && (i / 8) % 2 == 0));
        if (kind == 3) {
            s.region = uint16_t((1 + rng.next() % 4) | ((1 + rng.next() % 3) << 8));
            for (int t = 0; t < 16; ++t)
                if (t % 4 >= (s.region & 0xFF) || t / 4 >= (s.region >> 8))
                    for (int c = 0; c < 4; ++c) s.tex[t * 4 + c] = rng.unit() * 3.0f - 1.0f;
            s.alphaMatters = i % 2 == 0;
        }
        if (kind == 4) s.forcedMode = (i - perSet * 4) % 8;
        static const char* const kNames[5] = {"photo", "alpha", "normal map", "partial", "forced mode"};
        s.label = std::string(kNames[kind]) + " " + std::to_string(i);
        set.push_back(s);
    }
    return set;
}

// Encodes a sample as the driver or the forced mode does; returns the reported error.
float encode(const Sample& s, uint8_t block[16], BC7Modes::ModeTrace& trace) {
    if (s.forcedMode >= 0) return encodeBC7Mode(s.forcedMode, BC7Modes::makeTile(s.tex, s.region), block);
    encodeBC7BlockExhaustive(s.tex, s.region, s.alphaMatters, block, &trace);
    return trace.modeError[trace.keptMode];
}

double psnr(double squaredError, double samples) {
    return 10.0 * std::log10(255.0 * 255.0 / (squaredError / samples));
}

}  // namespace

// Every block decodes to the error its encoder reports, without a failed check; a forced
// mode writes that mode; the driver keeps the first mode of least error. Pillow agrees.
TEST(BC7ModeBlocks, DecodeToTheirReportedErrorAndAsPillowDoes) {
    RecordingHandler checks;
    std::vector<uint8_t> blocks;
    std::vector<std::string> labels;
    int kept[8] = {};
    for (const Sample& s : sampleSet(11, 56)) {
        uint8_t block[16];
        BC7Modes::ModeTrace trace;
        const float err = encode(s, block, trace);
        const int mode = describeBC7Block(block).mode;
        if (s.forcedMode >= 0) {
            EXPECT_EQ(mode, s.forcedMode) << s.label;
        } else {
            int first = 0;
            for (int m = 1; m < 8; ++m)
                if (trace.modeError[m] < trace.modeError[first]) first = m;
            EXPECT_EQ(trace.keptMode, first) << s.label;
            EXPECT_EQ(mode, first) << s.label;
            ++kept[mode];
        }
        const double decoded = decodedError(block, s.tex, s.region);
        EXPECT_NEAR(decoded, err, 0.01 + 1e-4 * decoded) << s.label;
        blocks.insert(blocks.end(), block, block + 16);
        labels.push_back(s.label);
    }
    EXPECT_EQ(checks.expressions, std::vector<std::string>{}) << testing::PrintToString(checks.files);
    EXPECT_GT(kept[0] + kept[1] + kept[2] + kept[3], 0);  // opaque blocks reach modes 0 to 3
    bc7_test::expectPillowDecodesAsWeDo(blocks, labels);
}

TEST(BC7ModeDriver, AlphaDecidesWhetherModesZeroToThreeAreTried) {
    Lcg rng{5};
    float tex[64];
    photo(rng, tex, false);
    uint8_t block[16];
    BC7Modes::ModeTrace trace;
    encodeBC7BlockExhaustive(tex, 0x0404, true, block, &trace);
    for (int m = 0; m < 8; ++m) EXPECT_LT(trace.modeError[m], FLT_MAX) << "mode " << m;

    tex[5 * 4 + 3] = 0.99f;  // one valid texel not quite opaque
    encodeBC7BlockExhaustive(tex, 0x0404, true, block, &trace);
    for (int m = 0; m < 4; ++m) EXPECT_EQ(trace.modeError[m], FLT_MAX) << "mode " << m;
    for (int m = 4; m < 8; ++m) EXPECT_LT(trace.modeError[m], FLT_MAX) << "mode " << m;
    EXPECT_GE(describeBC7Block(block).mode, 4);

    encodeBC7BlockExhaustive(tex, 0x0404, false, block, &trace);  // alpha does not matter
    for (int m = 0; m < 8; ++m) EXPECT_LT(trace.modeError[m], FLT_MAX) << "mode " << m;
}

TEST(BC7ModeDriver, OneByOneEdgeBlockCountsOnlyItsTexel) {
    float tex[64];
    for (int i = 0; i < 64; ++i) tex[i] = float(i % 7) * 0.3f - 0.4f;  // outside: nonsense, translucent
    tex[0] = 0.2f, tex[1] = 0.6f, tex[2] = 0.9f, tex[3] = 1.0f;
    for (int i = 1; i < 16; ++i) tex[i * 4 + 3] = 0.0f;
    uint8_t block[16];
    BC7Modes::ModeTrace trace;
    encodeBC7BlockExhaustive(tex, 0x0101, true, block, &trace);
    EXPECT_LT(trace.modeError[0], FLT_MAX);  // still opaque: modes 0 to 3 ran
    const float err = trace.modeError[trace.keptMode];
    EXPECT_NEAR(decodedError(block, tex, 0x0101), err, 1e-4);
    EXPECT_EQ(err, 0.25f);  // blue 229.5 is half a step off every code; the rest is exact
    for (int m = 0; m < 8; ++m) {  // each mode's error is that of texel 0 alone
        const float e = encodeBC7Mode(m, BC7Modes::makeTile(tex, 0x0101), block);
        EXPECT_NEAR(decodedError(block, tex, 0x0101), e, 1e-3) << "mode " << m;
    }
}

TEST(BC7ModeDriver, EqualErrorsKeepTheEarlierMode) {
    float tex[64];
    for (int i = 0; i < 64; ++i) tex[i] = 1.0f;  // white: every mode is exact
    uint8_t block[16];
    BC7Modes::ModeTrace trace;
    encodeBC7BlockExhaustive(tex, 0x0404, true, block, &trace);
    for (int m = 0; m < 8; ++m) EXPECT_EQ(trace.modeError[m], 0.0f) << "mode " << m;
    EXPECT_EQ(describeBC7Block(block).mode, 0);

    for (int i = 0; i < 16; ++i) tex[i * 4] = 0.3f, tex[i * 4 + 1] = 0.5f, tex[i * 4 + 2] = 0.7f, tex[i * 4 + 3] = 0.5f;
    encodeBC7BlockExhaustive(tex, 0x0404, true, block, &trace);  // half steps only: 16 x 1.0 in each mode
    for (int m = 4; m < 8; ++m) EXPECT_EQ(trace.modeError[m], 16.0f) << "mode " << m;
    EXPECT_EQ(describeBC7Block(block).mode, 4);
}

// Recorded once from the straightforward implementation: speed work must not change a block.
TEST(BC7ModePinned, FixedBlockSetIsUnchanged) {
    uint64_t hash = 1469598103934665603ull;
    for (const Sample& s : sampleSet(2024, 16)) {
        uint8_t block[16];
        BC7Modes::ModeTrace trace;
        encode(s, block, trace);
        for (uint8_t b : block) hash = (hash ^ b) * 1099511628211ull;
    }
    EXPECT_EQ(hash, 0x801e3bdb9cb3038bull) << std::hex << hash;
}

// The pinned set from an 8-bit source (whole-number tiles, where the endpoint
// searches rule candidates out by lower bounds), recorded from the
// straightforward implementation; and without a trace, when the driver tries
// the modes in another order and drops blocks that cannot win, both sets keep
// their blocks.
TEST(BC7ModePinned, EightBitSourcesAndUntracedDriverKeepTheBlocks) {
    uint64_t hash = 1469598103934665603ull;
    for (const Sample& source : sampleSet(2024, 16)) {
        for (const bool eightBit : {false, true}) {
            Sample s = source;
            if (eightBit)
                for (float& v : s.tex) v = std::round(std::clamp(v, 0.0f, 1.0f) * 255.0f) / 255.0f;
            uint8_t block[16];
            BC7Modes::ModeTrace trace;
            encode(s, block, trace);
            if (eightBit)
                for (uint8_t b : block) hash = (hash ^ b) * 1099511628211ull;
            if (s.forcedMode >= 0) continue;
            uint8_t untraced[16];
            encodeBC7BlockExhaustive(s.tex, s.region, s.alphaMatters, untraced);
            EXPECT_EQ(std::memcmp(block, untraced, 16), 0) << s.label << (eightBit ? ", 8-bit" : "");
        }
    }
    EXPECT_EQ(hash, 0xa7ab059684199a2bull) << std::hex << hash;
}

TEST(BC7ModeQuality, NoWorseThanTheFastEncoderOverall) {
    double exhaustive = 0.0, fast = 0.0, samples = 0.0;
    for (const Sample& s : sampleSet(77, 24)) {
        if (s.forcedMode >= 0) continue;
        uint8_t block[16];
        encodeBC7BlockExhaustive(s.tex, s.region, s.alphaMatters, block);
        exhaustive += decodedError(block, s.tex, s.region);
        encodeBC7BlockFast(s.tex, s.region, s.alphaMatters, block);
        fast += decodedError(block, s.tex, s.region);
        samples += 4.0 * (s.region & 0xFF) * (s.region >> 8);
    }
    std::printf("PSNR over %g samples: exhaustive %.3f dB, fast %.3f dB\n", samples, psnr(exhaustive, samples),
                psnr(fast, samples));
    EXPECT_LE(exhaustive, fast);
}

TEST(BC7ModeChecks, ReportNameTheModeAndQuoteTheTableAccess) {
    RecordingHandler checks;
    const uint8_t* shapes = BC7Modes::kShapes2.data();
    const int x = 3, y = 3, shapeindex = 0, region = 0;  // texel 15 of shape 0 is in region 1
    BC7_MODE_ASSERT(1, REGION(x, y, shapeindex) == region);
    ASSERT_EQ(checks.expressions,
              std::vector<std::string>{"shapes[((shapeindex)&3)*4+((shapeindex)>>2)*64+(x)+(y)*16] == region"});
    EXPECT_EQ(checks.files[0], "bc7_mode1");
    EXPECT_EQ(checks.functions[0], "TestBody");
}
