#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <vector>

#include "frontend/source_fixups.h"
#include "glyptora.h"

namespace {

std::vector<uint8_t> gradient(int w, int h, uint8_t alpha = 255) {
    std::vector<uint8_t> p(size_t(w) * h * 4);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            uint8_t* px = &p[(size_t(y) * w + x) * 4];
            px[0] = uint8_t(x * 255 / std::max(w - 1, 1));
            px[1] = uint8_t(y * 255 / std::max(h - 1, 1));
            px[2] = uint8_t((x + y) * 7);
            px[3] = alpha;
        }
    return p;
}

uint32_t convert(void* dst, const void* src, const wchar_t* format, const wchar_t* source, const wchar_t* options,
                 uint32_t flags, uint32_t w, uint32_t h, uint32_t levels = 1) {
    return GlyptoraConvert(dst, src, format, source, options, flags, 0, w, h, 1, levels);
}

}  // namespace

TEST(GlyptoraConvert, RefusesNullsUnknownFormatsAndTheServerFlag) {
    auto src = gradient(4, 4);
    std::vector<uint8_t> dst(8, 0xCD);
    EXPECT_EQ(convert(nullptr, src.data(), L"unorm_bc1", L"unorm_8_8_8_8", L"", 0, 4, 4), 0u);
    EXPECT_EQ(convert(dst.data(), nullptr, L"unorm_bc1", L"unorm_8_8_8_8", L"", 0, 4, 4), 0u);
    EXPECT_EQ(convert(dst.data(), src.data(), nullptr, L"unorm_8_8_8_8", L"", 0, 4, 4), 0u);
    EXPECT_EQ(convert(dst.data(), src.data(), L"unorm_bc1", nullptr, L"", 0, 4, 4), 0u);
    EXPECT_EQ(convert(dst.data(), src.data(), L"unorm_bc1", L"unorm_8_8_8_8", nullptr, 0, 4, 4), 0u);
    EXPECT_EQ(convert(dst.data(), src.data(), L"unorm_bc6", L"unorm_8_8_8_8", L"", 0, 4, 4), 0u);
    EXPECT_EQ(convert(dst.data(), src.data(), L"unorm_8_8_8_8", L"unorm_8_8_8_8", L"", 0x20, 4, 4), 0u);
    EXPECT_EQ(convert(dst.data(), src.data(), L"unorm_bc1", L"ufloat_32_32_32_32", L"", 0, 4, 4), 0u);
    EXPECT_EQ(convert(dst.data(), src.data(), L"unorm_bc1", L"UNORM_8_8_8_8", L"", 0, 4, 4), 0u);
    EXPECT_EQ(convert(dst.data(), src.data(), L"unorm_bc1", L"unorm_8_8_8_8", L"", 0x20, 4, 4), 0u);
    for (uint8_t b : dst) EXPECT_EQ(b, 0xCD);  // nothing written on failure
    // An empty options string is accepted.
    EXPECT_EQ(convert(dst.data(), src.data(), L"unorm_bc1", L"unorm_8_8_8_8", L"", 0, 4, 4), 1u);
}

TEST(GlyptoraConvert, GpuRequestWithoutGpuFailsUnlessFallbackIsAllowed) {
    ASSERT_EQ(GlyptoraIsGpuEncodingAvailable(), 0u) << "this test expects a machine without a usable GPU";
    auto src = gradient(8, 8);
    std::vector<uint8_t> cpu(32), fallback(32);
    unsetenv("HALVORAN_GLYPTORA_GPU_ENCODING_AUTO");
    EXPECT_EQ(convert(fallback.data(), src.data(), L"unorm_bc1", L"unorm_8_8_8_8", L"normal", 0x10, 8, 8), 0u);
    EXPECT_EQ(convert(fallback.data(), src.data(), L"unorm_bc1", L"unorm_8_8_8_8", L"normal", 0x50, 8, 8), 1u);
    EXPECT_EQ(convert(cpu.data(), src.data(), L"unorm_bc1", L"unorm_8_8_8_8", L"normal", 0, 8, 8), 1u);
    EXPECT_EQ(cpu, fallback);
}

TEST(GlyptoraConvert, Bc1AlphaBelow128IsTransparentAnd128IsOpaque) {
    auto src = gradient(4, 4, 127);
    for (int i = 8; i < 16; ++i) src[size_t(i) * 4 + 3] = 128;
    for (const wchar_t* quality : {L"fastest", L"normal"}) {
        uint8_t block[8];
        ASSERT_EQ(convert(block, src.data(), L"unorm_bc1", L"unorm_8_8_8_8", quality, 0, 4, 4), 1u);
        const uint16_t c0 = uint16_t(block[0] | block[1] << 8), c1 = uint16_t(block[2] | block[3] << 8);
        uint32_t indices;
        std::memcpy(&indices, block + 4, 4);
        EXPECT_LE(c0, c1) << "transparent texels need the 3-colour mode";
        for (int i = 0; i < 16; ++i) {
            const uint32_t index = (indices >> (2 * i)) & 3;
            if (i < 8) EXPECT_EQ(index, 3u) << i;
            else EXPECT_NE(index, 3u) << i;
        }
    }
    // The caller's pixels are not modified by the fix-up.
    EXPECT_EQ(src[3], 127);
}

TEST(GlyptoraConvert, MipChainsAndLayersWriteEveryBlockInLevelOrder) {
    // 13x7, 4 levels, 2 layers: (4x2 + 2x1 + 1x1 + 1x1) blocks per layer.
    const int w = 13, h = 7, layers = 2, levels = 4;
    std::vector<uint8_t> src;
    for (int m = 0; m < levels; ++m)
        for (int l = 0; l < layers; ++l) {
            auto level = gradient(std::max(w >> m, 1), std::max(h >> m, 1));
            src.insert(src.end(), level.begin(), level.end());
        }
    const size_t blocks = (8 + 2 + 1 + 1) * layers;
    std::vector<uint8_t> dst(blocks * 16 + 16, 0xEE);
    ASSERT_EQ(GlyptoraConvert(dst.data(), src.data(), L"unorm_bc7", L"unorm_8_8_8_8", L"fastest", 0, 1, w, h, layers,
                              levels),
              1u);
    size_t untouched = 0;
    for (size_t i = blocks * 16; i < dst.size(); ++i) untouched += dst[i] == 0xEE;
    EXPECT_EQ(untouched, 16u) << "bytes past the chain stay untouched";
    // Each layer of level 0 holds the same gradient, so its blocks repeat.
    EXPECT_EQ(std::memcmp(dst.data(), dst.data() + 8 * 16, 8 * 16), 0);
}

TEST(SourceFixups, AlphaScanAndLuminanceAlpha) {
    using namespace glyptora_internal;
    std::vector<uint8_t> opaque(4 * 5, 255);
    EXPECT_FALSE(levelHasAlpha(opaque.data(), 5, 0));
    opaque[4 * 3 + 3] = 254;
    EXPECT_TRUE(levelHasAlpha(opaque.data(), 5, 0));
    EXPECT_TRUE(levelHasAlpha(opaque.data(), 5, 1));  // signed bytes use the same byte test

    const float nan = std::numeric_limits<float>::quiet_NaN();
    float f[8] = {0, 0, 0, 1.0f, 0, 0, 0, 1.0f};
    EXPECT_FALSE(levelHasAlpha(reinterpret_cast<uint8_t*>(f), 2, 2));
    f[7] = nan;
    EXPECT_TRUE(levelHasAlpha(reinterpret_cast<uint8_t*>(f), 2, 2));

    float oneBit[8] = {0, 0, 0, 0.5f, 0, 0, 0, 0.49f};
    forceOneBitAlpha(reinterpret_cast<uint8_t*>(oneBit), 2, 2);
    EXPECT_EQ(oneBit[3], 1.0f);
    EXPECT_EQ(oneBit[7], 0.0f);
    oneBit[3] = nan;
    forceOneBitAlpha(reinterpret_cast<uint8_t*>(oneBit), 1, 2);
    EXPECT_EQ(oneBit[3], 0.0f);

    uint8_t la[8] = {10, 20, 30, 40, 1, 2, 3, 4};
    expandLuminanceAlpha(la, 2, 0);
    const uint8_t expected[8] = {10, 10, 10, 20, 1, 1, 1, 2};
    EXPECT_EQ(std::memcmp(la, expected, 8), 0);
}
