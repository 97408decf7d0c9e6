#include "astc/block_mode_table.h"

#include <algorithm>

#include "astc/block_layout.h"

namespace glyptora_astc {

AstcModeInfo astcModeInfo(const AstcBlockMode& mode) {
    AstcModeInfo info;
    info.mode = mode;
    info.modeBits = encodeAstcBlockMode(mode);
    info.weightBits = mode.weightBits();
    for (int cls = 0; cls < 4; ++cls)
        info.colourRange[cls] = astcColourRange(1, 0, mode.dualPlane, info.weightBits, 2 * (cls + 1));
    return info;
}

AstcModeInfo astcModeInfo(uint16_t packed, bool dualPlane) {
    AstcBlockMode mode;
    mode.gridWidth = packed & 15;
    mode.gridHeight = (packed >> 4) & 15;
    mode.weightRange = packed >> 8;
    mode.dualPlane = dualPlane;
    return astcModeInfo(mode);
}

std::vector<AstcModeInfo> astcFootprintModes(int blockWidth, int blockHeight, bool dualPlane) {
    std::vector<AstcModeInfo> modes;
    for (int gw = 2; gw <= blockWidth; ++gw)
        for (int gh = 2; gh <= blockHeight; ++gh)
            for (int range = 0; range < 12; ++range) {
                AstcBlockMode mode;
                mode.gridWidth = gw, mode.gridHeight = gh, mode.weightRange = range, mode.dualPlane = dualPlane;
                if (!astcBlockModeFits(mode, blockWidth, blockHeight)) continue;
                const AstcModeInfo info = astcModeInfo(mode);
                if (info.modeBits >= 0 && info.colourRange[0] >= 0) modes.push_back(info);
            }
    std::stable_sort(modes.begin(), modes.end(), [](const AstcModeInfo& a, const AstcModeInfo& b) {
        return a.mode.gridWidth * a.mode.gridHeight < b.mode.gridWidth * b.mode.gridHeight;
    });
    return modes;
}

}  // namespace glyptora_astc
