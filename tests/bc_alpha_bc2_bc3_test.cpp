// BC2 and BC3 through their CPU entries: alpha half first (from the alpha channel), colour
// half second, the high-quality colour fit weighted by the buffer's channel weights, and the
// BC3 alpha half shared by the fast and high-quality forms.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "bc/alpha_block_bc2_bc3.h"
#include "core/cpu_encoders.h"
#include "core/cpu_input_buffer.h"

using namespace glyptora;
using namespace glyptora_dxt;
using namespace glyptora_internal;

namespace {

constexpr int kSize = 12;  // 3x3 tiles
constexpr int kTiles = 9;

std::vector<uint8_t> bytes(const uint8_t* p, int n) { return std::vector<uint8_t>(p, p + n); }

// RGBA with four unrelated channels, so that a block built from the wrong channel shows.
std::vector<uint8_t> testImage(uint32_t seed) {
    std::vector<uint8_t> pixels(kSize * kSize * 4);
    for (int y = 0; y < kSize; ++y)
        for (int x = 0; x < kSize; ++x) {
            uint8_t* p = &pixels[(y * kSize + x) * 4];
            seed = seed * 1664525u + 1013904223u;
            p[0] = uint8_t(20 * x + (seed >> 28));
            p[1] = uint8_t(20 * y + ((seed >> 24) & 15));
            p[2] = uint8_t(200 - 9 * (x + y));
            p[3] = uint8_t((x * 37 + y * 91 + (seed >> 16)) & 0xFF);
        }
    return pixels;
}

struct Encoded {
    std::vector<uint8_t> blocks;
    std::vector<std::vector<uint8_t>> tiles;  // fetched B, G, R, A pixels of every tile
};

Encoded runEntry(void (*entry)(const CPUViewBase&, bool, uint8_t*), const std::vector<uint8_t>& pixels, bool fast,
                 const float weights[3]) {
    ImageRecord record;
    record.data = pixels.data();
    record.width = kSize;
    record.height = kSize;
    CPUInputBuffer input(&record, 1, kValueU8, 4, 4, weights[0], weights[1], weights[2], 1);
    const CPUU8View view = dynamic_cast<const U8TileBuffer*>(input.buffer())->view();
    Encoded e;
    e.blocks.assign(kTiles * 16, 0xCD);
    entry(view, fast, e.blocks.data());
    for (int t = 0; t < kTiles; ++t) {
        e.tiles.emplace_back(64);
        view.fetchBGRA8(uint32_t(t), e.tiles.back().data());
    }
    return e;
}

const float kUnit[3] = {1, 1, 1};
const float kPerceptual[3] = {0.2126f, 0.7152f, 0.0722f};

}  // namespace

TEST(BC2BC3Entries, BC3AlphaHalvesOfFastAndHighQualityAgree) {
    const auto pixels = testImage(3);
    const Encoded fast = runEntry(encodeBC3CPU, pixels, true, kUnit);
    const Encoded hq = runEntry(encodeBC3CPU, pixels, false, kPerceptual);
    int colourDiffers = 0;
    for (int t = 0; t < kTiles; ++t) {
        EXPECT_EQ(bytes(&fast.blocks[16 * t], 8), bytes(&hq.blocks[16 * t], 8)) << "tile " << t;
        colourDiffers += bytes(&fast.blocks[16 * t + 8], 8) != bytes(&hq.blocks[16 * t + 8], 8);
        uint8_t alpha[16], expected[8];
        for (int i = 0; i < 16; ++i) alpha[i] = fast.tiles[t][4 * i + 3];
        encodeInterpolatedBlockFast(alpha, expected);
        EXPECT_EQ(bytes(&fast.blocks[16 * t], 8), bytes(expected, 8)) << "tile " << t;
        encodeColourBlockHighQuality(hq.tiles[t].data(), kPerceptual, expected);
        EXPECT_EQ(bytes(&hq.blocks[16 * t + 8], 8), bytes(expected, 8)) << "tile " << t;
    }
    EXPECT_GT(colourDiffers, 0) << "the two colour fits should not coincide on every tile";
}

// Alpha half from the alpha bytes, colour half from the colour fit; the high-quality fit is
// weighted by the buffer's red, green and blue weights.
TEST(BC2BC3Entries, BC2WritesExplicitAlphaThenWeightedColour) {
    const auto pixels = testImage(4);
    for (bool fast : {true, false}) {
        const Encoded e = runEntry(encodeBC2CPU, pixels, fast, kPerceptual);
        int weightsMatter = 0;
        for (int t = 0; t < kTiles; ++t) {
            uint8_t alpha[16], expectedAlpha[8], expectedColour[8], unweighted[8];
            for (int i = 0; i < 16; ++i) alpha[i] = e.tiles[t][4 * i + 3];
            encodeExplicitAlphaBlock(alpha, expectedAlpha);
            fast ? encodeColourBlockFast(e.tiles[t].data(), expectedColour)
                 : encodeColourBlockHighQuality(e.tiles[t].data(), kPerceptual, expectedColour);
            encodeColourBlockHighQuality(e.tiles[t].data(), kUnit, unweighted);
            EXPECT_EQ(bytes(&e.blocks[16 * t], 8), bytes(expectedAlpha, 8)) << "tile " << t;
            EXPECT_EQ(bytes(&e.blocks[16 * t + 8], 8), bytes(expectedColour, 8)) << "tile " << t;
            weightsMatter += bytes(expectedColour, 8) != bytes(unweighted, 8);
        }
        if (!fast) {
            EXPECT_GT(weightsMatter, 0) << "the image should tell weighted from unweighted fits apart";
        }
    }
}

TEST(BC2BC3Entries, FlatBlockAlphaHalves) {
    // Alpha 128 lies between levels 7 (119) and 8 (136) and goes to the nearer, 8.
    std::vector<uint8_t> pixels(kSize * kSize * 4);
    for (size_t i = 0; i < pixels.size(); i += 4) pixels[i] = 255, pixels[i + 1] = 0, pixels[i + 2] = 0, pixels[i + 3] = 128;
    const Encoded bc2 = runEntry(encodeBC2CPU, pixels, true, kUnit);
    const Encoded bc3 = runEntry(encodeBC3CPU, pixels, true, kUnit);
    for (int t = 0; t < kTiles; ++t) {
        EXPECT_EQ(bytes(&bc2.blocks[16 * t], 8), std::vector<uint8_t>(8, 0x88)) << "tile " << t;
        EXPECT_EQ(bytes(&bc3.blocks[16 * t], 8), (std::vector<uint8_t>{128, 128, 0, 0, 0, 0, 0, 0})) << "tile " << t;
    }
}
