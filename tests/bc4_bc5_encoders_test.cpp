// BC4, BC4S, BC5 and BC5S: signed edge cases of the block encoders, and the CPU entries over
// tiled input buffers (channel choice, signed fetch, independent BC5 halves).
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "bc/alpha_block_formats.h"
#include "bc/alpha_decoders.h"
#include "core/cpu_encoders.h"
#include "core/cpu_input_buffer.h"

using namespace glyptora;
using namespace glyptora_dxt;
using namespace glyptora_internal;

namespace {

const float kUnitWeights[16] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};

std::vector<uint8_t> bytes(const uint8_t* p, int n) { return std::vector<uint8_t>(p, p + n); }

struct SignedBlocks {
    uint8_t fast[8], hq[8];
    int8_t fastDecoded[16], hqDecoded[16];
};

SignedBlocks encodeSignedBoth(const int8_t values[16]) {
    SignedBlocks b;
    encodeSignedInterpolatedBlockFast(values, b.fast);
    encodeSignedInterpolatedBlockHighQuality(values, kUnitWeights, b.hq);
    decodeSignedInterpolatedBlock(b.fast, b.fastDecoded);
    decodeSignedInterpolatedBlock(b.hq, b.hqDecoded);
    return b;
}

// An 8x8 RGBA image (four 4x4 tiles) of pseudo-random smooth-ish content.
template <typename T>
std::vector<T> testImage(uint32_t seed, int lowest, int highest) {
    std::vector<T> pixels(8 * 8 * 4);
    for (size_t i = 0; i < pixels.size(); ++i) {
        seed = seed * 1664525u + 1013904223u;
        const int span = highest - lowest + 1;
        const int smooth = int((i / 4) % 8) * span / 10 + int((seed >> 24) % 48);
        pixels[i] = T(lowest + smooth % span);
    }
    return pixels;
}

template <typename T>
std::vector<T> swapRedGreen(std::vector<T> pixels) {
    for (size_t i = 0; i < pixels.size(); i += 4) std::swap(pixels[i], pixels[i + 1]);
    return pixels;
}

// Runs a CPU entry over an 8x8 image of the given value type.
std::vector<uint8_t> runEntry(void (*entry)(const CPUViewBase&, bool, uint8_t*), const void* pixels,
                              int32_t valueType, bool fast, int blockBytes) {
    ImageRecord record;
    record.data = pixels;
    record.width = 8;
    record.height = 8;
    CPUInputBuffer input(&record, 1, valueType, 4, 4, 1, 1, 1, 1);
    std::vector<uint8_t> out(4 * blockBytes, 0xCD);
    if (auto* u8 = dynamic_cast<const U8TileBuffer*>(input.buffer())) entry(u8->view(), fast, out.data());
    if (auto* s8 = dynamic_cast<const S8TileBuffer*>(input.buffer())) entry(s8->view(), fast, out.data());
    if (auto* f32 = dynamic_cast<const F32TileBuffer*>(input.buffer())) entry(f32->view(), fast, out.data());
    return out;
}

}  // namespace

// --- Signed blocks ----------------------------------------------------------------------------

TEST(SignedInterpolatedBlock, ConstantTopValueInBothPaths) {
    int8_t values[16];
    std::memset(values, 127, 16);
    const SignedBlocks b = encodeSignedBoth(values);
    const std::vector<uint8_t> expected{127, 127, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(bytes(b.fast, 8), expected);
    EXPECT_EQ(bytes(b.hq, 8), expected);
}

TEST(SignedInterpolatedBlock, MinusOneTwentyEightIsApproximatedByMinusOneTwentySeven) {
    int8_t values[16];
    std::memset(values, -128, 16);
    SignedBlocks b = encodeSignedBoth(values);
    // Both paths write (-127, -128) with every pixel on the -128 endpoint (index 1).
    const std::vector<uint8_t> expected{0x81, 0x80, 0x49, 0x92, 0x24, 0x49, 0x92, 0x24};
    EXPECT_EQ(bytes(b.fast, 8), expected);
    EXPECT_EQ(bytes(b.hq, 8), expected);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(b.fastDecoded[i], -127) << i;

    // -128 next to 127: no inner values, so the search is skipped for the pair (127, -127).
    for (int i = 0; i < 16; ++i) values[i] = int8_t(i % 3 ? -128 : 127);
    b = encodeSignedBoth(values);
    EXPECT_EQ(int8_t(b.hq[0]), 127);
    EXPECT_EQ(int8_t(b.hq[1]), -127);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(b.hqDecoded[i], i % 3 ? -127 : 127) << i;
}

TEST(SignedInterpolatedBlock, SmallRangeStoresMaxAndMinWithoutSearch) {
    // Truncation toward zero makes the (2, -5) palette {2, -5, 1, 0, 0, -1, -2, -3}: -4 is
    // missed (it ties between -5 and -3 and takes the lower index, -5), yet a range below 8
    // keeps (max, min) without searching for a better pair.
    const int8_t values[16] = {-5, -4, -3, -2, -1, 0, 1, 2, -5, 2, -5, 2, 0, 0, 0, 0};
    const SignedBlocks b = encodeSignedBoth(values);
    EXPECT_EQ(int8_t(b.hq[0]), 2);
    EXPECT_EQ(int8_t(b.hq[1]), -5);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(b.hqDecoded[i], values[i] == -4 ? -5 : values[i]) << i;
}

// --- CPU entries ------------------------------------------------------------------------------

TEST(BC4BC5Entries, SwappingRedAndGreenSwapsTheBC5Halves) {
    const auto u8 = testImage<uint8_t>(11, 0, 255);
    const auto u8Swapped = swapRedGreen(u8);
    const auto s8 = testImage<int8_t>(12, -128, 127);
    const auto s8Swapped = swapRedGreen(s8);
    for (bool fast : {true, false}) {
        const auto a = runEntry(encodeBC5CPU, u8.data(), kValueU8, fast, 16);
        const auto b = runEntry(encodeBC5CPU, u8Swapped.data(), kValueU8, fast, 16);
        const auto c = runEntry(encodeBC5SCPU, s8.data(), kValueS8, fast, 16);
        const auto d = runEntry(encodeBC5SCPU, s8Swapped.data(), kValueS8, fast, 16);
        for (int t = 0; t < 4; ++t) {
            EXPECT_EQ(bytes(&a[16 * t], 8), bytes(&b[16 * t + 8], 8)) << "tile " << t << " fast " << fast;
            EXPECT_EQ(bytes(&a[16 * t + 8], 8), bytes(&b[16 * t], 8)) << "tile " << t << " fast " << fast;
            EXPECT_EQ(bytes(&c[16 * t], 8), bytes(&d[16 * t + 8], 8)) << "tile " << t << " fast " << fast;
            EXPECT_EQ(bytes(&c[16 * t + 8], 8), bytes(&d[16 * t], 8)) << "tile " << t << " fast " << fast;
            EXPECT_NE(bytes(&a[16 * t], 8), bytes(&a[16 * t + 8], 8)) << "red and green should differ";
        }
    }
}

TEST(BC4BC5Entries, BC4EncodesRedLikeTheFirstBC5Half) {
    const auto u8 = testImage<uint8_t>(21, 0, 255);
    const auto s8 = testImage<int8_t>(22, -128, 127);
    for (bool fast : {true, false}) {
        const auto bc4 = runEntry(encodeBC4CPU, u8.data(), kValueU8, fast, 8);
        const auto bc5 = runEntry(encodeBC5CPU, u8.data(), kValueU8, fast, 16);
        const auto bc4s = runEntry(encodeBC4SCPU, s8.data(), kValueS8, fast, 8);
        const auto bc5s = runEntry(encodeBC5SCPU, s8.data(), kValueS8, fast, 16);
        for (int t = 0; t < 4; ++t) {
            EXPECT_EQ(bytes(&bc4[8 * t], 8), bytes(&bc5[16 * t], 8)) << "tile " << t;
            EXPECT_EQ(bytes(&bc4s[8 * t], 8), bytes(&bc5s[16 * t], 8)) << "tile " << t;
        }
        uint8_t red[16], block[8];  // tile 0 of the red channel, fetched by hand
        for (int i = 0; i < 16; ++i) red[i] = u8[((i / 4) * 8 + i % 4) * 4 + 0];
        fast ? encodeInterpolatedBlockFast(red, block) : encodeInterpolatedBlockHighQuality(red, kUnitWeights, block);
        EXPECT_EQ(bytes(bc4.data(), 8), bytes(block, 8));
    }
}

TEST(BC4BC5Entries, SignedEntriesReadThroughTheSignedView) {
    // Unsigned 0 becomes -127 and float -1.0 becomes -127: a flat block at the bottom.
    std::vector<uint8_t> zeros(8 * 8 * 4, 0);
    std::vector<float> minusOnes(8 * 8 * 4, -1.0f);
    const std::vector<uint8_t> bottom{0x81, 0x81, 0, 0, 0, 0, 0, 0};
    for (bool fast : {true, false}) {
        const auto fromU8 = runEntry(encodeBC4SCPU, zeros.data(), kValueU8, fast, 8);
        const auto fromF32 = runEntry(encodeBC4SCPU, minusOnes.data(), kValueF32, fast, 8);
        for (int t = 0; t < 4; ++t) {
            EXPECT_EQ(bytes(&fromU8[8 * t], 8), bottom) << "tile " << t;
            EXPECT_EQ(bytes(&fromF32[8 * t], 8), bottom) << "tile " << t;
        }
    }
}
