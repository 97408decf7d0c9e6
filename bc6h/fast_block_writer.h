#pragma once
// Block assembly of the fast BC6H encoder. Walking a mode's layout string bit by bit takes
// about half a microsecond, half as long as the rest of a block's encoding, so each mode's
// header is learned at compile time from the layout string: the mode bits and the block
// position of every field bit. Consecutive positions holding consecutive bits of one field
// merge into runs; a block is then the mode bits, a dozen shifted runs and the indices, put
// together in two 64-bit words.
#include <cstdint>
#include <cstring>

#include "bc6h/bc6h_format.h"
#include "bc6h/header_walk.h"
#include "core/host_device.h"
#include "core/vec4.h"

// Tables the kernels read live in device memory under nvcc, as the BC7 tables do.
#if defined(__CUDACC__)
#define GLYPTORA_BC6H_TABLE __device__ constexpr
#else
#define GLYPTORA_BC6H_TABLE inline constexpr
#endif

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

// Learns the layout of one mode at compile time from its layout string (header_walk.h), the
// description the header writer walks too: the mode bits and, for every other header bit,
// the field bit it holds.
constexpr ModeLayout learnLayout(const Pattern& pattern) {
    ModeLayout layout{};
    // source[p]: field * 32 + bit of block position p, or -1 for mode bits.
    int source[128] = {};
    for (int& s : source) s = -1;
    int position = 0;
    forEachHeaderBit(pattern.layout, [&](char name0, char name1, int bit) {
        if (name0 == 'm') {
            if ((pattern.modeValue >> bit) & 1) layout.modeBits[position >> 6] |= uint64_t(1) << (position & 63);
        } else if (name0 == 'd') {
            source[position] = kShapeField * 32 + bit;
        } else {
            source[position] = (3 * endpointOf(name1) + channelOf(name0)) * 32 + bit;
        }
        ++position;
    });
    layout.headerBits = position;
    for (int p = 0; p < layout.headerBits; ++p) {
        if (source[p] < 0) continue;
        HeaderRun* last = layout.runCount ? &layout.runs[layout.runCount - 1] : nullptr;
        // Runs stay inside one 64-bit half of the block.
        if (last && last->to + last->count == p && p != 64 &&
            last->field * 32 + last->from + last->count == source[p]) {
            ++last->count;
            continue;
        }
        // More than 64 runs would index past `runs`, which stops the compilation.
        layout.runs[layout.runCount++] = HeaderRun{uint8_t(source[p] / 32), uint8_t(source[p] % 32), uint8_t(p), 1};
    }
    return layout;
}

// What the fast encoder needs of one mode, on the host and on the device: the field widths,
// whether endpoints after w are deltas, the mode value and the header's runs.
struct FastMode {
    int bits[3][4];
    bool transformed;
    int modeValue;
    ModeLayout layout;
};

// The one-region modes (in the order of kOneRegionPatterns) and the two-region modes
// (kTwoRegionPatterns).
struct FastModes {
    FastMode one[4];
    FastMode two[10];
};

constexpr FastMode fastModeOf(const Pattern& p) {
    FastMode m{};
    for (int c = 0; c < 3; ++c)
        for (int e = 0; e < 4; ++e) m.bits[c][e] = p.bits[c][e];
    m.transformed = p.transformed;
    m.modeValue = p.modeValue;
    m.layout = learnLayout(p);
    return m;
}

constexpr FastModes makeFastModes() {
    FastModes modes{};
    for (int m = 0; m < 4; ++m) modes.one[m] = fastModeOf(kOneRegionPatterns[m]);
    for (int m = 0; m < 10; ++m) modes.two[m] = fastModeOf(kTwoRegionPatterns[m]);
    return modes;
}

GLYPTORA_BC6H_TABLE FastModes kFastModes = makeFastModes();

// Writes a block: header fields as stored (`fields`, masked by the runs), then the sixteen
// indices of `indexBits` bits, the anchor texels' one bit shorter (texel 0, and `anchor2`
// when it is not 0).
GLYPTORA_HD inline void writeBlock(const ModeLayout& layout, int shape, const StoredEndpoints& fields,
                                   const int (&idx)[16], int indexBits, int anchor2, uint8_t out[16]) {
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
    memcpy(out, words, 16);
}

}  // namespace fast
}  // namespace GLYPTORA_SIMD_ABI
}  // namespace glyptora_bc6h
