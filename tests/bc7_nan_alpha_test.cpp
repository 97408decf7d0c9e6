// A float source whose alpha is NaN is not opaque: "opaque" means every valid alpha is at
// least 1.0, which NaN is not. Both BC7 block encoders (the fast one of the default
// qualities and the mode search of the slow ones) and the whole conversion must encode such
// a texel exactly as one of alpha 0 (NaN reads as 0), so in a mode with alpha (4 to 7); a
// NaN outside the image's part of an edge block plays no part at all.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "bc7/bc7_decoder.h"
#include "bc7/bc7_fast.h"
#include "bc7/bc7_modes.h"
#include "glyptora.h"

using namespace glyptora_bc7;

namespace {

// An opaque 4x4 block of two ramps (a block the opaque modes 0 to 3 are best at).
void opaqueRamps(float tex[64]) {
    for (int i = 0; i < 16; ++i) {
        const float s = float(i) / 15.0f;
        tex[i * 4 + 0] = i % 4 < 2 ? s : 1.0f - s;
        tex[i * 4 + 1] = 0.2f + 0.6f * s;
        tex[i * 4 + 2] = i % 4 < 2 ? 0.1f : 0.9f;
        tex[i * 4 + 3] = 1.0f;
    }
}

void encodeFast(const float* tex, uint16_t region, uint8_t* out) { encodeBC7BlockFast(tex, region, true, out); }
void encodeSearch(const float* tex, uint16_t region, uint8_t* out) {
    encodeBC7BlockExhaustive(tex, region, true, out);
}

}  // namespace

TEST(BC7NanAlpha, ValidNanTexelEncodesAsAlphaZeroInvalidOneAsIfOpaque) {
    const struct {
        const char* encoder;
        void (*encode)(const float*, uint16_t, uint8_t*);
        int texel;        // the texel whose alpha is NaN
        uint16_t region;  // valid columns (low byte) and rows (high byte)
        float sameAs;     // the alpha that gives the same block
    } cases[] = {
        {"fast", encodeFast, 5, 0x0404, 0.0f},   {"search", encodeSearch, 5, 0x0404, 0.0f},
        {"fast", encodeFast, 0, 0x0101, 0.0f},   {"search", encodeSearch, 0, 0x0101, 0.0f},
        {"fast", encodeFast, 15, 0x0303, 1.0f},  {"search", encodeSearch, 15, 0x0303, 1.0f},  // outside the image
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.encoder) + " texel " + std::to_string(c.texel));
        float tex[64];
        opaqueRamps(tex);
        uint8_t withNan[16], reference[16];
        tex[c.texel * 4 + 3] = NAN;
        c.encode(tex, c.region, withNan);
        tex[c.texel * 4 + 3] = c.sameAs;
        c.encode(tex, c.region, reference);
        EXPECT_EQ(std::memcmp(withNan, reference, 16), 0);
        EXPECT_EQ(describeBC7Block(withNan).mode >= 4, c.sameAs == 0.0f);
    }
}

// Through the exported call, at a fast and a slow quality: the block holding the NaN texel
// is that of alpha 0 there; the other block is unchanged.
TEST(BC7NanAlpha, ConversionEncodesNanAlphaAsZero) {
    const uint32_t w = 8, h = 4;
    std::vector<float> src(w * h * 4);
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x) {
            float* p = &src[(y * w + x) * 4];
            p[0] = float(x) / 7.0f, p[1] = float(y) / 3.0f, p[2] = float((x * 3 + y) % 5) / 4.0f, p[3] = 1.0f;
        }
    const size_t texel9 = (1 + 2 * w) * 4 + 3;  // texel 9 of the first block
    for (const wchar_t* quality : {L"normal", L"production"}) {
        SCOPED_TRACE(quality[0] == L'n' ? "normal" : "production");
        uint8_t opaque[32], zero[32], nan[32];
        for (auto [alpha, out] : {std::pair{1.0f, opaque}, {0.0f, zero}, {NAN, nan}}) {
            src[texel9] = alpha;
            ASSERT_EQ(GlyptoraConvert(out, src.data(), L"unorm_bc7", L"float_32_32_32_32", quality, 0, 0, w, h, 1, 1),
                      1u);
        }
        EXPECT_EQ(std::memcmp(nan, zero, 32), 0);
        EXPECT_EQ(std::memcmp(nan + 16, opaque + 16, 16), 0);
        EXPECT_GE(describeBC7Block(nan).mode, 4);
    }
}
