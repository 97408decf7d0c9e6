#include "astc/integer_sequence.h"

#include <array>
#include <cstring>

#include "astc/block_bits.h"
#include "astc/encoder_assert.h"

namespace glyptora_astc {

namespace {

// Packing tables built by unpacking every code: each value tuple takes the first (smallest)
// code that unpacks to it. Indexed by the tuple read as a base-3 / base-5 number, first value
// most significant.
constexpr std::array<uint8_t, 243> makeTritPacking() {
    std::array<uint8_t, 243> table{};
    std::array<bool, 243> seen{};
    for (uint32_t code = 0; code < 256; ++code) {
        uint8_t t[5] = {};
        unpackTrits(code, t);
        const int index = (((t[0] * 3 + t[1]) * 3 + t[2]) * 3 + t[3]) * 3 + t[4];
        if (!seen[index]) seen[index] = true, table[index] = uint8_t(code);
    }
    return table;
}

constexpr std::array<uint8_t, 125> makeQuintPacking() {
    std::array<uint8_t, 125> table{};
    std::array<bool, 125> seen{};
    for (uint32_t code = 0; code < 128; ++code) {
        uint8_t q[3] = {};
        unpackQuints(code, q);
        const int index = (q[0] * 5 + q[1]) * 5 + q[2];
        if (!seen[index]) seen[index] = true, table[index] = uint8_t(code);
    }
    return table;
}

constexpr std::array<uint8_t, 243> kTritPacking = makeTritPacking();
constexpr std::array<uint8_t, 125> kQuintPacking = makeQuintPacking();

// Code bits that follow each value of a group.
constexpr int kTritCodeBits[5] = {2, 2, 1, 2, 1};
constexpr int kQuintCodeBits[3] = {3, 2, 2};

constexpr const char* kWriteIntegers = "glyptora_astc::s_WriteIntegers";

}  // namespace

uint8_t packTrits(const uint8_t t[5]) { return kTritPacking[(((t[0] * 3 + t[1]) * 3 + t[2]) * 3 + t[3]) * 3 + t[4]]; }

uint8_t packQuints(const uint8_t q[3]) { return kQuintPacking[(q[0] * 5 + q[1]) * 5 + q[2]]; }

namespace {

// The bits of one sequence, gathered least significant first before they go into the block.
struct SequenceBits {
    using Bits = unsigned __int128;
    uint64_t low = 0, high = 0;  // bits 0..63 and 64..127
    int count = 0;

    // Appends the low n (< 64) bits of `value`.
    void put(uint64_t value, int n) {
        const uint64_t v = value & ((uint64_t(1) << n) - 1u);
        if (count < 64) {
            low |= v << count;
            if (count + n > 64) high |= v >> (64 - count);
        } else if (count < 128) {
            high |= v << (count - 64);
        }
        count += n;
    }

    // Bit i (0..count-1) moved to bit count-1-i.
    void reverse() {
        const auto reverse64 = [](uint64_t x) {
            x = ((x >> 1) & 0x5555555555555555ull) | ((x & 0x5555555555555555ull) << 1);
            x = ((x >> 2) & 0x3333333333333333ull) | ((x & 0x3333333333333333ull) << 2);
            x = ((x >> 4) & 0x0F0F0F0F0F0F0F0Full) | ((x & 0x0F0F0F0F0F0F0F0Full) << 4);
            return __builtin_bswap64(x);
        };
        // All 128 bits reversed, then shifted down by 128 - count.
        const Bits all = (Bits(reverse64(low)) << 64) | reverse64(high);
        const int shift = 128 - (count < 128 ? count : 128);
        const Bits reversed = shift >= 128 ? 0 : all >> shift;
        low = uint64_t(reversed), high = uint64_t(reversed >> 64);
    }

    // Writes the bits as writeBlockBits would write them one value at a time from `pos`: the
    // sequence as one 128-bit field merged into the block (little-endian).
    void writeTo(uint8_t* block, int& pos) {
        const int n = count < 128 ? count : 128;
        int at = pos;
        if (pos >= 0) {
            pos += count;
        } else {
            reverse();
            at = kAstcBlockBits + pos - n + 1;
            pos -= count;
        }
        // Field [at, at + n) clipped to the block; bits below 0 or from 128 up are dropped.
        Bits mask = n >= 128 ? ~Bits(0) : (Bits(1) << n) - 1u, field = (Bits(high) << 64) | low;
        if (at >= 128 || at <= -128) return;
        if (at >= 0) {
            mask <<= at, field <<= at;
        } else {
            mask >>= -at, field >>= -at;
        }
        Bits current;
        std::memcpy(&current, block, 16);
        current = (current & ~mask) | (field & mask);
        std::memcpy(block, &current, 16);
    }
};

}  // namespace

void s_WriteIntegers(uint8_t* block, AstcIntegerFormat format, const uint8_t* values, int count, int& bitPos) {
    const int bits = int(format.bits);
    const uint32_t lowMask = (1u << bits) - 1u;
    SequenceBits out;
    if (format.quints) {
        GLYPTORA_ASTC_ASSERT(kWriteIntegers, !format.trits);
        for (int first = 0; first < count; first += 3) {
            const int n = count - first < 3 ? count - first : 3;
            uint8_t qVals[3] = {0, 0, 0};
            for (int j = 0; j < n; ++j) {
                qVals[j] = uint8_t(values[first + j] >> bits);
                GLYPTORA_ASTC_ASSERT(kWriteIntegers, qVals[j] < 5);
                if (qVals[j] > 4) qVals[j] = 4;
            }
            // The group's bits in one word: each value's low bits, then its share of the code.
            uint32_t code = packQuints(qVals);
            uint64_t group = 0;
            int used = 0;
            for (int j = 0; j < n; ++j) {
                group |= uint64_t(values[first + j] & lowMask) << used;
                used += bits;
                group |= uint64_t(code & ((1u << kQuintCodeBits[j]) - 1u)) << used;
                used += kQuintCodeBits[j];
                code >>= kQuintCodeBits[j];
            }
            out.put(group, used);
        }
    } else if (format.trits) {
        for (int first = 0; first < count; first += 5) {
            const int n = count - first < 5 ? count - first : 5;
            uint8_t tVals[5] = {0, 0, 0, 0, 0};
            for (int j = 0; j < n; ++j) {
                tVals[j] = uint8_t(values[first + j] >> bits);
                GLYPTORA_ASTC_ASSERT(kWriteIntegers, tVals[j] < 3);
                if (tVals[j] > 2) tVals[j] = 2;
            }
            uint32_t code = packTrits(tVals);
            uint64_t group = 0;
            int used = 0;
            for (int j = 0; j < n; ++j) {
                group |= uint64_t(values[first + j] & lowMask) << used;
                used += bits;
                group |= uint64_t(code & ((1u << kTritCodeBits[j]) - 1u)) << used;
                used += kTritCodeBits[j];
                code >>= kTritCodeBits[j];
            }
            out.put(group, used);
        }
    } else {
        for (int i = 0; i < count; ++i) out.put(values[i] & lowMask, bits);
    }
    out.writeTo(block, bitPos);
}

void readIntegers(const uint8_t* block, int bitPos, AstcIntegerFormat format, int count, uint8_t* values) {
    const int bits = int(format.bits);
    const int groupSize = format.trits ? 5 : format.quints ? 3 : 1;
    const int* codeBits = format.trits ? kTritCodeBits : kQuintCodeBits;
    for (int first = 0; first < count; first += groupSize) {
        const int n = count - first < groupSize ? count - first : groupSize;
        uint32_t low[5] = {}, code = 0;
        int shift = 0;
        for (int j = 0; j < n; ++j) {
            low[j] = readBlockBits(block, bitPos, bits);
            bitPos += bits;
            if (groupSize > 1) {
                code |= readBlockBits(block, bitPos, codeBits[j]) << shift;
                bitPos += codeBits[j];
                shift += codeBits[j];
            }
        }
        uint8_t high[5] = {};
        if (format.trits)
            unpackTrits(code, high);
        else if (format.quints)
            unpackQuints(code, high);
        for (int j = 0; j < n; ++j) values[first + j] = uint8_t((uint32_t(high[j]) << bits) | low[j]);
    }
}

}  // namespace glyptora_astc
