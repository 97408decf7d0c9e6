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

// Tile 0 of a one-row image of `w` pixels through all three fetches (floats also weighted).
struct Fetched {
    uint8_t u[64];
    int8_t s[64];
    float f[64], weighted[64], inverseRed;
};
template <typename Buffer>
Fetched fetchAll(const void* data, int w, int32_t valueType, float redWeight = 1, float alphaWeight = 1) {
    const ImageRecord r{.data = data, .width = w, .height = 1};
    const CPUInputBuffer input(&r, 1, valueType, 4, 4, redWeight, 1, 1, alphaWeight);
    const auto view = viewOf<Buffer>(input);
    Fetched out;
    view.fetchBGRA8(0, out.u), view.fetchSignedBGRA8(0, out.s);
    view.fetchFloat(0, out.f, false), view.fetchFloat(0, out.weighted, true);
    out.inverseRed = view.inverseWeights[0];
    return out;
}

}  // namespace

TEST(CPUInputBuffer, PartialTilesHaveValidRegionsAndWrapAroundThem) {
    auto pixels = positionImage(5, 3);
    const ImageRecord r{.data = pixels.data(), .width = 5, .height = 3};
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
    auto level0 = positionImage(8, 4, 3), level1 = positionImage(4, 2, 1);
    const ImageRecord records[2] = {{.data = level0.data(), .width = 8, .height = 4, .depth = 3},
                                    {.data = level1.data(), .width = 4, .height = 2}};
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
    const ImageRecord r{.data = planar, .width = 2, .height = 1, .channelOrder = {2, 0, 4, 5}, .interleaved = false};
    CPUInputBuffer input(&r, 1, kValueU8, 4, 4, 1, 1, 1, 1);
    uint8_t bgra[64];
    viewOf<U8TileBuffer>(input).fetchBGRA8(0, bgra);
    EXPECT_EQ(at(bgra, 0), (V{0, 10, 30, 255}));
    EXPECT_EQ(at(bgra, 1), (V{0, 11, 31, 255}));

    const float planarF[4] = {0.25f, 0.5f, 0.75f, 2.0f};  // one pixel, four planes, A <- 1
    const ImageRecord rf{.data = planarF, .width = 1, .height = 1, .channelOrder = {0, 1, 2, 5}, .interleaved = false};
    CPUInputBuffer inputF(&rf, 1, kValueF32, 4, 4, 1, 1, 1, 1);
    float rgba[64];
    viewOf<F32TileBuffer>(inputF).fetchFloat(0, rgba, false);
    EXPECT_EQ(at(rgba, 0), (V{0.25, 0.5, 0.75, 1}));
}

TEST(CPUViews, FetchConversionsOfEveryValueType) {
    // Unsigned source (red weight 0.5, alpha weight 2): floats scale by 1/255, signed bytes
    // are u - 128 but never -128 (so 0 and 1 both give -127).
    const uint8_t pu[16] = {0, 127, 128, 255, 255, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    const Fetched u = fetchAll<U8TileBuffer>(pu, 4, kValueU8, 0.5f, 2);
    EXPECT_FLOAT_EQ(u.inverseRed, 2.0f);
    EXPECT_EQ(u.f[0], 0.0f);
    EXPECT_FLOAT_EQ(u.f[1], 127 * 0.003921569f);
    EXPECT_FLOAT_EQ(u.f[3], 255 * 0.003921569f);
    EXPECT_FLOAT_EQ(u.weighted[4], 255 * 0.003921569f * 0.5f);
    EXPECT_FLOAT_EQ(u.weighted[3], 255 * 0.003921569f * 2.0f);
    EXPECT_EQ(at(u.s, 0), (V{0, -1, -127, 127}));  // 128, 127, 0 (never -128), 255
    EXPECT_EQ(u.s[4 + 0], -127);                   // u = 1

    // Float source at the boundaries: pixel 0 (R=-1, G=0, B=0.5, A=1), pixel 1 (R=2, G=NaN,
    // B=0.998, A=-0.5), fetched in B, G, R, A order; fetchFloat takes them as they are.
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float pf[16] = {-1.0f, 0.0f, 0.5f, 1.0f, 2.0f, nan, 0.998f, -0.5f, 0, 0, 0, 0, 0, 0, 0, 0};
    const Fetched f = fetchAll<F32TileBuffer>(pf, 4, kValueF32);
    EXPECT_EQ(at(f.u, 0), (V{128, 0, 0, 255}));
    EXPECT_EQ(at(f.u, 1), (V{254, 0, 255, 0}));
    EXPECT_EQ(at(f.s, 0), (V{64, 0, -127, 127}));  // floor(0.5 * 127 + 0.5)
    EXPECT_EQ(at(f.s, 1), (V{127, 0, 127, -63}));  // floor(-63.5 + 0.5)
    EXPECT_EQ(f.f[4], 2.0f);
    EXPECT_TRUE(std::isnan(f.f[5]));

    // Signed source: signed bytes copied as they are (-128 too), unsigned s + 128, floats s / 127 with -128 at -1.
    const int8_t ps[8] = {-128, -127, 0, 127, 1, -1, 64, -64};
    const Fetched s = fetchAll<S8TileBuffer>(ps, 2, kValueS8);
    EXPECT_EQ(at(s.s, 0), (V{0, -127, -128, 127}));
    EXPECT_EQ(at(s.u, 0), (V{128, 1, 0, 255}));
    EXPECT_EQ(at(s.f, 0), (V{-1, -1, 0, 1}));
}

TEST(CPUInputBuffer, UnknownValueTypeOrBadTileSizeLeavesItEmpty) {
    auto pixels = positionImage(4, 4);
    const ImageRecord r{.data = pixels.data(), .width = 4, .height = 4};
    CPUInputBuffer unknown(&r, 1, 7, 4, 4, 1, 1, 1, 1);
    EXPECT_EQ(unknown.buffer(), nullptr);
    EXPECT_EQ(unknown.tileCount(), 0u);
    CPUInputBuffer zeroTile(&r, 1, kValueU8, 0, 4, 1, 1, 1, 1);
    EXPECT_EQ(zeroTile.buffer(), nullptr);
}

// Every pixel of every tile, full tiles (one swizzled copy) and partial ones (wrapped), against
// the source, for the encoders' 4x4 tiles and for 6x5 ones.
TEST(CPUInputBuffer, LargeImageFilledInParallelMatchesTheSource) {
    const int w = 67, h = 45;
    std::vector<uint8_t> pixels(size_t(w) * h * 4);
    for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = uint8_t(i * 31 + 7);
    const ImageRecord r{.data = pixels.data(), .width = w, .height = h};
    for (const auto& [tw, th] : {std::pair{4, 4}, std::pair{6, 5}}) {
        CPUInputBuffer input(&r, 1, kValueU8, tw, th, 1, 1, 1, 1);
        CPUU8View view = viewOf<U8TileBuffer>(input);
        const int tilesPerRow = (w + tw - 1) / tw;
        ASSERT_EQ(view.tileCount, uint32_t(tilesPerRow * ((h + th - 1) / th)));
        uint8_t bgra[6 * 5 * 4];
        for (uint32_t t = 0; t < view.tileCount; ++t) {
            view.fetchBGRA8(t, bgra);
            const int tx = int(t) % tilesPerRow, ty = int(t) / tilesPerRow;
            const int vw = std::min(tw, w - tx * tw), vh = std::min(th, h - ty * th);
            for (int i = 0; i < tw * th; ++i) {
                const uint8_t* src = &pixels[(size_t(ty * th + i / tw % vh) * w + size_t(tx * tw + i % tw % vw)) * 4];
                ASSERT_EQ(at(bgra, i), (V{double(src[2]), double(src[1]), double(src[0]), double(src[3])}))
                    << tw << "x" << th << " tile " << t << " pixel " << i;
            }
        }
    }
}
