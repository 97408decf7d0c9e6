#pragma once
// LSB-first bit cursor over a caller-owned block buffer. BC7 and BC6H blocks are
// assembled (and read back by the decoders) through it. The cursor never owns
// the buffer and never touches a bit at or beyond its capacity.
#include <cstdint>

#include "core/assert.h"
#include "core/host_device.h"

namespace glyptora_internal {

class Bits {
public:
    // Writer over `maxdatabits` bits of `data`.
    GLYPTORA_HD Bits(uint8_t* data, int maxdatabits) {
        GLYPTORA_ASSERT(data && maxdatabits > 0);
        bptr = 0;
        highmark = 0;
        bits = data;
        rbits = nullptr;
        maxbits = maxdatabits;
        readonly = false;
    }

    // Reader over `availdatabits` bits of `data`.
    GLYPTORA_HD Bits(const uint8_t* data, int availdatabits) {
        const int maxdatabits = availdatabits;
        GLYPTORA_ASSERT(data && maxdatabits > 0);
        bptr = 0;
        highmark = availdatabits;
        bits = nullptr;
        rbits = data;
        maxbits = availdatabits;
        readonly = true;
    }

    // Writes the `nbits` low bits of `value`, least significant first.
    GLYPTORA_HD void write(int value, int nbits) {
        GLYPTORA_ASSERT(nbits >= 0 && nbits < 32);
        const uint32_t v = uint32_t(value);
        if (!readonly && nbits > 0 && nbits < 32 && bptr + nbits <= maxbits) {
            // Whole field inside the buffer: one read-modify-write of the bytes it
            // touches (at most five), same result as bit by bit.
            const int first = bptr >> 3, offset = bptr & 7;
            const int count = (offset + nbits + 7) >> 3;
            uint64_t window = 0;
            for (int i = 0; i < count; ++i) window |= uint64_t(bits[first + i]) << (8 * i);
            const uint64_t mask = ((uint64_t(1) << nbits) - 1u) << offset;
            window = (window & ~mask) | ((uint64_t(v) << offset) & mask);
            for (int i = 0; i < count; ++i) bits[first + i] = uint8_t(window >> (8 * i));
            bptr += nbits;
            if (highmark < bptr) highmark = bptr;
            return;
        }
        for (int i = 0; i < nbits; ++i) writeone(i < 32 ? int((v >> i) & 1u) : 0);
    }

    GLYPTORA_HD void writeone(int bit) {
        GLYPTORA_ASSERT(!readonly);
        GLYPTORA_ASSERT(bptr < maxbits);
        if (readonly || bptr >= maxbits) return;  // dropped
        const uint8_t mask = uint8_t(1u << (bptr & 7));
        if (bit & 1)
            bits[bptr >> 3] |= mask;
        else
            bits[bptr >> 3] &= uint8_t(~mask);
        ++bptr;
        if (highmark < bptr) highmark = bptr;
    }

    // Reads `nbits` bits, least significant first.
    GLYPTORA_HD int read(int nbits) {
        GLYPTORA_ASSERT(nbits >= 0 && nbits < 32);
        uint32_t v = 0;
        for (int i = 0; i < nbits && i < 32; ++i) v |= uint32_t(readone()) << i;
        return int(v);
    }

    GLYPTORA_HD int readone() {
        GLYPTORA_ASSERT(readonly);
        GLYPTORA_ASSERT(bptr < highmark);
        if (!readonly || bptr >= highmark) return 0;
        const int bit = (rbits[bptr >> 3] >> (bptr & 7)) & 1;
        ++bptr;
        return bit;
    }

    GLYPTORA_HD int getptr() const { return bptr; }
    GLYPTORA_HD void setptr(int ptr) {
        GLYPTORA_ASSERT(ptr >= 0 && ptr <= maxbits);
        if (ptr >= 0 && ptr <= maxbits) bptr = ptr;
    }
    GLYPTORA_HD int gethighmark() const { return highmark; }
    GLYPTORA_HD int getmaxbits() const { return maxbits; }

private:
    int32_t bptr;          // next bit to write or read
    int32_t highmark;      // one past the highest bit written (reader: bits available)
    uint8_t* bits;         // writer's buffer
    const uint8_t* rbits;  // reader's buffer
    int32_t maxbits;       // capacity in bits
    bool readonly;
};

}  // namespace glyptora_internal
