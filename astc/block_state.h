#pragma once
// What the ASTC passes keep per block for the whole encode, and the error normalisation the
// refinement filters use.
#include <cstdint>

#include "core/host_device.h"

namespace glyptora_astc {

// The largest finite float: the error of a block that has no encoding yet.
inline constexpr double kAstcNoBlockError = 3.4028234663852886e38;

struct AstcBlockState {
    double bestError = kAstcNoBlockError;  // sum of squared weighted differences, valid texels
    int32_t dualPlaneChoice = -1;          // channel of the second plane; negative: no dual-plane try
    uint32_t partitionMark = 0;            // 2 or 3 when that many partitions gave the best so far
    uint8_t block[16] = {};                // the best block so far
};

// Error per sample of a block: E x (1/4 with alpha, else 1/3) / (valid width x valid height).
GLYPTORA_HD inline double astcPerSampleError(double error, uint16_t validRegion, bool hasAlpha) {
    const int texels = (validRegion & 0xFF) * (validRegion >> 8);
    return error * (hasAlpha ? 0.25 : 1.0 / 3.0) / double(texels > 0 ? texels : 1);
}

// Refinement threshold (c x A x 0.0003)^3 for c channels (4 with alpha, else 3) and a
// footprint of A texels.
GLYPTORA_HD inline double astcRefinementThreshold(int blockWidth, int blockHeight, bool hasAlpha) {
    const double x = (hasAlpha ? 4.0 : 3.0) * double(blockWidth * blockHeight) * 0.0003;
    return x * x * x;
}

}  // namespace glyptora_astc
