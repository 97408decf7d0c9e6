#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "core/cpu_input_buffer.h"

using namespace glyptora;
using namespace glyptora_internal;

namespace {

ImageRecord record(const void* data, int w, int h, int d = 1) {
    ImageRecord r;
    r.data = data;
    r.width = w;
    r.height = h;
    r.depth = d;
    return r;
}

// Pixel (x, y) of a w-wide RGBA8 image encodes its position so that fetches can be traced back.
std::vector<uint8_t> positionImage(int w, int h, int d = 1) {
    std::vector<uint8_t> p(size_t(w) * h * d * 4);
    for (int z = 0; z < d; ++z)
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                uint8_t* px = &p[((size_t(z) * h + y) * w + x) * 4];
                px[0] = uint8_t(x);
                px[1] = uint8_t(y);
                px[2] = uint8_t(z);
                px[3] = uint8_t(200 + x);
            }
    return p;
}

}  // namespace

TEST(CPUInputBuffer, FiveByThreeGivesTwoTilesWithTheirValidRegions) {
    auto pixels = positionImage(5, 3);
    ImageRecord r = record(pixels.data(), 5, 3);
    uint32_t perImage = 0;
    CPUInputBuffer input(&r, 1, kValueU8, 4, 4, 1, 1, 1, 1, nullptr, &perImage);
    ASSERT_NE(input.buffer(), nullptr);
    EXPECT_EQ(input.tileCount(), 2u);
    EXPECT_EQ(perImage, 2u);
    const auto* u8 = dynamic_cast<const U8TileBuffer*>(input.buffer());
    ASSERT_NE(u8, nullptr);
    CPUU8View view = u8->view();
    EXPECT_EQ(view.validRegion(0), 4 | (3 << 8));
    EXPECT_EQ(view.validRegion(1), 1 | (3 << 8));
}

TEST(CPUInputBuffer, PartialTilesWrapAroundTheValidRegion) {
    auto pixels = positionImage(5, 3);
    ImageRecord r = record(pixels.data(), 5, 3);
    CPUInputBuffer input(&r, 1, kValueU8, 4, 4, 1, 1, 1, 1);
    CPUU8View view = dynamic_cast<const U8TileBuffer*>(input.buffer())->view();
    uint8_t bgra[64];
    view.fetchBGRA8(0, bgra);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 4; ++x) {
            EXPECT_EQ(bgra[(y * 4 + x) * 4 + 2], x);      // red holds x, moved to byte 2
            EXPECT_EQ(bgra[(y * 4 + x) * 4 + 1], y % 3);  // row 3 wraps to row 0
        }
    view.fetchBGRA8(1, bgra);  // one valid column: every pixel reads column 4
    for (int i = 0; i < 16; ++i) {
        EXPECT_EQ(bgra[i * 4 + 2], 4);
        EXPECT_EQ(bgra[i * 4 + 1], (i / 4) % 3);
        EXPECT_EQ(bgra[i * 4 + 3], 204);
    }
}

TEST(CPUInputBuffer, VolumeSlicesAndMipLevelsFollowEachOther) {
    auto level0 = positionImage(8, 4, 3);
    auto level1 = positionImage(4, 2, 1);
    ImageRecord records[2] = {record(level0.data(), 8, 4, 3), record(level1.data(), 4, 2, 1)};
    uint32_t perImage[2] = {};
    CPUInputBuffer input(records, 2, kValueU8, 4, 4, 1, 1, 1, 1, nullptr, perImage);
    EXPECT_EQ(perImage[0], 6u);  // 2 tiles per slice, 3 slices
    EXPECT_EQ(perImage[1], 1u);
    CPUU8View view = dynamic_cast<const U8TileBuffer*>(input.buffer())->view();
    uint8_t bgra[64];
    view.fetchBGRA8(5, bgra);  // slice 2, second tile of the row
    EXPECT_EQ(bgra[2], 4);
    EXPECT_EQ(bgra[0], 2);
    view.fetchBGRA8(6, bgra);  // first tile of level 1
    EXPECT_EQ(view.validRegion(6), 4 | (2 << 8));
    EXPECT_EQ(bgra[0], 0);
}

TEST(CPUInputBuffer, ChannelOrderAndPlanarSources) {
    // Planar 2x1 image: plane of R, plane of G, plane of B, plane of A.
    const uint8_t planar[8] = {10, 11, 20, 21, 30, 31, 40, 41};
    ImageRecord r = record(planar, 2, 1);
    r.interleaved = false;
    r.channelOrder[0] = 2;  // R <- B
    r.channelOrder[1] = 0;  // G <- R
    r.channelOrder[2] = 4;  // B <- 0
    r.channelOrder[3] = 5;  // A <- 1
    CPUInputBuffer input(&r, 1, kValueU8, 4, 4, 1, 1, 1, 1);
    CPUU8View view = dynamic_cast<const U8TileBuffer*>(input.buffer())->view();
    uint8_t bgra[64];
    view.fetchBGRA8(0, bgra);
    EXPECT_EQ(bgra[2], 30);
    EXPECT_EQ(bgra[1], 10);
    EXPECT_EQ(bgra[0], 0);
    EXPECT_EQ(bgra[3], 255);
    EXPECT_EQ(bgra[4 + 2], 31);
    EXPECT_EQ(bgra[4 + 1], 11);

    const float planarF[4] = {0.25f, 0.5f, 0.75f, 2.0f};
    ImageRecord rf = record(planarF, 1, 1);
    rf.interleaved = false;
    rf.channelCount = 4;
    rf.channelOrder[3] = 5;
    CPUInputBuffer inputF(&rf, 1, kValueF32, 4, 4, 1, 1, 1, 1);
    CPUF32View viewF = dynamic_cast<const F32TileBuffer*>(inputF.buffer())->view();
    float rgba[64];
    viewF.fetchFloat(0, rgba, false);
    EXPECT_EQ(rgba[0], 0.25f);
    EXPECT_EQ(rgba[2], 0.75f);
    EXPECT_EQ(rgba[3], 1.0f);
}

TEST(CPUViews, UnsignedFetchConversions) {
    const uint8_t px[4 * 4] = {0, 127, 128, 255, 255, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    ImageRecord r = record(px, 4, 1);
    CPUInputBuffer input(&r, 1, kValueU8, 4, 4, 0.5f, 1, 1, 2);
    CPUU8View view = dynamic_cast<const U8TileBuffer*>(input.buffer())->view();
    EXPECT_FLOAT_EQ(view.inverseWeights[0], 2.0f);
    float f[64];
    view.fetchFloat(0, f, false);
    EXPECT_EQ(f[0], 0.0f);
    EXPECT_FLOAT_EQ(f[1], 127 * 0.003921569f);
    EXPECT_FLOAT_EQ(f[3], 255 * 0.003921569f);
    view.fetchFloat(0, f, true);
    EXPECT_FLOAT_EQ(f[4], 255 * 0.003921569f * 0.5f);
    EXPECT_FLOAT_EQ(f[3], 255 * 0.003921569f * 2.0f);
    int8_t s[64];
    view.fetchSignedBGRA8(0, s);
    EXPECT_EQ(s[2], -127);  // u = 0 never becomes -128
    EXPECT_EQ(s[1], -1);    // 127
    EXPECT_EQ(s[0], 0);     // 128
    EXPECT_EQ(s[3], 127);   // 255
    EXPECT_EQ(s[4 + 0], -127);  // u = 1
}

TEST(CPUViews, FloatFetchConversionsAtTheirBoundaries) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float px[16] = {-1.0f, 0.0f, 0.5f, 1.0f, 2.0f, nan, 0.998f, -0.5f,
                          0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f};
    ImageRecord r = record(px, 4, 1);
    CPUInputBuffer input(&r, 1, kValueF32, 4, 4, 1, 1, 1, 1);
    CPUF32View view = dynamic_cast<const F32TileBuffer*>(input.buffer())->view();
    uint8_t u[64];
    view.fetchBGRA8(0, u);
    // Pixel 0 (R=-1, G=0, B=0.5, A=1) in B, G, R, A order.
    EXPECT_EQ(u[0], 128);
    EXPECT_EQ(u[1], 0);
    EXPECT_EQ(u[2], 0);
    EXPECT_EQ(u[3], 255);
    // Pixel 1 (R=2, G=NaN, B=0.998, A=-0.5).
    EXPECT_EQ(u[4 + 2], 255);
    EXPECT_EQ(u[4 + 1], 0);
    EXPECT_EQ(u[4 + 0], 254);
    EXPECT_EQ(u[4 + 3], 0);
    int8_t s[64];
    view.fetchSignedBGRA8(0, s);
    EXPECT_EQ(s[2], -127);
    EXPECT_EQ(s[1], 0);
    EXPECT_EQ(s[0], 64);  // floor(0.5 * 127 + 0.5)
    EXPECT_EQ(s[3], 127);
    EXPECT_EQ(s[4 + 2], 127);
    EXPECT_EQ(s[4 + 1], 0);
    EXPECT_EQ(s[4 + 3], -63);  // floor(-63.5 + 0.5)
    float f[64];
    view.fetchFloat(0, f, false);
    EXPECT_EQ(f[4], 2.0f);  // taken as they are
    EXPECT_TRUE(std::isnan(f[5]));
}

TEST(CPUViews, SignedSourceFetchConversions) {
    const int8_t px[8] = {-128, -127, 0, 127, 1, -1, 64, -64};
    ImageRecord r = record(px, 2, 1);
    CPUInputBuffer input(&r, 1, kValueS8, 4, 4, 1, 1, 1, 1);
    CPUS8View view = dynamic_cast<const S8TileBuffer*>(input.buffer())->view();
    int8_t s[64];
    view.fetchSignedBGRA8(0, s);
    EXPECT_EQ(s[2], -128);  // copied as they are
    EXPECT_EQ(s[3], 127);
    uint8_t u[64];
    view.fetchBGRA8(0, u);
    EXPECT_EQ(u[2], 0);
    EXPECT_EQ(u[1], 1);
    EXPECT_EQ(u[0], 128);
    EXPECT_EQ(u[3], 255);
    float f[64];
    view.fetchFloat(0, f, false);
    EXPECT_EQ(f[0], -1.0f);
    EXPECT_EQ(f[1], -1.0f);
    EXPECT_EQ(f[3], 1.0f);
}

TEST(CPUInputBuffer, UnknownValueTypeOrBadTileSizeLeavesItEmpty) {
    auto pixels = positionImage(4, 4);
    ImageRecord r = record(pixels.data(), 4, 4);
    CPUInputBuffer unknown(&r, 1, 7, 4, 4, 1, 1, 1, 1);
    EXPECT_EQ(unknown.buffer(), nullptr);
    EXPECT_EQ(unknown.tileCount(), 0u);
    CPUInputBuffer zeroTile(&r, 1, kValueU8, 0, 4, 1, 1, 1, 1);
    EXPECT_EQ(zeroTile.buffer(), nullptr);
}

TEST(CPUInputBuffer, LargeImageFilledInParallelMatchesTheSource) {
    const int w = 67, h = 45;
    std::vector<uint8_t> pixels(size_t(w) * h * 4);
    for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = uint8_t(i * 31 + 7);
    ImageRecord r = record(pixels.data(), w, h);
    CPUInputBuffer input(&r, 1, kValueU8, 6, 5, 1, 1, 1, 1);
    CPUU8View view = dynamic_cast<const U8TileBuffer*>(input.buffer())->view();
    const int tilesPerRow = (w + 5) / 6;
    ASSERT_EQ(view.tileCount, uint32_t(tilesPerRow * 9));
    uint8_t bgra[6 * 5 * 4];
    for (uint32_t t = 0; t < view.tileCount; ++t) {
        view.fetchBGRA8(t, bgra);
        const int tx = int(t) % tilesPerRow, ty = int(t) / tilesPerRow;
        const int vw = std::min(6, w - tx * 6), vh = std::min(5, h - ty * 5);
        for (int y = 0; y < 5; ++y)
            for (int x = 0; x < 6; ++x) {
                const uint8_t* src = &pixels[((size_t(ty * 5 + y % vh)) * w + size_t(tx * 6 + x % vw)) * 4];
                const uint8_t* got = &bgra[(y * 6 + x) * 4];
                ASSERT_EQ(got[0], src[2]);
                ASSERT_EQ(got[2], src[0]);
                ASSERT_EQ(got[3], src[3]);
            }
    }
}
