#pragma once
// Bit access to one 128-bit ASTC block, least significant bit first.
//
// The writer's position is signed: from 0 upward it fills the block from bit 0 (integer
// sequences of colour values, header fields); from -1 downward it fills the block from bit
// 127, one bit at a time with the value's lowest bit first, which lays a sequence out
// bit-reversed from the top of the block as the weight grid is stored.
#include <cstdint>

#include "core/host_device.h"

namespace glyptora_astc {

inline constexpr int kAstcBlockBits = 128;

// Writes the low `n` bits of `value` upward from bit `pos` (>= 0) in chunks that stop at byte
// borders, each a read-modify-write of one byte; bits past the block are dropped.
GLYPTORA_HD inline void writeBlockBitsUpward(uint8_t* block, int pos, uint32_t value, int n) {
    while (n > 0) {
        const int offset = pos & 7;
        const int chunk = n < 8 - offset ? n : 8 - offset;
        if (pos < kAstcBlockBits) {
            const uint32_t mask = ((1u << chunk) - 1u) << offset;
            block[pos >> 3] = uint8_t((block[pos >> 3] & ~mask) | ((value << offset) & mask));
        }
        value = chunk < 32 ? value >> chunk : 0;
        pos += chunk;
        n -= chunk;
    }
}

// Writes the low `n` bits (n <= 32) of `value` at `pos` and advances `pos` by n (upward) or
// leaves it at pos - n (downward). Only the written bits change; bits that would fall outside
// the block are dropped.
GLYPTORA_HD inline void writeBlockBits(uint8_t* block, int& pos, uint32_t value, int n) {
    if (pos >= 0) {
        writeBlockBitsUpward(block, pos, value, n);
        pos += n;
        return;
    }
    // Downward: bit i of the value lands on bit 128 + pos - i, which is the value's n bits
    // reversed, written upward from 128 + pos - n + 1.
    uint32_t reversed = 0;
    for (int i = 0; i < n; ++i) reversed |= ((value >> i) & 1u) << (n - 1 - i);
    int up = kAstcBlockBits + pos - n + 1, count = n;
    pos -= n;
    if (up < 0) {  // bits below the block are dropped
        if (-up >= count) return;
        reversed >>= -up;
        count += up;
        up = 0;
    }
    writeBlockBitsUpward(block, up, reversed, count);
}

// Reads `n` bits (n <= 32) upward from `pos`; bits at or beyond the block's end read as 0.
GLYPTORA_HD inline uint32_t readBlockBits(const uint8_t* block, int pos, int n) {
    uint32_t value = 0;
    for (int i = 0; i < n; ++i) {
        const int bit = pos + i;
        if (bit >= 0 && bit < kAstcBlockBits) value |= uint32_t((block[bit >> 3] >> (bit & 7)) & 1) << i;
    }
    return value;
}

// The block with its 128 bits in reverse order: the weight sequence reads upward from bit 0
// of the reversed block.
GLYPTORA_HD inline void reverseBlockBits(const uint8_t* block, uint8_t* reversed) {
    for (int i = 0; i < 16; ++i) {
        uint8_t b = block[15 - i], r = 0;
        for (int k = 0; k < 8; ++k) r = uint8_t(r | (((b >> k) & 1) << (7 - k)));
        reversed[i] = r;
    }
}

}  // namespace glyptora_astc
