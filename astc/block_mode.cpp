#include "astc/block_mode.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace glyptora_astc {

namespace {

// Key of a mode: grids run 2..12 on each side, ranges 0..11, one or two planes.
constexpr int kKeys = 13 * 13 * 2 * 12;

constexpr int keyOf(const AstcBlockMode& m) {
    return ((m.gridWidth * 13 + m.gridHeight) * 2 + (m.dualPlane ? 1 : 0)) * 12 + m.weightRange;
}

// The first of the 2048 encodings that decodes to each mode, found once.
const std::array<int16_t, kKeys>& encodings() {
    static const std::array<int16_t, kKeys> table = [] {
        std::array<int16_t, kKeys> t;
        t.fill(-1);
        for (uint32_t bits = 0; bits < 2048; ++bits) {
            AstcBlockMode m;
            if (!decodeAstcBlockMode(bits, m)) continue;
            int16_t& slot = t[size_t(keyOf(m))];
            if (slot < 0) slot = int16_t(bits);
        }
        return t;
    }();
    return table;
}

}  // namespace

int encodeAstcBlockMode(const AstcBlockMode& mode) {
    if (mode.gridWidth < 2 || mode.gridWidth > 12 || mode.gridHeight < 2 || mode.gridHeight > 12 ||
        mode.weightRange < 0 || mode.weightRange > 11)
        return -1;
    return encodings()[size_t(keyOf(mode))];
}

}  // namespace glyptora_astc
