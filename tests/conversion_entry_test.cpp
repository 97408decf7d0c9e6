#include <gtest/gtest.h>

#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "astc/decoder.h"
#include "core/image_record.h"
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
    // The server route checks the request before starting anything.
    EXPECT_EQ(convert(dst.data(), src.data(), L"unorm_bc1", L"unorm_16_16_16_16", L"", 0x20, 4, 4), 0u);
    for (uint8_t b : dst) EXPECT_EQ(b, 0xCD);  // nothing written on failure
    // An empty options string is accepted.
    EXPECT_EQ(convert(dst.data(), src.data(), L"unorm_bc1", L"unorm_8_8_8_8", L"", 0, 4, 4), 1u);
}

// A request whose tile count or buffers cannot exist fails with one line, writes nothing
// and never throws or overflows a buffer.
TEST(GlyptoraConvert, ImpossibleSizesFailWithOneLine) {
    auto src = gradient(4, 4);
    std::vector<uint8_t> dst(64, 0xCD);
    const struct {
        uint32_t w, h, depth, levels;
    } cases[] = {
        {262144, 262144, 1, 1},      // 2^32 blocks: a 32-bit count wraps to 0
        {12, 4, 1431655766u, 1},     // 3 blocks a layer: wraps to 2
        {0x80000000u, 4, 1, 1},      // wider than a signed 32-bit extent
        {65536, 65536, 1, 0x7FFFFFFFu},  // 1x1 levels beyond the chain push the count past 2^31 - 1
        {1u << 19, 1u << 19, 1u << 30, 1},  // 2^34 blocks a layer x 2^30 layers wraps 64 bits to 0
    };
    for (const auto& c : cases) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(GlyptoraConvert(dst.data(), src.data(), L"unorm_bc1", L"unorm_8_8_8_8", L"fastest", 0, 0, c.w, c.h,
                                  c.depth, c.levels),
                  0u)
            << c.w << "x" << c.h << "x" << c.depth;
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find("too large"), std::string::npos) << err;
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    }
    for (uint8_t b : dst) ASSERT_EQ(b, 0xCD);
}

#if !defined(__SANITIZE_ADDRESS__)
// 65536x65536 with 17 levels needs about 23 GB for the one-bit-alpha copy and as much for the
// tiles: with the address space capped, the allocation fails and the call returns 0 instead of ending the process.
int convertHugeWithCappedAddressSpace(const void* src) {
    const rlim_t cap = rlim_t(4) << 30;
    const rlimit limit{cap, cap};
    setrlimit(RLIMIT_AS, &limit);
    std::vector<uint8_t> dst(64);
    return int(GlyptoraConvert(dst.data(), src, L"unorm_bc1", L"unorm_8_8_8_8", L"fastest", 0, 0, 65536, 65536, 1, 17));
}

TEST(GlyptoraConvertDeathTest, OutOfMemoryReturnsZero) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto src = gradient(4, 4);
    EXPECT_EXIT(std::exit(convertHugeWithCappedAddressSpace(src.data())), testing::ExitedWithCode(0),
                "Glyptora: out of memory");
}
#endif

// ASTC destinations convert at every footprint (decoded by the library's ASTC decoder, close
// to a smooth source); an opaque source decodes opaque; with flag bit 2 a luminance-alpha
// source (l, a) decodes as (l, l, l, a); bytes past the blocks stay untouched.
TEST(GlyptoraConvert, AstcFootprintsAndTheLuminanceAlphaFlag) {
    const int w = 29, h = 19;
    std::vector<uint8_t> src(size_t(w) * h * 4);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            uint8_t* px = &src[(size_t(y) * w + x) * 4];
            // Everything a linear function of x + y: one line of colours per block holds it.
            const int t = x + y;
            px[0] = uint8_t(20 + 4 * t), px[1] = uint8_t(230 - 4 * t), px[2] = uint8_t(90 + 2 * t);
            px[3] = uint8_t(250 - 3 * t);
        }
    // Largest and mean absolute difference over the chosen channels (bit c: channel c).
    const auto differences = [](const std::vector<uint8_t>& a, const std::vector<uint8_t>& b, unsigned channels) {
        int most = 0, sum = 0, n = 0;
        for (size_t i = 0; i < a.size(); ++i)
            if ((channels >> (i % 4)) & 1) {
                const int d = std::abs(int(a[i]) - int(b[i]));
                most = std::max(most, d), sum += d, ++n;
            }
        return std::make_pair(most, double(sum) / n);
    };
    for (int f = 0; f < glyptora_astc::kAstcFootprintCount; ++f) {
        const glyptora_astc::AstcFootprint fp = glyptora_astc::astcFootprint(f);
        const std::wstring format = (f % 2 ? L"srgb_astc_" : L"unorm_astc_") + std::to_wstring(fp.width) + L"x" +
                                    std::to_wstring(fp.height);
        const size_t blocks = size_t((w + fp.width - 1) / fp.width) * ((h + fp.height - 1) / fp.height);
        // (l, a) sources carry luminance in channel 0 and alpha in channel 1.
        std::vector<uint8_t> opaque = src, la = src, dst(blocks * 16 + 16, 0xEE), decoded, expected = src;
        for (size_t i = 0; i < la.size(); i += 4) la[i + 1] = src[i + 3];
        for (size_t i = 3; i < opaque.size(); i += 4) opaque[i] = 255;
        for (size_t i = 0; i < la.size(); i += 4) expected[i + 1] = expected[i + 2] = la[i], expected[i + 3] = la[i + 1];
        SCOPED_TRACE(std::string(format.begin(), format.end()));
        ASSERT_EQ(convert(dst.data(), opaque.data(), format.c_str(), L"unorm_8_8_8_8", L"normal", 0, w, h), 1u);
        EXPECT_EQ(dst[blocks * 16], 0xEE);
        glyptora_astc::decodeAstcImage(dst.data(), w, h, fp, decoded);
        const auto rgb = differences(decoded, opaque, 0x7);
        EXPECT_LE(rgb.first, 8);
        EXPECT_LE(rgb.second, 2.0);
        EXPECT_EQ(differences(decoded, opaque, 0x8).first, 0);
        ASSERT_EQ(convert(dst.data(), la.data(), format.c_str(), L"unorm_8_8_8_8", L"normal", 0x2, w, h), 1u);
        glyptora_astc::decodeAstcImage(dst.data(), w, h, fp, decoded);
        const auto all = differences(decoded, expected, 0xF);
        EXPECT_LE(all.first, 8);
        EXPECT_LE(all.second, 2.0);
        int grey = 0;  // the largest spread of R, G and B in a decoded texel
        for (size_t i = 0; i < decoded.size(); i += 4)
            grey = std::max({grey, std::abs(decoded[i] - decoded[i + 1]), std::abs(decoded[i + 1] - decoded[i + 2])});
        EXPECT_LE(grey, 3);
    }
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
    using glyptora::kValueF32, glyptora::kValueS8, glyptora::kValueU8;
    EXPECT_FALSE(levelHasAlpha(opaque.data(), 5, kValueU8));
    opaque[4 * 3 + 3] = 254;
    EXPECT_TRUE(levelHasAlpha(opaque.data(), 5, kValueU8));
    EXPECT_TRUE(levelHasAlpha(opaque.data(), 5, kValueS8));  // signed bytes use the same byte test

    const float nan = std::numeric_limits<float>::quiet_NaN();
    float f[8] = {0, 0, 0, 1.0f, 0, 0, 0, 1.0f};
    EXPECT_FALSE(levelHasAlpha(reinterpret_cast<uint8_t*>(f), 2, kValueF32));
    f[7] = nan;
    EXPECT_TRUE(levelHasAlpha(reinterpret_cast<uint8_t*>(f), 2, kValueF32));

    float oneBit[8] = {0, 0, 0, 0.5f, 0, 0, 0, 0.49f};
    forceOneBitAlpha(reinterpret_cast<uint8_t*>(oneBit), 2, kValueF32);
    EXPECT_EQ(oneBit[3], 1.0f);
    EXPECT_EQ(oneBit[7], 0.0f);
    oneBit[3] = nan;
    forceOneBitAlpha(reinterpret_cast<uint8_t*>(oneBit), 1, kValueF32);
    EXPECT_EQ(oneBit[3], 0.0f);

    uint8_t la[8] = {10, 20, 30, 40, 1, 2, 3, 4};
    expandLuminanceAlpha(la, 2, kValueU8);
    const uint8_t expected[8] = {10, 10, 10, 20, 1, 1, 1, 2};
    EXPECT_EQ(std::memcmp(la, expected, 8), 0);
}
