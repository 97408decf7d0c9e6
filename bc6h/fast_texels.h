#pragma once
// The texels of a block as the fast BC6H encoder sees them, and its error measure.
//
// Fitting works on the integer values of the texels' half bit patterns (minus the magnitude
// for negative values in signed form): the format interpolates in that domain, so a
// region's palette is a straight line there. The error, though, is measured on the float
// values: the squared difference of decoded and texel value divided by 1 + |texel| in each
// channel, the first-order form of the difference of log2(1 + |x|). It weighs values below
// one by their absolute error and brighter ones by their relative error; the integer domain
// alone would weigh every octave alike and spend the palette on near-black texels.
#include <cstdint>
#include <cstring>

#include "bc7/bc7_simd.h"
#include "bc7/fast_block_load.h"
#include "core/host_device.h"
#include "core/vec4.h"

namespace glyptora_bc6h {
inline namespace GLYPTORA_SIMD_ABI {
namespace fast {

using glyptora_bc7::fastenc::Block;
using glyptora_simd::Vec4f;
using glyptora_simd::Vec4i;
namespace lanes = glyptora_bc7::lanes;

// How far below the block's brightest value texels stop mattering to the endpoint fit: the
// integer domain resolves near-black values as finely as bright ones, so texels darker
// than this fraction of the brightest are fitted as if they were that dark, where they
// cost at most this fraction in the measure.
constexpr float kFitFloor = 1.0f / 128.0f;

// Texel i is lane i % 4 of group i / 4.
struct Texels {
    Vec4f half[3][4];      // integer half values [channel][group]
    Vec4f value[3][4];     // float values
    Vec4f weight[3][4];    // 1 / (1 + |value|)
    Block fit;             // the values the endpoints are fitted to (integer half values,
                           // those below the floor raised to it) and the valid-texel masks,
                           // in the lane layout of the fast BC7 encoder, whose shape ranking
                           // is shared
    Vec4f fitValue[3][4];  // float values of those
    Vec4f fitSlope[3][4];  // their float value per integer value step
    Vec4f floorHalf;       // the floor, with the sign of the brightest value
    bool mixedSigns;       // valid texels above the floor on both sides of zero
};

GLYPTORA_HD inline Vec4i bitsOf(Vec4f v) {
#if defined(GLYPTORA_SIMD_SSE)
    return glyptora_simd::asInt(v);
#else
    Vec4i r;
    for (int i = 0; i < 4; ++i) memcpy(&r.e[i], &v.e[i], 4);
    return r;
#endif
}

GLYPTORA_HD inline Vec4f floatsOf(Vec4i v) {
#if defined(GLYPTORA_SIMD_SSE)
    return glyptora_simd::asFloat(v);
#else
    Vec4f r;
    for (int i = 0; i < 4; ++i) memcpy(&r.e[i], &v.e[i], 4);
    return r;
#endif
}

// texelValue() of four floats: the half bit pattern (rounded to nearest even) as an integer,
// unsigned with negatives 0, signed as minus the magnitude, magnitudes clamped to 31743.
GLYPTORA_HD inline Vec4f texelValues(Vec4f v, bool isSigned) {
    const Vec4i bits = bitsOf(v);
    const Vec4i magnitude = bits & Vec4i(0x7FFFFFFF);
    // Normal halves: the exponent rebased, 13 mantissa bits rounded away to nearest even.
    const Vec4i rebased = magnitude - Vec4i(0x38000000);
    const Vec4i normal = (rebased + Vec4i(0x0FFF) + ((rebased >> 13) & Vec4i(1))) >> 13;
    // Subnormal halves: the value in units of 2^-24, rounded to nearest even by adding 2^23
    // (capped, for the lanes that take another path, so that the conversion stays in range).
    const Vec4f units = glyptora_simd::min(glyptora_simd::abs(v) * Vec4f(16777216.0f), Vec4f(2048.0f));
    const Vec4i subnormal = glyptora_simd::truncateToInt((units + Vec4f(8388608.0f)) - Vec4f(8388608.0f));
    Vec4i h = glyptora_simd::select(glyptora_simd::cmpLess(magnitude, Vec4i(0x38800000)), subnormal, normal);
    // From 65520 up (infinity and NaN included) the half is not finite: the largest finite.
    h = glyptora_simd::select(glyptora_simd::cmpGreater(magnitude, Vec4i(0x477FEFFF)), Vec4i(31743), h);
    const Vec4i negative = glyptora_simd::cmpLess(bits, Vec4i(0));
    h = glyptora_simd::select(negative, isSigned ? Vec4i(0) - h : Vec4i(0), h);
    return glyptora_simd::toFloat(h);
}

// Float value of integer half values (lanes), |h| <= 31743: the bit pattern rebased from
// the half's exponent bias to the float's, or h 2^-24 below the smallest normal half.
GLYPTORA_HD inline Vec4f halfValueToFloat(Vec4f h, bool isSigned) {
    const Vec4f magnitude = isSigned ? glyptora_simd::abs(h) : h;
    const Vec4f normal = floatsOf((glyptora_simd::truncateToInt(magnitude) << 13) + Vec4i(0x38000000));
    const Vec4f x = glyptora_simd::select(glyptora_simd::cmpLess(magnitude, Vec4f(1024.0f)),
                                          magnitude * Vec4f(1.0f / 16777216.0f), normal);
    return isSigned ? glyptora_simd::select(glyptora_simd::cmpLess(h, Vec4f(0.0f)), -x, x) : x;
}

// The float value of one integer step at integer half magnitudes of float value `value`:
// 2^-24 below the smallest normal half, else the power of two of the value's exponent / 1024.
GLYPTORA_HD inline Vec4f valueStep(Vec4f magnitude, Vec4f value) {
    const Vec4f exponent = floatsOf(bitsOf(value) & Vec4i(0x7F800000));
    return glyptora_simd::select(glyptora_simd::cmpLess(magnitude, Vec4f(1024.0f)), Vec4f(1.0f / 16777216.0f),
                                 exponent * Vec4f(1.0f / 1024.0f));
}

// The integer half value of a float, continued between integers (piecewise linear, the
// inverse of halfValueToFloat), clamped to the texel range.
GLYPTORA_HD inline float floatToHalfValue(float x, bool isSigned) {
    const float magnitude = x < 0.0f ? -x : x;
    float h;
    if (magnitude < 1.0f / 16384.0f) {
        h = magnitude * 16777216.0f;
    } else {
        int bits;
        memcpy(&bits, &magnitude, 4);
        h = float(bits - 0x38000000) * (1.0f / 8192.0f);
    }
    h = h < 31743.0f ? h : 31743.0f;  // NaN and beyond the largest half
    if (x < 0.0f) return isSigned ? -h : 0.0f;
    return h;
}

// The per-texel copies (px) of group g's channels.
GLYPTORA_HD inline void setTexelRecords(Block& b, int g) {
    Vec4f r[4] = {b.ch[0][g], b.ch[1][g], b.ch[2][g], b.ch[3][g]};
    lanes::transpose(r[0], r[1], r[2], r[3]);
    for (int j = 0; j < 4; ++j) r[j].store(b.px[4 * g + j]);
}

// Loads 16 RGBA floats in row order (alpha ignored) with the valid texels `validMask`.
GLYPTORA_HD inline void loadTexels(const float texels[64], uint32_t validMask, bool isSigned, Texels& t) {
    Block& b = t.fit;
    b.validMask = validMask;
    b.validCount = 0;
    for (int i = 0; i < 16; ++i) b.validCount += (validMask >> i) & 1;
    b.opaque = true;
    Vec4f brightest(0.0f), brightestSigned(0.0f);
    for (int g = 0; g < 4; ++g) {
        b.valid[g] = lanes::laneMask(int(validMask >> (4 * g)) & 15);
        Vec4f rgba[4] = {Vec4f::load(texels + 16 * g), Vec4f::load(texels + 16 * g + 4),
                         Vec4f::load(texels + 16 * g + 8), Vec4f::load(texels + 16 * g + 12)};
        lanes::transpose(rgba[0], rgba[1], rgba[2], rgba[3]);
        for (int c = 0; c < 3; ++c) {
            const Vec4f h = texelValues(rgba[c], isSigned);
            t.half[c][g] = h;
            const Vec4f x = halfValueToFloat(h, isSigned), magnitude = glyptora_simd::abs(h);
            t.value[c][g] = x;
            t.weight[c][g] = Vec4f(1.0f) / (Vec4f(1.0f) + glyptora_simd::abs(x));
            const Vec4f brighter = lanes::maskAnd(b.valid[g], glyptora_simd::cmpGreater(magnitude, brightest));
            brightest = glyptora_simd::select(brighter, magnitude, brightest);
            brightestSigned = glyptora_simd::select(brighter, h, brightestSigned);
        }
    }
    // The fit floor, with the sign of the brightest value.
    float top[4], topSigned[4];
    brightest.store(top);
    brightestSigned.store(topSigned);
    int lane = 0;
    for (int j = 1; j < 4; ++j)
        if (top[j] > top[lane]) lane = j;
    const float topValue = halfValueToFloat(Vec4f(top[lane]), false).x();
    const float floorHalf = floatToHalfValue(kFitFloor * topValue / (1.0f + topValue), false);
    const Vec4f floorLanes(topSigned[lane] < 0.0f ? -floorHalf : floorHalf);
    const Vec4f floorValue = halfValueToFloat(floorLanes, isSigned);
    t.floorHalf = floorLanes;
    Vec4f opposite(0.0f);
    for (int g = 0; g < 4; ++g) {
        for (int c = 0; c < 3; ++c) {
            const Vec4f h = t.half[c][g];
            const Vec4f lift = glyptora_simd::cmpLess(glyptora_simd::abs(h), Vec4f(floorHalf));
            const Vec4f f = glyptora_simd::select(lift, floorLanes, h), magnitude = glyptora_simd::abs(f);
            const Vec4f otherSide = lanes::maskAnd(b.valid[g], glyptora_simd::cmpLess(f * floorLanes, Vec4f(0.0f)));
            opposite = opposite + lanes::keep(otherSide, Vec4f(1.0f));
            b.ch[c][g] = f;
            t.fitValue[c][g] = glyptora_simd::select(lift, floorValue, t.value[c][g]);
            t.fitSlope[c][g] = valueStep(magnitude, t.fitValue[c][g]);
        }
        b.ch[3][g] = Vec4f(1.0f);
        setTexelRecords(b, g);
    }
    t.mixedSigns = lanes::hsum(opposite) > 0.0f;
}

// The fit values of the texels on the other side of zero from the brightest raised to the
// floor as well.
GLYPTORA_HD inline void liftOtherSign(Texels& t, bool isSigned) {
    Block& b = t.fit;
    const Vec4f floorValue = halfValueToFloat(t.floorHalf, isSigned);
    const Vec4f magnitude = glyptora_simd::abs(t.floorHalf);
    const Vec4f slope = valueStep(magnitude, floorValue);
    for (int g = 0; g < 4; ++g)
        for (int c = 0; c < 3; ++c) {
            const Vec4f lift = glyptora_simd::cmpLess(b.ch[c][g] * t.floorHalf, Vec4f(0.0f));
            b.ch[c][g] = glyptora_simd::select(lift, t.floorHalf, b.ch[c][g]);
            t.fitValue[c][g] = glyptora_simd::select(lift, floorValue, t.fitValue[c][g]);
            t.fitSlope[c][g] = glyptora_simd::select(lift, slope, t.fitSlope[c][g]);
        }
    for (int g = 0; g < 4; ++g) setTexelRecords(b, g);
}

}  // namespace fast
}  // namespace GLYPTORA_SIMD_ABI
}  // namespace glyptora_bc6h
