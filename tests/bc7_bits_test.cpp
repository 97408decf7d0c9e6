// The BC7 (and BC6H) bit writers and the BC7 endpoint arithmetic.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "bc6h/bits.h"
#include "bc7/bits.h"
#include "bc7/utils.h"
#include "core/assert.h"

using namespace glyptora_internal;

namespace {

// Records every failed check; lets the code go on.
class RecordingHandler : public AssertHandler {
public:
    int assertion(const char* exp, const char* file, int, const char* func, const char*, va_list) override {
        expressions.push_back(exp);
        files.push_back(file);
        functions.push_back(func ? func : "");
        return 2;
    }
    std::vector<std::string> expressions, files, functions;
};

class CapturedAssertions {
public:
    CapturedAssertions() { previous_ = setAssertHandler(&handler); }
    ~CapturedAssertions() { setAssertHandler(previous_); }
    RecordingHandler handler;

private:
    AssertHandler* previous_;
};

template <typename BitsType>
void checkWriterEdges() {
    uint8_t block[16];
    std::memset(block, 0xA5, sizeof block);
    CapturedAssertions captured;
    BitsType out(block, 128);

    out.write(0x7FFFFFFF, 0);  // nothing
    EXPECT_EQ(out.getptr(), 0);
    EXPECT_EQ(block[0], 0xA5);

    out.write(0x5A5A5A5A, 31);  // the widest permitted write, least significant bit first
    EXPECT_EQ(out.getptr(), 31);
    uint32_t low;
    std::memcpy(&low, block, 4);
    EXPECT_EQ(low & 0x7FFFFFFFu, 0x5A5A5A5Au & 0x7FFFFFFFu);
    EXPECT_EQ(low >> 31, 1u);  // bit 31 not written yet: still the old 0xA5 top bit
    EXPECT_TRUE(captured.handler.expressions.empty());

    out.write(1, 32);
    ASSERT_EQ(captured.handler.expressions.size(), 1u);
    EXPECT_EQ(captured.handler.expressions[0], "nbits >= 0 && nbits < 32");
    EXPECT_EQ(captured.handler.files[0], "bits");
    EXPECT_EQ(captured.handler.functions[0], "write");

    // Fill to exactly 128 bits, then one more: it is dropped.
    BitsType full(block, 128);
    for (int i = 0; i < 4; ++i) full.write(i & 1 ? 0x12345678 : 0x0FEDCBA9, 31);
    full.write(0xB, 4);
    EXPECT_EQ(full.getptr(), 128);
    EXPECT_EQ(full.gethighmark(), 128);
    uint8_t before[16];
    std::memcpy(before, block, 16);
    captured.handler.expressions.clear();
    full.writeone(1);
    EXPECT_EQ(full.getptr(), 128);
    EXPECT_EQ(full.gethighmark(), 128);
    EXPECT_EQ(std::memcmp(before, block, 16), 0);
    ASSERT_EQ(captured.handler.expressions.size(), 1u);
    EXPECT_EQ(captured.handler.expressions[0], "bptr < maxbits");

    // A multi-bit write crossing the end keeps the bits that fit and drops the rest.
    BitsType tail(block, 128);
    tail.setptr(126);
    captured.handler.expressions.clear();
    tail.write(0x7, 3);
    EXPECT_EQ(tail.getptr(), 128);
    EXPECT_EQ(block[15] >> 6, 3);
    EXPECT_EQ(captured.handler.expressions.size(), 1u);

    captured.handler.expressions.clear();
    BitsType empty(static_cast<uint8_t*>(nullptr), 128);
    BitsType none(block, 0);
    ASSERT_EQ(captured.handler.expressions.size(), 2u);
    EXPECT_EQ(captured.handler.expressions[0], "data && maxdatabits > 0");
    EXPECT_EQ(captured.handler.expressions[1], "data && maxdatabits > 0");
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

    CapturedAssertions captured;
    BC7Modes::Bits reader(data, 16);
    reader.writeone(1);
    ASSERT_FALSE(captured.handler.expressions.empty());
    EXPECT_EQ(captured.handler.expressions[0], "!readonly");
    EXPECT_EQ(block[0] & 1, 1);  // untouched: still the first value's bit
}

TEST(BC7Utils, IntegerLerpHitsBothEndpointsAndIgnoresBias) {
    for (int denom : {3, 7, 15})
        for (int a = 0; a < 256; a += 5)
            for (int b = 0; b < 256; b += 7) {
                ASSERT_EQ(BC7Modes::Utils::lerp(a, b, 0, 1, denom), a);
                ASSERT_EQ(BC7Modes::Utils::lerp(a, b, denom, 1, denom), b);
                for (int i = 0; i <= denom; ++i)
                    ASSERT_EQ(BC7Modes::Utils::lerp(a, b, i, 0, denom),
                              BC7Modes::Utils::lerp(a, b, i, denom / 2, denom));
            }
    // 2-bit indices use the 4-bit weights at 0, 5, 10, 15; 3-bit their own table.
    EXPECT_EQ(BC7Modes::Utils::lerp(0, 255, 1, 1, 3), (43 * 0 + 21 * 255 + 32) >> 6);
    EXPECT_EQ(BC7Modes::Utils::lerp(0, 255, 4, 1, 7), (27 * 0 + 37 * 255 + 32) >> 6);
    EXPECT_EQ(BC7Modes::Utils::lerp(10, 200, 7, 1, 15), (34 * 10 + 30 * 200 + 32) >> 6);

    const float a[4] = {0, 64, 128, 255}, b[4] = {255, 0, 128, 1};
    float out[4];
    BC7Modes::Utils::lerp(out, a, b, 2, 3);  // weights 21 / 43, no rounding
    EXPECT_FLOAT_EQ(out[0], 43.0f * 255.0f / 64.0f);
    EXPECT_FLOAT_EQ(out[1], 21.0f * 64.0f / 64.0f);
    EXPECT_FLOAT_EQ(out[2], 128.0f);
}

TEST(BC7Utils, LerpChecksItsArguments) {
    CapturedAssertions captured;
    BC7Modes::Utils::lerp(0, 255, 1, 1, 5);
    BC7Modes::Utils::lerp(0, 255, 8, 1, 7);
    BC7Modes::Utils::lerp(0, 255, 1, 4, 7);
    BC7Modes::Utils::lerp(-1, 255, 1, 1, 7);
    const std::vector<std::string> expected = {"denom == 3 || denom == 7 || denom == 15", "i >= 0 && i <= denom",
                                               "bias >= 0 && bias <= denom/2", "a >= 0 && b >= 0"};
    EXPECT_EQ(captured.handler.expressions, expected);
    EXPECT_EQ(captured.handler.files[0], "utils");
}

TEST(BC7Utils, QuantizeRoundTripsAtEveryPrecision) {
    for (int prec = 4; prec <= 8; ++prec) {
        const int top = (1 << prec) - 1;
        EXPECT_EQ(BC7Modes::Utils::quantize(255.0f, prec), top);
        EXPECT_EQ(BC7Modes::Utils::quantize(0.0f, prec), 0);
        EXPECT_EQ(BC7Modes::Utils::unquantize(top, prec), 255);
        EXPECT_EQ(BC7Modes::Utils::unquantize(0, prec), 0);
        for (int q = 0; q <= top; ++q) {
            const int u = BC7Modes::Utils::unquantize(q, prec);
            ASSERT_EQ(u, (q << (8 - prec)) | (q >> (2 * prec - 8)));
            ASSERT_EQ(BC7Modes::Utils::quantize(float(u), prec), q) << "precision " << prec;
        }
        // Every 8-bit value lands on a code whose expansion is within one step.
        for (int v = 0; v < 256; ++v) {
            const int q = BC7Modes::Utils::quantize(float(v), prec);
            ASSERT_LE(std::abs(BC7Modes::Utils::unquantize(q, prec) - v), (256 >> prec));
        }
    }
    for (int q = 0; q < 256; ++q) EXPECT_EQ(BC7Modes::Utils::unquantize(q, 8), q);
    for (int q = 0; q < 32; ++q) EXPECT_EQ(BC7Modes::Utils::unquantize(q, 5), (q << 3) | (q >> 2));
    EXPECT_EQ(BC7Modes::Utils::quantize(127.49f, 8), 127);
    EXPECT_EQ(BC7Modes::Utils::quantize(127.5f, 8), 128);
}

TEST(BC7Utils, QuantizeChecksItsArguments) {
    CapturedAssertions captured;
    BC7Modes::Utils::quantize(10.0f, 3);
    BC7Modes::Utils::quantize(300.0f, 5);
    BC7Modes::Utils::unquantize(3, 2);
    const std::vector<std::string> expected = {"prec > 3", "unq <= 255", "q >= 0 && q < (1 << prec)", "prec > 3"};
    EXPECT_EQ(captured.handler.expressions, expected);
}

TEST(BC7Utils, PremultiplyAndItsVariants) {
    float p[4] = {255, 128, 0, 128};
    BC7Modes::Utils::premult(p);
    EXPECT_EQ(p[0], float((255 * 128 + 127) / 255));
    EXPECT_EQ(p[1], float((128 * 128 + 127) / 255));
    EXPECT_EQ(p[2], 0.0f);
    EXPECT_EQ(p[3], 128.0f);

    const float in[4] = {200, 100, 50, 255};
    float out[4];
    BC7Modes::Utils::premult(in, out);
    EXPECT_EQ(out[0], 200.0f);  // opaque: unchanged
    EXPECT_EQ(out[3], 255.0f);

    float pixels[8] = {10, 20, 30, 0, 10, 20, 30, 255};
    BC7Modes::Utils::premult(pixels, 2);
    EXPECT_EQ(pixels[0] + pixels[1] + pixels[2], 0.0f);
    EXPECT_EQ(pixels[4], 10.0f);

    CapturedAssertions captured;
    float fractional[4] = {1.5f, 2, 3, 4};
    BC7Modes::Utils::premult(fractional);
    float fractionalBlue[4] = {1, 2, 3.25f, 4};
    BC7Modes::Utils::premult(fractionalBlue);
    const std::vector<std::string> expected = {"(R==r) && (A==a)", "(B==b) && (A==a)"};
    EXPECT_EQ(captured.handler.expressions, expected);
}

TEST(BC7Utils, PixelErrorFollowsTheFlags) {
    const float a[4] = {10, 20, 30, 40}, b[4] = {13, 16, 30, 50};
    BC7Modes::Utils::clear_error_flags();
    EXPECT_FLOAT_EQ(BC7Modes::Utils::pixel_error(a, b), 9.0f + 16.0f + 0.0f + 100.0f);

    BC7Modes::flag_luma_weights = true;
    EXPECT_FLOAT_EQ(BC7Modes::Utils::pixel_error(a, b),
                    (0.299f * 3) * (0.299f * 3) + (0.587f * 4) * (0.587f * 4) + 100.0f);
    BC7Modes::flag_alt_luma_weights = true;  // the plain luma weights take precedence
    EXPECT_FLOAT_EQ(BC7Modes::Utils::pixel_error(a, b),
                    (0.299f * 3) * (0.299f * 3) + (0.587f * 4) * (0.587f * 4) + 100.0f);
    BC7Modes::flag_luma_weights = false;
    EXPECT_FLOAT_EQ(BC7Modes::Utils::pixel_error(a, b),
                    (0.3086f * 3) * (0.3086f * 3) + (0.6094f * 4) * (0.6094f * 4) + 100.0f);

    BC7Modes::flag_premult = true;
    float p[4] = {100, 100, 100, 0};
    BC7Modes::Utils::premult_if_enabled(p);
    EXPECT_EQ(p[0], 0.0f);
    BC7Modes::Utils::clear_error_flags();
    EXPECT_FALSE(BC7Modes::flag_luma_weights || BC7Modes::flag_alt_luma_weights || BC7Modes::flag_premult);
    float q[4] = {100, 100, 100, 0};
    BC7Modes::Utils::premult_if_enabled(q);
    EXPECT_EQ(q[0], 100.0f);
}
