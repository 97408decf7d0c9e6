#include "astc/quantization_tables.h"

#include <array>
#include <cstddef>

#include "astc/integer_sequence.h"

namespace glyptora_astc {

namespace {

// A value's plain bits repeated from the top down to fill `width` bits.
constexpr uint32_t replicate(uint32_t value, int bits, int width) {
    uint32_t out = 0;
    int filled = 0;
    while (filled < width) {
        const int take = bits < width - filled ? bits : width - filled;
        out = (out << take) | (value >> (bits - take));
        filled += take;
    }
    return out;
}

// Bit pattern B of a trit or quint range: a string, most significant bit first, of '0' and
// the letters 'b'..'f' standing for bits 1..5 of the value's plain bits.
constexpr uint32_t patternBits(const char* pattern, uint32_t lowBits) {
    uint32_t out = 0;
    for (const char* p = pattern; *p; ++p) out = (out << 1) | (*p == '0' ? 0u : (lowBits >> (*p - 'a')) & 1u);
    return out;
}

struct SpreadRule {
    int range;
    const char* pattern;
    uint32_t multiplier;
};

// Trit and quint ranges with plain bits: T = D * C + B, mirrored by bit a, top bits dropped.
constexpr SpreadRule kWeightRules[] = {
    {4, "0000000", 50}, {6, "0000000", 28}, {7, "b000b0b", 23}, {9, "b0000b0", 13}, {10, "cb000cb", 11},
};
constexpr SpreadRule kColourRules[] = {
    {4, "000000000", 204}, {6, "000000000", 113}, {7, "b000b0bb0", 93},  {9, "b0000bb00", 54},
    {10, "cb000cbcb", 44}, {12, "cb0000cbc", 26}, {13, "dcb000dcb", 22}, {15, "dcb0000dc", 13},
    {16, "edcb000ed", 11}, {18, "edcb0000e", 6},  {19, "fedcb000f", 5},
};

// `width` is 7 for weights (result 0..63) and 9 for colours (0..255).
template <size_t N>
constexpr uint32_t spread(const SpreadRule (&rules)[N], int range, uint32_t value, int width) {
    const AstcIntegerFormat f = astcRangeFormat(range);
    const uint32_t low = value & ((1u << f.bits) - 1u), high = value >> f.bits;
    for (const SpreadRule& rule : rules) {
        if (rule.range != range) continue;
        const uint32_t a = (low & 1u) ? (1u << width) - 1u : 0u;
        const uint32_t t = (high * rule.multiplier + patternBits(rule.pattern, low)) ^ a;
        return (a & (1u << (width - 2))) | (t >> 2);
    }
    return 0;
}

constexpr uint32_t weightValue(int range, uint32_t value) {
    const AstcIntegerFormat f = astcRangeFormat(range);
    uint32_t w = 0;
    if (!f.trits && !f.quints)
        w = replicate(value, int(f.bits), 6);
    else if (f.bits == 0)
        return value * (f.trits ? 32u : 16u);  // 3 and 5 levels: evenly spaced over 0..64
    else
        w = spread(kWeightRules, range, value, 7);
    return w > 32 ? w + 1 : w;  // 0..63 stretched to 0..64
}

constexpr uint32_t colourValue(int range, uint32_t value) {
    const AstcIntegerFormat f = astcRangeFormat(range);
    if (!f.trits && !f.quints) return replicate(value, int(f.bits), 8);
    return spread(kColourRules, range, value, 9);
}

constexpr AstcUnquantTables makeTables() {
    AstcUnquantTables t{};
    for (int r = 0; r < kAstcWeightRangeCount; ++r)
        for (int v = 0; v < astcRangeLevels(r); ++v) t.weights[r][v] = uint8_t(weightValue(r, uint32_t(v)));
    for (int r = kAstcFirstColourRange; r < kAstcRangeCount; ++r)
        for (int v = 0; v < astcRangeLevels(r); ++v) t.colours[r][v] = uint8_t(colourValue(r, uint32_t(v)));
    return t;
}

}  // namespace

constexpr AstcUnquantTables kAstcUnquantTables = makeTables();

}  // namespace glyptora_astc
