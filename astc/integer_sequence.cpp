#include "astc/integer_sequence.h"

#include <array>

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

void s_WriteIntegers(uint8_t* block, AstcIntegerFormat format, const uint8_t* values, int count, int& bitPos) {
    const int bits = int(format.bits);
    const uint32_t lowMask = (1u << bits) - 1u;
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
            uint32_t code = packQuints(qVals);
            for (int j = 0; j < n; ++j) {
                writeBlockBits(block, bitPos, values[first + j] & lowMask, bits);
                writeBlockBits(block, bitPos, code, kQuintCodeBits[j]);
                code >>= kQuintCodeBits[j];
            }
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
            for (int j = 0; j < n; ++j) {
                writeBlockBits(block, bitPos, values[first + j] & lowMask, bits);
                writeBlockBits(block, bitPos, code, kTritCodeBits[j]);
                code >>= kTritCodeBits[j];
            }
        }
    } else {
        for (int i = 0; i < count; ++i) writeBlockBits(block, bitPos, values[i] & lowMask, bits);
    }
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
