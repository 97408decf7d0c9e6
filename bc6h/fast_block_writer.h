#pragma once
// Block assembly of the fast BC6H encoder. Walking a mode's layout string bit by bit takes
// about half a microsecond, half as long as the rest of a block's encoding, so each mode's
// header is learned once from the shared header writer: the mode bits (written with all
// fields zero) and, by writing one field bit at a time, the block position of every field
// bit. Consecutive positions holding consecutive bits of one field merge into runs; a block
// is then the mode bits, a dozen shifted runs and the indices, put together in two 64-bit
// words.
#include <cstdint>
#include <cstring>

#include "bc6h/bc6h_format.h"
#include "core/assert.h"
#include "core/vec4.h"

namespace glyptora_bc6h {
inline namespace GLYPTORA_SIMD_ABI {
namespace fast {

// Header field numbering of the runs: endpoint e (w, x, y, z), channel c as 3 e + c; the shape.
inline constexpr int kShapeField = 12;

struct HeaderRun {
    uint8_t field;  // 3 e + c, or kShapeField
    uint8_t from;   // first bit of the field
    uint8_t to;     // its position in the block
    uint8_t count;  // bits in the run
};

struct ModeLayout {
    uint64_t modeBits[2];
    HeaderRun runs[64];
    int runCount;
    int headerBits;
};

// Learns the layout of one mode from writeHeader.
inline ModeLayout learnLayout(const Pattern& pattern) {
    ModeLayout layout{};
    auto write = [&](int shape, const StoredEndpoints& fields, int* bitsWritten) {
        uint8_t block[16] = {};
        BC6HModes::Bits out(block, 128);
        writeHeader(pattern, shape, fields, out);
        if (bitsWritten) *bitsWritten = out.getptr();
        uint64_t words[2];
        std::memcpy(words, block, 16);
        return (unsigned __int128)words[1] << 64 | words[0];
    };
    const StoredEndpoints zero{};
    const unsigned __int128 modeBits = write(0, zero, &layout.headerBits);
    layout.modeBits[0] = uint64_t(modeBits);
    layout.modeBits[1] = uint64_t(modeBits >> 64);
    // source[p]: field * 32 + bit of block position p, or -1 for mode bits.
    int source[128];
    for (int& s : source) s = -1;
    auto record = [&](unsigned __int128 word, int field, int bit) {
        word ^= modeBits;
        for (int p = 0; p < 128; ++p)
            if ((word >> p) & 1) source[p] = field * 32 + bit;
    };
    for (int e = 0; e < 2 * pattern.regions; ++e)
        for (int c = 0; c < 3; ++c)
            for (int bit = 0; bit < pattern.bits[c][e]; ++bit) {
                StoredEndpoints one{};
                one.field[e][c] = 1 << bit;
                record(write(0, one, nullptr), 3 * e + c, bit);
            }
    if (pattern.regions == 2)
        for (int bit = 0; bit < 5; ++bit) record(write(1 << bit, zero, nullptr), kShapeField, bit);
    for (int p = 0; p < layout.headerBits; ++p) {
        if (source[p] < 0) continue;
        HeaderRun* last = layout.runCount ? &layout.runs[layout.runCount - 1] : nullptr;
        // Runs stay inside one 64-bit half of the block.
        if (last && last->to + last->count == p && p != 64 &&
            last->field * 32 + last->from + last->count == source[p]) {
            ++last->count;
            continue;
        }
        GLYPTORA_ASSERT(layout.runCount < 64);
        layout.runs[layout.runCount++] = HeaderRun{uint8_t(source[p] / 32), uint8_t(source[p] % 32), uint8_t(p), 1};
    }
    return layout;
}

// Layouts of the one-region modes (in the order of kOneRegionPatterns) and the two-region
// modes (kTwoRegionPatterns), learned on first use.
struct ModeLayouts {
    ModeLayout one[4];
    ModeLayout two[10];
};

inline const ModeLayouts& modeLayouts() {
    static const ModeLayouts layouts = [] {
        ModeLayouts l;
        for (int m = 0; m < 4; ++m) l.one[m] = learnLayout(kOneRegionPatterns[m]);
        for (int m = 0; m < 10; ++m) l.two[m] = learnLayout(kTwoRegionPatterns[m]);
        return l;
    }();
    return layouts;
}

// Writes a block: header fields as stored (`fields`, masked by the runs), then the sixteen
// indices of `indexBits` bits, the anchor texels' one bit shorter (texel 0, and `anchor2`
// when it is not 0).
inline void writeBlock(const ModeLayout& layout, int shape, const StoredEndpoints& fields, const int (&idx)[16],
                       int indexBits, int anchor2, uint8_t out[16]) {
    int values[13];  // numbered as the runs' fields
    for (int e = 0; e < 4; ++e)
        for (int c = 0; c < 3; ++c) values[3 * e + c] = fields.field[e][c];
    values[kShapeField] = shape;
    uint64_t words[2] = {layout.modeBits[0], layout.modeBits[1]};
    for (int r = 0; r < layout.runCount; ++r) {
        const HeaderRun& run = layout.runs[r];
        const int value = values[run.field];
        const uint64_t bits = (uint32_t(value) >> run.from) & ((1u << run.count) - 1u);
        words[run.to >> 6] |= bits << (run.to & 63);
    }
    // The indices take at most 63 bits, gathered in one word first.
    uint64_t indices = 0;
    int p = 0;
    for (int i = 0; i < 16; ++i) {
        indices |= uint64_t(uint32_t(idx[i])) << p;
        p += (i == 0 || i == anchor2) ? indexBits - 1 : indexBits;
    }
    words[1] |= indices << (layout.headerBits - 64);  // headers of 65 or 82 bits
    std::memcpy(out, words, 16);
}

}  // namespace fast
}  // namespace GLYPTORA_SIMD_ABI
}  // namespace glyptora_bc6h
