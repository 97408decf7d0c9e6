#pragma once
// The 11-bit block mode field of a 2D ASTC block: weight grid size, weight range and
// whether the block has a second weight plane.
#include <cstdint>

#include "astc/integer_sequence.h"
#include "core/host_device.h"

namespace glyptora_astc {

struct AstcBlockMode {
    int gridWidth = 0;
    int gridHeight = 0;
    bool dualPlane = false;
    int weightRange = 0;  // range index 0..11

    GLYPTORA_HD int weightCount() const { return gridWidth * gridHeight * (dualPlane ? 2 : 1); }
    GLYPTORA_HD int weightBits() const { return astcSequenceBits(astcRangeFormat(weightRange), weightCount()); }
};

// Decodes the low 11 bits of `mode`. False for the reserved encodings and for the void-extent
// marker (low 9 bits 0x1FC), which have no weight grid.
GLYPTORA_HD inline bool decodeAstcBlockMode(uint32_t mode, AstcBlockMode& out) {
    const auto field = [mode](int first, int count) { return int((mode >> first) & ((1u << count) - 1u)); };
    int range = 0, a = field(5, 2), b = field(7, 2);
    bool highPrecision = field(9, 1) != 0, dual = field(10, 1) != 0;
    if ((mode & 3u) != 0) {
        range = field(4, 1) | (field(0, 2) << 1);
        switch (field(2, 2)) {
            case 0: out.gridWidth = b + 4, out.gridHeight = a + 2; break;
            case 1: out.gridWidth = b + 8, out.gridHeight = a + 2; break;
            case 2: out.gridWidth = a + 2, out.gridHeight = b + 8; break;
            default:
                if (field(8, 1) == 0)
                    out.gridWidth = a + 2, out.gridHeight = field(7, 1) + 6;
                else
                    out.gridWidth = field(7, 1) + 2, out.gridHeight = a + 2;
                break;
        }
    } else {
        range = field(4, 1) | (field(2, 2) << 1);
        if (field(2, 2) == 0) return false;  // reserved (low four bits zero)
        switch (b) {
            case 0: out.gridWidth = 12, out.gridHeight = a + 2; break;
            case 1: out.gridWidth = a + 2, out.gridHeight = 12; break;
            case 2:  // bits 9 and 10 are the second grid dimension here
                out.gridWidth = a + 6, out.gridHeight = field(9, 2) + 6;
                highPrecision = dual = false;
                break;
            default:
                if (field(6, 1)) return false;  // reserved, and the void-extent marker
                out.gridWidth = field(5, 1) ? 10 : 6;
                out.gridHeight = field(5, 1) ? 6 : 10;
                break;
        }
    }
    out.dualPlane = dual;
    out.weightRange = range - 2 + (highPrecision ? 6 : 0);
    return true;
}

// Whether a decoded mode can be used with a footprint: grid within the footprint, at most
// 64 weights and 24 to 96 weight bits.
GLYPTORA_HD inline bool astcBlockModeFits(const AstcBlockMode& mode, int blockWidth, int blockHeight) {
    const int bits = mode.weightBits();
    return mode.gridWidth <= blockWidth && mode.gridHeight <= blockHeight && mode.weightCount() <= 64 &&
           bits >= 24 && bits <= 96;
}

// The 11-bit encoding of a mode (the first of the 2048 that decodes to it), or -1 when no
// encoding exists.
int encodeAstcBlockMode(const AstcBlockMode& mode);

}  // namespace glyptora_astc
