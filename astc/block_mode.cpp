#include "astc/block_mode.h"

namespace glyptora_astc {

int encodeAstcBlockMode(const AstcBlockMode& mode) {
    for (uint32_t bits = 0; bits < 2048; ++bits) {
        AstcBlockMode m;
        if (decodeAstcBlockMode(bits, m) && m.gridWidth == mode.gridWidth && m.gridHeight == mode.gridHeight &&
            m.dualPlane == mode.dualPlane && m.weightRange == mode.weightRange)
            return int(bits);
    }
    return -1;
}

}  // namespace glyptora_astc
