#pragma once
// Integer sequence encoding (ISE) of ASTC: colour values and weights are stored as
// sequences of values of one range, each value split into plain low bits and, for ranges
// of 3 or 5 times a power of two, a trit (0..2) or quint (0..4). Five trits share an
// 8-bit code and three quints a 7-bit code, interleaved with the values' low bits.
#include <cstdint>

#include "core/host_device.h"

namespace glyptora_astc {

// How the values of one range are stored.
struct AstcIntegerFormat {
    uint32_t bits;    // plain low bits of every value
    uint32_t trits;   // non-zero: value = trit * 2^bits + low bits
    uint32_t quints;  // non-zero: value = quint * 2^bits + low bits
};

// The 21 ranges, index 0..20 with 2, 3, 4, 5, 6, 8, 10, 12, 16, 20, 24, 32, 40, 48, 64, 80,
// 96, 128, 160, 192 and 256 levels. Weights use 0..11, colour values 4..20.
inline constexpr int kAstcRangeCount = 21;

GLYPTORA_HD constexpr AstcIntegerFormat astcRangeFormat(int range) {
    // Index 0 is one plain bit; from index 1 on the ranges run in threes: trit with b bits,
    // b + 2 plain bits, quint with b bits (3, 4, 5 levels for b = 0, then 6, 8, 10, ...).
    if (range <= 0) return {1, 0, 0};
    const uint32_t b = uint32_t(range - 1) / 3;
    switch ((range - 1) % 3) {
        case 0: return {b, 1, 0};
        case 1: return {b + 2, 0, 0};
        default: return {b, 0, 1};
    }
}

GLYPTORA_HD constexpr int astcRangeLevels(int range) {
    const AstcIntegerFormat f = astcRangeFormat(range);
    return (f.trits ? 3 : f.quints ? 5 : 1) << f.bits;
}

// Bits taken by `count` values of `format`.
GLYPTORA_HD constexpr int astcSequenceBits(AstcIntegerFormat format, int count) {
    const int b = int(format.bits);
    if (format.trits) return ((5 * b + 8) * count + 4) / 5;
    if (format.quints) return ((3 * b + 7) * count + 2) / 3;
    return b * count;
}

// The five trits of an 8-bit trit code.
GLYPTORA_HD constexpr void unpackTrits(uint32_t code, uint8_t t[5]) {
    const auto bit = [code](int i) { return (code >> i) & 1u; };
    uint32_t c = 0;
    if (((code >> 2) & 7u) == 7u) {
        c = (((code >> 5) & 7u) << 2) | (code & 3u);
        t[4] = 2;
        t[3] = 2;
    } else {
        c = code & 0x1Fu;
        if (((code >> 5) & 3u) == 3u) {
            t[4] = 2;
            t[3] = uint8_t(bit(7));
        } else {
            t[4] = uint8_t(bit(7));
            t[3] = uint8_t((code >> 5) & 3u);
        }
    }
    const auto cbit = [c](int i) { return (c >> i) & 1u; };
    if ((c & 3u) == 3u) {
        t[2] = 2;
        t[1] = uint8_t(cbit(4));
        t[0] = uint8_t((cbit(3) << 1) | (cbit(2) & ~cbit(3) & 1u));
    } else if (((c >> 2) & 3u) == 3u) {
        t[2] = 2;
        t[1] = 2;
        t[0] = uint8_t(c & 3u);
    } else {
        t[2] = uint8_t(cbit(4));
        t[1] = uint8_t((c >> 2) & 3u);
        t[0] = uint8_t((cbit(1) << 1) | (cbit(0) & ~cbit(1) & 1u));
    }
}

// The three quints of a 7-bit quint code.
GLYPTORA_HD constexpr void unpackQuints(uint32_t code, uint8_t q[3]) {
    const auto bit = [code](int i) { return (code >> i) & 1u; };
    if (((code >> 1) & 3u) == 3u && ((code >> 5) & 3u) == 0u) {
        q[2] = uint8_t((bit(0) << 2) | ((bit(4) & ~bit(0) & 1u) << 1) | (bit(3) & ~bit(0) & 1u));
        q[1] = 4;
        q[0] = 4;
        return;
    }
    uint32_t c = 0;
    if (((code >> 1) & 3u) == 3u) {
        q[2] = 4;
        c = (((code >> 3) & 3u) << 3) | ((~(code >> 5) & 3u) << 1) | bit(0);
    } else {
        q[2] = uint8_t((code >> 5) & 3u);
        c = code & 0x1Fu;
    }
    if ((c & 7u) == 5u) {
        q[1] = 4;
        q[0] = uint8_t((c >> 3) & 3u);
    } else {
        q[1] = uint8_t((c >> 3) & 3u);
        q[0] = uint8_t(c & 7u);
    }
}

// Code of five trits / three quints (each in range). Of the codes that unpack to the same
// values the smallest is used; it keeps the bits of absent trailing zeros at zero, so a
// short last group can leave them out.
uint8_t packTrits(const uint8_t t[5]);
uint8_t packQuints(const uint8_t q[3]);

// Appends `count` values of `format` to the block at the running bit position `bitPos`
// (upward from >= 0, bit-reversed downward from < 0, see writeBlockBits). Values go in
// groups of five (trits) or three (quints); a short last group writes only the values present
// and the code bits that follow them.
void s_WriteIntegers(uint8_t* block, AstcIntegerFormat format, const uint8_t* values, int count, int& bitPos);

// Reads `count` values of `format` upward from bit `bitPos` of the block; code bits of a
// short last group that the sequence does not hold count as 0.
void readIntegers(const uint8_t* block, int bitPos, AstcIntegerFormat format, int count, uint8_t* values);

}  // namespace glyptora_astc
