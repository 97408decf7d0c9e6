#pragma once
// How the palette scans turn stored endpoint values into palette values:
// decoding (Utils::unquantize by table), Utils::lerp's interpolation weights
// as integers and as floats, and interpolation four values at a time. The
// results are those of Utils, bit for bit.
#include <cstdint>

#include "bc7/modes_search.h"
#include "bc7/utils.h"
#include "core/vec4.h"

namespace BC7Modes {
namespace palette_detail {

using glyptora_simd::Vec4f;

// Utils::unquantize of every code of the precisions 4..8 (the same integers).
struct UnquantTable {
    uint8_t value[9][256];
};
constexpr UnquantTable makeUnquantTable() {
    UnquantTable t{};
    for (int prec = 4; prec <= 8; ++prec)
        for (int q = 0; q < (1 << prec); ++q) t.value[prec][q] = uint8_t((q << (8 - prec)) | (q >> (2 * prec - 8)));
    return t;
}
constexpr UnquantTable kUnquant = makeUnquantTable();

// Utils::lerp's weights of each index, for 2-, 3- and 4-bit indices.
struct LerpWeights {
    int a[3][16];
    int b[3][16];
};
constexpr LerpWeights makeLerpWeights() {
    LerpWeights w{};
    for (int i = 0; i < 16; ++i) {
        if (i < 4) w.a[0][i] = kWeights4[15 - i * 5], w.b[0][i] = kWeights4[i * 5];
        if (i < 8) w.a[1][i] = kWeights3[7 - i], w.b[1][i] = kWeights3[i];
        w.a[2][i] = kWeights4[15 - i], w.b[2][i] = kWeights4[i];
    }
    return w;
}
constexpr LerpWeights kLerp = makeLerpWeights();

// Utils::lerp's weights as floats: with whole-number endpoints
// floor((wa * a + wb * b + 32) / 64) is the integer interpolation, every
// step exact in float.
struct LerpFloats {
    float a[3][16];
    float b[3][16];
};
constexpr LerpFloats makeLerpFloats() {
    LerpFloats f{};
    for (int set = 0; set < 3; ++set)
        for (int i = 0; i < 16; ++i) f.a[set][i] = float(kLerp.a[set][i]), f.b[set][i] = float(kLerp.b[set][i]);
    return f;
}
constexpr LerpFloats kLerpFloats = makeLerpFloats();

// Four entries of channel ch from decoded values a and b (whole numbers
// below 2^17, so that every step is exact).
inline Vec4f lerp4(int set, int q, Vec4f a, Vec4f b) {
    return glyptora_simd::floor((Vec4f::load(&kLerpFloats.a[set][q]) * a + Vec4f::load(&kLerpFloats.b[set][q]) * b +
                                 Vec4f(32.0f)) *
                                Vec4f(1.0f / 64.0f));
}

// Entry j of channel ch for four candidates (decoded values a and b, as for lerp4).
inline Vec4f lerp4lanes(int set, int j, Vec4f a, Vec4f b) {
    return glyptora_simd::floor((Vec4f(kLerpFloats.a[set][j]) * a + Vec4f(kLerpFloats.b[set][j]) * b + Vec4f(32.0f)) *
                                Vec4f(1.0f / 64.0f));
}

// Decoding of stored values of channel ch by the table (so for decoded
// precisions 4..8 only, as prepare_channel_scan checks).
struct ChannelDecode {
    const uint8_t* table;
    int shift, pbitA, pbitB;
    int up, down;  // bit replication of the decoded precision: (v << up) | (v >> down)
    ChannelDecode(const Segment& seg, const IntEndpts& endpts, int ch)
        : table(kUnquant.value[seg.prec[ch] + (seg.hasPBits ? 1 : 0)]),
          shift(seg.hasPBits ? 1 : 0),
          pbitA(seg.hasPBits ? endpts.pbitA : 0),
          pbitB(seg.hasPBits ? endpts.pbitB : 0),
          up(8 - (seg.prec[ch] + shift)),
          down(2 * (seg.prec[ch] + shift) - 8) {}
    int a(int value) const { return table[(value << shift) | pbitA]; }
    int b(int value) const { return table[(value << shift) | pbitB]; }
    // Four stored values at once (each within the precision).
    using Vec4i = glyptora_simd::Vec4i;
    Vec4i a4(Vec4i value) const { return replicate((value << shift) | Vec4i(pbitA)); }
    Vec4i b4(Vec4i value) const { return replicate((value << shift) | Vec4i(pbitB)); }
    Vec4i replicate(Vec4i v) const { return (v << up) | (v >> down); }
};

}  // namespace palette_detail
}  // namespace BC7Modes
