// Requests the fuzzers found mishandled, kept as regression tests:
//  - a volume of depth 0 is one slice a level by the size rule; the conversion used to report
//    success and write nothing of it;
//  - a chain of 2^31 - 1 levels of a 1x1 image used to be decoded level by level (seconds of
//    work for one 380-byte server request); its counts must come out whole all the same.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "frontend/request_decoding.h"
#include "glyptora.h"

using namespace glyptora_internal;

TEST(FuzzFindings, VolumeOfDepthZeroEncodesOneSliceALevel) {
    const struct {
        const wchar_t* format;
        size_t bytes;  // two levels of one slice: 8x8 and 4x4
    } cases[] = {{L"unorm_bc7", (4 + 1) * 16}, {L"unorm_bc1", (4 + 1) * 8}, {L"unorm_astc_4x4", (4 + 1) * 16}};
    std::vector<uint8_t> source((64 + 16) * 4);
    for (size_t i = 0; i < source.size(); ++i) source[i] = uint8_t(i * 7);
    for (const auto& c : cases) {
        std::vector<uint8_t> depthZero(c.bytes + 1, 0xEE), depthOne(c.bytes + 1, 0xDD);
        ASSERT_EQ(GlyptoraConvert(depthZero.data(), source.data(), c.format, L"unorm_8_8_8_8", L"", 0, 2, 8, 8, 0, 2), 1u);
        ASSERT_EQ(GlyptoraConvert(depthOne.data(), source.data(), c.format, L"unorm_8_8_8_8", L"", 0, 2, 8, 8, 1, 2), 1u);
        EXPECT_EQ(std::memcmp(depthZero.data(), depthOne.data(), c.bytes), 0);
        EXPECT_EQ(depthZero[c.bytes], 0xEE);  // nothing beyond the size rule
    }
    // Layers (any other dimension) of depth 0 are none at all.
    std::vector<uint8_t> none(16, 0xEE);
    EXPECT_EQ(GlyptoraConvert(none.data(), source.data(), L"unorm_bc7", L"unorm_8_8_8_8", L"", 0, 0, 8, 8, 0, 2), 1u);
    EXPECT_EQ(none, std::vector<uint8_t>(16, 0xEE));
}

TEST(FuzzFindings, LongChainsAreCountedWhole) {
    const struct {
        uint32_t dimension, width, depth, levels;
        uint64_t tiles, pixels;  // tiles above 2^31 - 1 are refused
        Status status;
    } cases[] = {
        {0, 1, 1, 0x7FFFFFFF, 0x7FFFFFFF, 0x7FFFFFFF, Status::Ok},
        {2, 1, 0, 0x7FFFFFFF, 0x7FFFFFFF, 0x7FFFFFFF, Status::Ok},
        {0, 4096, 1, 40, 1398100 + 30, 0, Status::Ok},  // 4^10 + 4^9 + ... + 4 blocks, then 30 levels of one
        {0, 1, 2, 0x40000000, 0x80000000, 0, Status::TooLarge},
    };
    for (const auto& c : cases) {
        ConversionRequest r;
        EXPECT_EQ(decodeConversionRequest("unorm_bc1", "unorm_8_8_8_8", "", 0, c.dimension, c.width, c.width, c.depth,
                                          c.levels, r),
                  c.status);
        if (c.status != Status::Ok) continue;
        EXPECT_EQ(r.totalTiles, c.tiles);
        if (c.pixels) {
            EXPECT_EQ(r.totalPixels, c.pixels);
        }
        EXPECT_EQ(r.totalTiles * 8, levelChainSize(geometryOf(*r.format), c.dimension, c.width, c.width, c.depth, c.levels));
    }
}
