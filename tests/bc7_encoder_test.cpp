// The fast BC7 encoder and the library's BC7 decoder: every mode, shape, rotation and index
// mode checked against our decoder and, when Pillow is available, against Pillow's
// independent decoder; the block driver's rules; the CPU entry and its mode histogram.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "bc7/bc7_cpu.h"
#include "bc7/bc7_decoder.h"
#include "bc7/bc7_fast.h"
#include "bc7/bc7_modes.h"
#include "bc7/bc7_tables.h"
#include "core/cpu_views.h"
#include "bc7_test_support.h"
#include "lcg.h"

using namespace glyptora_bc7;
using bc7_test::decodedError;

namespace {

constexpr uint16_t kFull = 0x0404;

// Noisy colours around a few random anchors, so that indices spread over the palette.
void randomTexels(Lcg& rng, float tex[64], bool translucent) {
    float anchors[3][4];
    for (auto& a : anchors)
        for (float& c : a) c = rng.unit();
    for (int i = 0; i < 16; ++i) {
        const float* a = anchors[rng.next() % 3];
        for (int c = 0; c < 4; ++c) {
            float v = a[c] + (rng.unit() - 0.5f) * 0.3f;
            tex[i * 4 + c] = v < 0.0f ? 0.0f : (v > 1.0f ? 1.0f : v);
        }
        if (!translucent) tex[i * 4 + 3] = 1.0f;
    }
}

// Two colour ramps split down the middle: what the two-subset modes are for.
void twoRamps(float tex[64], float alpha) {
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 4; ++x) {
            float* t = tex + (y * 4 + x) * 4;
            const float s = float(y * 2 + (x & 1)) / 7.0f;
            if (x < 2) {
                t[0] = 0.9f - 0.7f * s, t[1] = 0.1f + 0.6f * s, t[2] = 0.2f;
            } else {
                t[0] = 0.1f, t[1] = 0.3f + 0.2f * s, t[2] = 0.95f - 0.8f * s;
            }
            t[3] = alpha;
        }
}

std::vector<BC7ForcedChoice> everyChoice() {
    std::vector<BC7ForcedChoice> choices;
    for (int mode = 0; mode < 8; ++mode)
        for (int p = 0; p < (mode == 0 ? 16 : mode >= 4 && mode <= 6 ? 1 : 64); ++p)
            for (int r = 0; r < (mode == 4 || mode == 5 ? 4 : 1); ++r)
                for (int im = 0; im < (mode == 4 ? 2 : 1); ++im) choices.push_back({mode, p, r, im});
    return choices;
}

std::string describe(const BC7ForcedChoice& c) {
    return "mode " + std::to_string(c.mode) + " partition " + std::to_string(c.partition) + " rotation " +
           std::to_string(c.rotation) + " index mode " + std::to_string(c.indexMode);
}

// Our decoder's view of an encoded block must match what the encoder meant.
void checkForced(const BC7ForcedChoice& c, const float tex[64], bool translucent, uint8_t block[16]) {
    const float err = encodeBC7BlockForced(tex, kFull, translucent, c, block);
    const BC7BlockInfo info = describeBC7Block(block);
    ASSERT_EQ(info.mode, c.mode) << describe(c);
    EXPECT_EQ(info.partition, c.mode >= 4 && c.mode <= 6 ? info.partition : c.partition) << describe(c);
    EXPECT_EQ(info.rotation, c.mode == 4 || c.mode == 5 ? c.rotation : info.rotation) << describe(c);
    EXPECT_EQ(info.indexMode, c.mode == 4 ? c.indexMode : info.indexMode) << describe(c);
    const double decoded = decodedError(block, tex, kFull);
    EXPECT_NEAR(decoded, err, 0.01 + 1e-4 * decoded) << describe(c);
}

}  // namespace

// Every mode, shape, rotation and index mode, on opaque and (modes 4 to 7) translucent
// texels: our decoder reads back the choice and the error the encoder reports. Then 400
// blocks the driver picks freely: a later step replaces the block only when strictly better,
// so the kept step is the first with the smallest error. All of them must decode in Pillow
// exactly as in our decoder.
TEST(BC7Blocks, ForcedAndDriverBlocksDecodeToTheirOwnErrorAndAsPillowDoes) {
    std::vector<uint8_t> blocks;
    std::vector<std::string> labels;
    Lcg rng{7};
    for (const BC7ForcedChoice& c : everyChoice())
        for (int set = 0; set < 3; ++set) {
            float tex[64];
            const bool translucent = c.mode >= 4 && set != 0;
            randomTexels(rng, tex, translucent);
            uint8_t block[16];
            checkForced(c, tex, translucent, block);
            blocks.insert(blocks.end(), block, block + 16);
            labels.push_back(describe(c) + (translucent ? " translucent" : " opaque"));
        }
    const int stepMode[9] = {6, 1, 3, 7, 0, 2, 5, 4, 4};
    for (int i = 0; i < 400; ++i) {
        float tex[64];
        const bool translucent = i % 3 == 0;
        randomTexels(rng, tex, translucent);
        uint8_t block[16];
        BC7FastTrace trace;
        const float err = encodeBC7BlockFast(tex, kFull, translucent, block, &trace);
        const int first = int(std::min_element(trace.stepError, trace.stepError + 9) - trace.stepError);
        ASSERT_EQ(trace.keptStep, first) << "block " << i;
        EXPECT_EQ(err, trace.stepError[first]);
        const BC7BlockInfo info = describeBC7Block(block);
        EXPECT_EQ(info.mode, stepMode[first]);
        EXPECT_EQ(info.indexMode, first >= 7 ? first - 7 : info.indexMode);
        EXPECT_NEAR(decodedError(block, tex, kFull), err, 0.01 + 1e-4 * err);
        blocks.insert(blocks.end(), block, block + 16);
        labels.push_back("driver block " + std::to_string(i));
    }

    bc7_test::expectPillowDecodesAsWeDo(blocks, labels);
}

TEST(BC7Driver, OpaqueBlocksMayUseEveryModeTranslucentOnesOnlyFourToSeven) {
    float tex[64];
    twoRamps(tex, 1.0f);
    uint8_t block[16];
    BC7FastTrace trace;
    encodeBC7BlockFast(tex, kFull, true, block, &trace);
    EXPECT_LE(unsigned(describeBC7Block(block).mode), 3u);  // 0 to 3
    // Modes 6, 1 and 3 are fitted; the later partitioned modes may be passed
    // over when their modelled error is far above the best so far.
    for (int step = 0; step < 3; ++step) EXPECT_LT(trace.stepError[step], FLT_MAX) << "step " << step;

    tex[5 * 4 + 3] = 0.99f;  // one valid texel not quite opaque
    encodeBC7BlockFast(tex, kFull, true, block, &trace);
    EXPECT_GE(describeBC7Block(block).mode, 4);
    for (int step : {1, 2, 4, 5}) EXPECT_EQ(trace.stepError[step], FLT_MAX) << "step " << step;  // modes 1, 3, 0, 2
    EXPECT_LT(trace.stepError[3], FLT_MAX);                                                      // mode 7 ran

    // Without the alpha flag the same block is opaque, and decodes opaque.
    for (int i = 0; i < 16; ++i) tex[i * 4 + 3] = 0.5f;
    encodeBC7BlockFast(tex, kFull, false, block, &trace);
    EXPECT_LE(describeBC7Block(block).mode, 3);
    uint8_t rgba[64];
    decodeBC7Block(block, rgba);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(rgba[i * 4 + 3], 255);
}

TEST(BC7Driver, ThreeFlatRegionsReachTheThreeSubsetModes) {
    // Three flat colours laid out as three-subset shape 0 (also a mode 0 shape):
    // both three-subset modes model a near-perfect fit and are fitted.
    const float colours[3][3] = {{0.1f, 0.8f, 0.3f}, {0.9f, 0.2f, 0.6f}, {0.4f, 0.55f, 0.95f}};
    float tex[64];
    for (int i = 0; i < 16; ++i) {
        const int s = kPartitions3[0][i];
        for (int c = 0; c < 3; ++c) tex[i * 4 + c] = colours[s][c];
        tex[i * 4 + 3] = 1.0f;
    }
    uint8_t block[16];
    BC7FastTrace trace;
    const float err = encodeBC7BlockFast(tex, kFull, false, block, &trace);
    EXPECT_LT(trace.stepError[4], FLT_MAX);  // mode 0
    EXPECT_LT(trace.stepError[5], FLT_MAX);  // mode 2
    EXPECT_NEAR(decodedError(block, tex, kFull), err, 0.01 + 1e-4 * err);
}

TEST(BC7Driver, TexelsOutsideTheValidRegionPlayNoPart) {
    float tex[64];
    twoRamps(tex, 1.0f);
    for (int i = 12; i < 16; ++i)  // bottom row: invisible, translucent, nonsense colours
        tex[i * 4 + 0] = NAN, tex[i * 4 + 1] = 7.0f, tex[i * 4 + 2] = -3.0f, tex[i * 4 + 3] = 0.0f;
    const uint16_t fourByThree = 0x0304;
    uint8_t block[16], again[16];
    const float err = encodeBC7BlockFast(tex, fourByThree, true, block);
    EXPECT_LE(describeBC7Block(block).mode, 3);  // still opaque
    EXPECT_NEAR(decodedError(block, tex, fourByThree), err, 0.01 + 1e-4 * err);
    for (int i = 12; i < 16; ++i) tex[i * 4 + 1] = 0.25f;  // other nonsense: same verdict
    EXPECT_EQ(encodeBC7BlockFast(tex, fourByThree, true, again), err);
    EXPECT_EQ(describeBC7Block(again).mode, describeBC7Block(block).mode);

    // A 1x1 edge block: only texel 0 counts; the other fifteen are translucent.
    float single[64];
    for (int i = 0; i < 64; ++i) single[i] = (i % 5) * 0.25f;
    single[0] = 0.2f, single[1] = 0.6f, single[2] = 0.9f, single[3] = 1.0f;
    BC7FastTrace trace;
    const float e1 = encodeBC7BlockFast(single, 0x0101, true, block, &trace);
    EXPECT_NEAR(decodedError(block, single, 0x0101), e1, 0.01);
    EXPECT_LE(e1, 3.0f);
    uint8_t rgba[64];
    decodeBC7Block(block, rgba);
    EXPECT_EQ(rgba[3], 255);
    if (e1 > 0.0f) {  // the opaque-only modes ran
        EXPECT_LT(trace.stepError[1], FLT_MAX);
    }
}

TEST(BC7Driver, EqualRotationsKeepTheEarliest) {
    // Grey ramp: exchanging alpha with red, green or blue gives the same problem.
    float tex[64];
    for (int i = 0; i < 16; ++i) {
        const float v = float((i * 7) % 16) / 15.0f * 0.8f + 0.1f;
        tex[i * 4 + 0] = tex[i * 4 + 1] = tex[i * 4 + 2] = v;
        tex[i * 4 + 3] = 1.0f;
    }
    fastenc::Block b;
    fastenc::loadBlock(tex, kFull, true, b);
    fastenc::RotationLanes rl;
    fastenc::buildRotationLanes(b, rl);
    for (int mode = 4; mode <= 5; ++mode) {
        const fastenc::RotationVariant v = fastenc::rotationVariant(mode, 0);
        float errors[4];
        for (int r = 0; r < 4; ++r) {
            float best = FLT_MAX;
            uint8_t block[16];
            errors[r] = fastenc::encodeRotations(b, rl, v, r, best, block);
        }
        ASSERT_EQ(errors[1], errors[2]);
        ASSERT_EQ(errors[1], errors[3]);
        float best = FLT_MAX;
        uint8_t block[16];
        fastenc::encodeRotations(b, rl, v, -1, best, block);
        const int rotation = describeBC7Block(block).rotation;
        EXPECT_EQ(rotation, errors[0] <= errors[1] ? 0 : 1) << "mode " << mode;
    }
}

TEST(BC7Mode6, AlphaExtremesStayExact) {
    float tex[64];
    Lcg rng{3};
    randomTexels(rng, tex, true);
    for (int i : {0, 7, 9, 15}) tex[i * 4 + 3] = i < 8 ? 0.0f : 1.0f;
    uint8_t block[16], rgba[64];
    encodeBC7BlockForced(tex, kFull, true, {6, 0, 0, 0}, block);
    decodeBC7Block(block, rgba);
    for (int i : {0, 7, 9, 15}) EXPECT_EQ(rgba[i * 4 + 3], i < 8 ? 0 : 255) << i;

    // A flat block: the segment is widened by one step either way and still hits the colour.
    for (int i = 0; i < 16; ++i)
        tex[i * 4 + 0] = tex[i * 4 + 1] = tex[i * 4 + 2] = 127.0f / 255.0f, tex[i * 4 + 3] = 1.0f;
    EXPECT_EQ(encodeBC7BlockForced(tex, kFull, true, {6, 0, 0, 0}, block), 0.0f);
}

TEST(BC7CPU, EntryMatchesTheBlockEncoderAndCountsModes) {
    // Three tiles, the last one partial (2 x 3 valid texels).
    std::vector<unsigned char> data(3 * 64);
    Lcg rng{5};
    for (unsigned char& v : data) v = static_cast<unsigned char>(rng.next());
    const glyptora_internal::TileValidRegion regions[3] = {{4, 4}, {4, 4}, {2, 3}};
    glyptora_internal::CPUU8View view;
    view.data = data.data(), view.tileWidth = view.tileHeight = 4, view.tileCount = 3, view.regions = regions;

    std::vector<uint8_t> fast(48), slow(48);
    BC7ModeStats stats;
    encodeBC7CPU(view, true, true, fast.data(), &stats);
    encodeBC7CPU(view, false, true, slow.data());
    EXPECT_EQ(stats.total(), 3u);
    // The fast flag picks the fast block encoder, its absence the search over every mode.
    for (uint32_t t = 0; t < 3; ++t) {
        float tex[64];
        view.fetchFloat(t, tex, false);
        uint8_t block[16];
        encodeBC7BlockFast(tex, view.validRegion(t), true, block);
        EXPECT_EQ(0, std::memcmp(block, &fast[t * 16], 16)) << "tile " << t;
        encodeBC7BlockExhaustive(tex, view.validRegion(t), true, block);
        EXPECT_EQ(0, std::memcmp(block, &slow[t * 16], 16)) << "tile " << t;
    }
    BC7ModeStats again;
    accumulateBC7ModeStats(fast.data(), 3, again);
    for (int m = 0; m < 8; ++m) EXPECT_EQ(again.blocks[m], stats.blocks[m]);
    uint8_t reserved[16] = {};
    accumulateBC7ModeStats(reserved, 1, again);
    EXPECT_EQ(again.reserved, 1u);
    uint8_t rgba[64];
    decodeBC7Block(reserved, rgba);
    for (uint8_t v : rgba) EXPECT_EQ(v, 0);
}
