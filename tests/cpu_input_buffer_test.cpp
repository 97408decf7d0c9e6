// The tiled input buffer: tile counts and valid regions, wrapping of partial tiles, volumes and
// mip levels, channel orders and planar sources, and the value conversions of the three fetches.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
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

// Pixel (x, y, z) of a w-wide RGBA8 image holds (x, y, z, 200 + x), so that fetches can be traced back.
std::vector<uint8_t> positionImage(int w, int h, int d = 1) {
    std::vector<uint8_t> p(size_t(w) * h * d * 4);
    for (size_t i = 0; i < p.size() / 4; ++i) {
        const int x = int(i % w), y = int(i / w % h), z = int(i / w / h);
        p[4 * i] = uint8_t(x), p[4 * i + 1] = uint8_t(y), p[4 * i + 2] = uint8_t(z), p[4 * i + 3] = uint8_t(200 + x);
    }
    return p;
}

// The four channels of pixel i of a fetched tile, as they are stored there.
template <typename T>
std::vector<double> at(const T* tile, int i) {
    return {double(tile[4 * i]), double(tile[4 * i + 1]), double(tile[4 * i + 2]), double(tile[4 * i + 3])};
}
using V = std::vector<double>;

template <typename Buffer>
auto viewOf(const CPUInputBuffer& input) {
    return dynamic_cast<const Buffer*>(input.buffer())->view();
}

}  // namespace

TEST(CPUInputBuffer, PartialTilesHaveValidRegionsAndWrapAroundThem) {
    auto pixels = positionImage(5, 3);
    ImageRecord r = record(pixels.data(), 5, 3);
    uint32_t perImage = 0;
    CPUInputBuffer input(&r, 1, kValueU8, 4, 4, 1, 1, 1, 1, nullptr, &perImage);
    ASSERT_NE(dynamic_cast<const U8TileBuffer*>(input.buffer()), nullptr);
    EXPECT_EQ(input.tileCount(), 2u);
    EXPECT_EQ(perImage, 2u);
    CPUU8View view = viewOf<U8TileBuffer>(input);
    EXPECT_EQ(view.validRegion(0), 4 | (3 << 8));
    EXPECT_EQ(view.validRegion(1), 1 | (3 << 8));
    uint8_t bgra[64];
    view.fetchBGRA8(0, bgra);  // red holds x, moved to byte 2; row 3 wraps to row 0
    for (int i = 0; i < 16; ++i) EXPECT_EQ(at(bgra, i), (V{0, double(i / 4 % 3), double(i % 4), 200.0 + i % 4})) << i;
    view.fetchBGRA8(1, bgra);  // one valid column: every pixel reads column 4
    for (int i = 0; i < 16; ++i) EXPECT_EQ(at(bgra, i), (V{0, double(i / 4 % 3), 4, 204})) << i;
}

TEST(CPUInputBuffer, VolumeSlicesAndMipLevelsFollowEachOther) {
    auto level0 = positionImage(8, 4, 3);
    auto level1 = positionImage(4, 2, 1);
    ImageRecord records[2] = {record(level0.data(), 8, 4, 3), record(level1.data(), 4, 2, 1)};
    uint32_t perImage[2] = {};
    CPUInputBuffer input(records, 2, kValueU8, 4, 4, 1, 1, 1, 1, nullptr, perImage);
    EXPECT_EQ(perImage[0], 6u);  // 2 tiles per slice, 3 slices
    EXPECT_EQ(perImage[1], 1u);
    CPUU8View view = viewOf<U8TileBuffer>(input);
    uint8_t bgra[64];
    view.fetchBGRA8(5, bgra);  // slice 2, second tile of the row
    EXPECT_EQ(at(bgra, 0), (V{2, 0, 4, 204}));
    view.fetchBGRA8(6, bgra);  // first tile of level 1
    EXPECT_EQ(view.validRegion(6), 4 | (2 << 8));
    EXPECT_EQ(at(bgra, 0), (V{0, 0, 0, 200}));
}

TEST(CPUInputBuffer, ChannelOrderAndPlanarSources) {
    // Planar 2x1 image: plane of R, plane of G, plane of B, plane of A; R <- B, G <- R, B <- 0, A <- 1.
    const uint8_t planar[8] = {10, 11, 20, 21, 30, 31, 40, 41};
    ImageRecord r = record(planar, 2, 1);
    r.interleaved = false;
    r.channelOrder[0] = 2, r.channelOrder[1] = 0, r.channelOrder[2] = 4, r.channelOrder[3] = 5;
    CPUInputBuffer input(&r, 1, kValueU8, 4, 4, 1, 1, 1, 1);
    uint8_t bgra[64];
    viewOf<U8TileBuffer>(input).fetchBGRA8(0, bgra);
    EXPECT_EQ(at(bgra, 0), (V{0, 10, 30, 255}));
    EXPECT_EQ(at(bgra, 1), (V{0, 11, 31, 255}));

    const float planarF[4] = {0.25f, 0.5f, 0.75f, 2.0f};  // one pixel, four planes, A <- 1
    ImageRecord rf = record(planarF, 1, 1);
    rf.interleaved = false;
    rf.channelCount = 4;
    rf.channelOrder[3] = 5;
    CPUInputBuffer inputF(&rf, 1, kValueF32, 4, 4, 1, 1, 1, 1);
    float rgba[64];
    viewOf<F32TileBuffer>(inputF).fetchFloat(0, rgba, false);
    EXPECT_EQ(at(rgba, 0), (V{0.25, 0.5, 0.75, 1}));
}

TEST(CPUViews, UnsignedFetchConversions) {
    const uint8_t px[4 * 4] = {0, 127, 128, 255, 255, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    ImageRecord r = record(px, 4, 1);
    CPUInputBuffer input(&r, 1, kValueU8, 4, 4, 0.5f, 1, 1, 2);
    CPUU8View view = viewOf<U8TileBuffer>(input);
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
    EXPECT_EQ(at(s, 0), (V{0, -1, -127, 127}));  // 128, 127, 0 (never -128), 255
    EXPECT_EQ(s[4 + 0], -127);                   // u = 1
}

TEST(CPUViews, FloatFetchConversionsAtTheirBoundaries) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float px[16] = {-1.0f, 0.0f, 0.5f, 1.0f, 2.0f, nan, 0.998f, -0.5f, 0, 0, 0, 0, 0, 0, 0, 0};
    ImageRecord r = record(px, 4, 1);
    CPUInputBuffer input(&r, 1, kValueF32, 4, 4, 1, 1, 1, 1);
    CPUF32View view = viewOf<F32TileBuffer>(input);
    uint8_t u[64];
    int8_t s[64];
    float f[64];
    view.fetchBGRA8(0, u);
    view.fetchSignedBGRA8(0, s);
    view.fetchFloat(0, f, false);
    // Pixel 0 (R=-1, G=0, B=0.5, A=1) and pixel 1 (R=2, G=NaN, B=0.998, A=-0.5) in B, G, R, A order.
    EXPECT_EQ(at(u, 0), (V{128, 0, 0, 255}));
    EXPECT_EQ(at(u, 1), (V{254, 0, 255, 0}));
    EXPECT_EQ(at(s, 0), (V{64, 0, -127, 127}));  // floor(0.5 * 127 + 0.5)
    EXPECT_EQ(at(s, 1), (V{127, 0, 127, -63}));  // floor(-63.5 + 0.5)
    EXPECT_EQ(f[4], 2.0f);  // taken as they are
    EXPECT_TRUE(std::isnan(f[5]));
}

TEST(CPUViews, SignedSourceFetchConversions) {
    const int8_t px[8] = {-128, -127, 0, 127, 1, -1, 64, -64};
    ImageRecord r = record(px, 2, 1);
    CPUInputBuffer input(&r, 1, kValueS8, 4, 4, 1, 1, 1, 1);
    CPUS8View view = viewOf<S8TileBuffer>(input);
    int8_t s[64];
    uint8_t u[64];
    float f[64];
    view.fetchSignedBGRA8(0, s);
    view.fetchBGRA8(0, u);
    view.fetchFloat(0, f, false);
    EXPECT_EQ(at(s, 0), (V{0, -127, -128, 127}));  // copied as they are
    EXPECT_EQ(at(u, 0), (V{128, 1, 0, 255}));
    EXPECT_EQ(at(f, 0), (V{-1, -1, 0, 1}));
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
    CPUU8View view = viewOf<U8TileBuffer>(input);
    const int tilesPerRow = (w + 5) / 6;
    ASSERT_EQ(view.tileCount, uint32_t(tilesPerRow * 9));
    uint8_t bgra[6 * 5 * 4];
    for (uint32_t t = 0; t < view.tileCount; ++t) {
        view.fetchBGRA8(t, bgra);
        const int tx = int(t) % tilesPerRow, ty = int(t) / tilesPerRow;
        const int vw = std::min(6, w - tx * 6), vh = std::min(5, h - ty * 5);
        for (int i = 0; i < 30; ++i) {
            const uint8_t* src = &pixels[((size_t(ty * 5 + i / 6 % vh)) * w + size_t(tx * 6 + i % 6 % vw)) * 4];
            ASSERT_EQ(at(bgra, i), (V{double(src[2]), double(src[1]), double(src[0]), double(src[3])})) << t << " " << i;
        }
    }
}
