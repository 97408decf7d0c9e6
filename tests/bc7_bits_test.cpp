// The BC7 (and BC6H) bit writers and the BC7 endpoint arithmetic, with the checks they report.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "bc6h/bits.h"
#include "bc7/bits.h"
#include "bc7/utils.h"
#include "recording_assert_handler.h"

using namespace glyptora_internal;
using Utils = BC7Modes::Utils;

namespace {

template <typename BitsType>
void checkWriterEdges() {
    uint8_t block[16];
    std::memset(block, 0xA5, sizeof block);
    RecordingHandler captured;
    BitsType out(block, 128);
    out.write(0x7FFFFFFF, 0);  // nothing
    EXPECT_EQ(out.getptr(), 0);
    EXPECT_EQ(block[0], 0xA5);

    out.write(0x5A5A5A5A, 31);  // the widest permitted write, least significant bit first
    EXPECT_EQ(out.getptr(), 31);
    uint32_t low;
    std::memcpy(&low, block, 4);
    EXPECT_EQ(low, 0x5A5A5A5Au | 0x80000000u);  // bit 31 not written yet: still the old 0xA5 top bit
    EXPECT_TRUE(captured.expressions.empty());

    out.write(1, 32);
    EXPECT_EQ(captured.expressions, std::vector<std::string>{"nbits >= 0 && nbits < 32"});
    EXPECT_EQ(captured.files, std::vector<std::string>{"bits"});
    EXPECT_EQ(captured.functions, std::vector<std::string>{"write"});

    // Fill to exactly 128 bits, then one more: it is dropped.
    BitsType full(block, 128);
    for (int i = 0; i < 4; ++i) full.write(i & 1 ? 0x12345678 : 0x0FEDCBA9, 31);
    full.write(0xB, 4);
    EXPECT_EQ(full.getptr(), 128);
    EXPECT_EQ(full.gethighmark(), 128);
    uint8_t before[16];
    std::memcpy(before, block, 16);
    captured.expressions.clear();
    full.writeone(1);
    EXPECT_EQ(full.getptr(), 128);
    EXPECT_EQ(full.gethighmark(), 128);
    EXPECT_EQ(std::memcmp(before, block, 16), 0);
    EXPECT_EQ(captured.expressions, std::vector<std::string>{"bptr < maxbits"});

    // A multi-bit write crossing the end keeps the bits that fit and drops the rest.
    BitsType tail(block, 128);
    tail.setptr(126);
    captured.expressions.clear();
    tail.write(0x7, 3);
    EXPECT_EQ(tail.getptr(), 128);
    EXPECT_EQ(block[15] >> 6, 3);
    EXPECT_EQ(captured.expressions.size(), 1u);

    captured.expressions.clear();
    BitsType empty(static_cast<uint8_t*>(nullptr), 128);
    BitsType none(block, 0);
    EXPECT_EQ(captured.expressions, (std::vector<std::string>(2, "data && maxdatabits > 0")));
}

}  // namespace

TEST(BC7Bits, WriterEdges) { checkWriterEdges<BC7Modes::Bits>(); }

TEST(BC6HBits, WriterEdges) { checkWriterEdges<BC6HModes::Bits>(); }

TEST(BC7Bits, ReaderGivesBackWhatWasWrittenAndRefusesWrites) {
    uint8_t block[16] = {};
    BC7Modes::Bits out(block, BC7Modes::BITSIZE);
    const int widths[] = {1, 7, 3, 13, 31, 5, 8, 2, 30, 28};
    const int values[] = {1, 100, 5, 4321, 0x6543210F, 17, 255, 2, 0x2AAAAAAA, 0x0BCDEF01};
    for (int i = 0; i < 10; ++i) out.write(values[i], widths[i]);
    ASSERT_EQ(out.getptr(), 128);

    const uint8_t* data = block;
    BC7Modes::Bits in(data, BC7Modes::BITSIZE);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(in.read(widths[i]), values[i]) << i;

    RecordingHandler captured;
    BC7Modes::Bits reader(data, 16);
    reader.writeone(1);
    ASSERT_FALSE(captured.expressions.empty());
    EXPECT_EQ(captured.expressions[0], "!readonly");
    EXPECT_EQ(block[0] & 1, 1);  // untouched: still the first value's bit
}

TEST(BC7Utils, LerpHitsBothEndpointsIgnoresBiasAndChecksItsArguments) {
    for (int denom : {3, 7, 15})
        for (int a = 0; a < 256; a += 5)
            for (int b = 0; b < 256; b += 7) {
                ASSERT_EQ(Utils::lerp(a, b, 0, 1, denom), a);
                ASSERT_EQ(Utils::lerp(a, b, denom, 1, denom), b);
                for (int i = 0; i <= denom; ++i)
                    ASSERT_EQ(Utils::lerp(a, b, i, 0, denom), Utils::lerp(a, b, i, denom / 2, denom));
            }
    // 2-bit indices use the 4-bit weights at 0, 5, 10, 15 (here 21 of 64); 3-bit their own table
    // (37 of 64); 4-bit weight 30 of 64: (64 - w) * a + w * b + 32 >> 6.
    EXPECT_EQ(Utils::lerp(0, 255, 1, 1, 3), 84);
    EXPECT_EQ(Utils::lerp(0, 255, 4, 1, 7), 147);
    EXPECT_EQ(Utils::lerp(10, 200, 7, 1, 15), 99);
    const float a[4] = {0, 64, 128, 255}, b[4] = {255, 0, 128, 1};
    float out[4];
    Utils::lerp(out, a, b, 2, 3);  // weights 21 / 43, no rounding
    EXPECT_FLOAT_EQ(out[0], 43.0f * 255.0f / 64.0f);
    EXPECT_FLOAT_EQ(out[1], 21.0f * 64.0f / 64.0f);
    EXPECT_FLOAT_EQ(out[2], 128.0f);

    RecordingHandler captured;
    Utils::lerp(0, 255, 1, 1, 5);
    Utils::lerp(0, 255, 8, 1, 7);
    Utils::lerp(0, 255, 1, 4, 7);
    Utils::lerp(-1, 255, 1, 1, 7);
    EXPECT_EQ(captured.expressions, (std::vector<std::string>{"denom == 3 || denom == 7 || denom == 15",
                                                              "i >= 0 && i <= denom", "bias >= 0 && bias <= denom/2",
                                                              "a >= 0 && b >= 0"}));
    EXPECT_EQ(captured.files[0], "utils");
}

TEST(BC7Utils, QuantizeRoundTripsAtEveryPrecisionAndChecksItsArguments) {
    for (int prec = 4; prec <= 8; ++prec) {
        const int top = (1 << prec) - 1;
        EXPECT_EQ(Utils::quantize(255.0f, prec), top);
        EXPECT_EQ(Utils::quantize(0.0f, prec), 0);
        for (int q = 0; q <= top; ++q) {  // bit replication, e.g. 5 bits: (q << 3) | (q >> 2); 8 bits: q
            const int u = Utils::unquantize(q, prec);
            ASSERT_EQ(u, (q << (8 - prec)) | (q >> (2 * prec - 8)));
            ASSERT_EQ(Utils::quantize(float(u), prec), q) << "precision " << prec;
        }
        // Every 8-bit value lands on a code whose expansion is within one step.
        for (int v = 0; v < 256; ++v)
            ASSERT_LE(std::abs(Utils::unquantize(Utils::quantize(float(v), prec), prec) - v), (256 >> prec));
    }
    EXPECT_EQ(Utils::unquantize(31, 5), 255);
    EXPECT_EQ(Utils::unquantize(9, 5), 74);
    EXPECT_EQ(Utils::quantize(127.49f, 8), 127);
    EXPECT_EQ(Utils::quantize(127.5f, 8), 128);

    RecordingHandler captured;
    Utils::quantize(10.0f, 3);
    Utils::quantize(300.0f, 5);
    Utils::unquantize(3, 2);
    EXPECT_EQ(captured.expressions,
              (std::vector<std::string>{"prec > 3", "unq <= 255", "q >= 0 && q < (1 << prec)", "prec > 3"}));
}

TEST(BC7Utils, PremultiplyAndItsVariants) {
    float p[4] = {255, 128, 0, 128};
    Utils::premult(p);  // (c * a + 127) / 255, truncated
    EXPECT_EQ(std::vector<float>(p, p + 4), (std::vector<float>{128, 64, 0, 128}));
    const float in[4] = {200, 100, 50, 255};
    float out[4];
    Utils::premult(in, out);  // opaque: unchanged
    EXPECT_EQ(std::vector<float>(out, out + 4), std::vector<float>(in, in + 4));
    float pixels[8] = {10, 20, 30, 0, 10, 20, 30, 255};
    Utils::premult(pixels, 2);
    EXPECT_EQ(std::vector<float>(pixels, pixels + 8), (std::vector<float>{0, 0, 0, 0, 10, 20, 30, 255}));

    RecordingHandler captured;
    float fractional[4] = {1.5f, 2, 3, 4}, fractionalBlue[4] = {1, 2, 3.25f, 4};
    Utils::premult(fractional);
    Utils::premult(fractionalBlue);
    EXPECT_EQ(captured.expressions, (std::vector<std::string>{"(R==r) && (A==a)", "(B==b) && (A==a)"}));
}

TEST(BC7Utils, PixelErrorFollowsTheFlags) {
    const float a[4] = {10, 20, 30, 40}, b[4] = {13, 16, 30, 50};  // differences 3, 4, 0, 10
    Utils::clear_error_flags();
    EXPECT_FLOAT_EQ(Utils::pixel_error(a, b), 9.0f + 16.0f + 0.0f + 100.0f);
    BC7Modes::flag_luma_weights = true;  // red 0.299, green 0.587
    EXPECT_FLOAT_EQ(Utils::pixel_error(a, b), 0.804609f + 5.513104f + 100.0f);
    BC7Modes::flag_alt_luma_weights = true;  // the plain luma weights take precedence
    EXPECT_FLOAT_EQ(Utils::pixel_error(a, b), 0.804609f + 5.513104f + 100.0f);
    BC7Modes::flag_luma_weights = false;  // red 0.3086, green 0.6094
    EXPECT_FLOAT_EQ(Utils::pixel_error(a, b), 0.85710564f + 5.94189376f + 100.0f);

    BC7Modes::flag_premult = true;
    float p[4] = {100, 100, 100, 0}, q[4] = {100, 100, 100, 0};
    Utils::premult_if_enabled(p);
    EXPECT_EQ(p[0], 0.0f);
    Utils::clear_error_flags();
    EXPECT_FALSE(BC7Modes::flag_luma_weights || BC7Modes::flag_alt_luma_weights || BC7Modes::flag_premult);
    Utils::premult_if_enabled(q);
    EXPECT_EQ(q[0], 100.0f);
}
