#pragma once
// Texel-to-partition assignment of multi-partition ASTC blocks: a hash of the 10-bit
// partition seed and the partition count picks, per texel, the largest of up to four
// pseudo-random linear functions of the texel position.
#include <cstdint>

#include "core/host_device.h"

namespace glyptora_astc {

GLYPTORA_HD inline uint32_t astcPartitionHash(uint32_t x) {
    x ^= x >> 15;
    x *= 0xEEDE0891u;
    x ^= x >> 5;
    x += x << 16;
    x ^= x >> 7;
    x ^= x >> 3;
    x ^= x << 6;
    x ^= x >> 17;
    return x;
}

// Blocks of fewer than 31 texels use doubled coordinates.
GLYPTORA_HD inline bool astcIsSmallBlock(int blockWidth, int blockHeight) { return blockWidth * blockHeight < 31; }

// Partition (0..partitionCount-1) of texel (x, y) for `seed` 0..1023.
GLYPTORA_HD inline int astcPartitionOf(int seed, int partitionCount, int x, int y, bool smallBlock) {
    if (partitionCount <= 1) return 0;
    if (smallBlock) x <<= 1, y <<= 1;
    seed += (partitionCount - 1) * 1024;
    const uint32_t rnum = astcPartitionHash(uint32_t(seed));
    // Twelve 4-bit factors, squared; the z factors (seeds 9 to 12) of 3D blocks are unused here.
    uint32_t s[8];
    for (int i = 0; i < 8; ++i) {
        const uint32_t v = (rnum >> (4 * i)) & 0xFu;
        s[i] = v * v;
    }
    int sh1, sh2;
    if (seed & 1) {
        sh1 = (seed & 2) ? 4 : 5;
        sh2 = partitionCount == 3 ? 6 : 5;
    } else {
        sh1 = partitionCount == 3 ? 6 : 5;
        sh2 = (seed & 2) ? 4 : 5;
    }
    for (int i = 0; i < 8; i += 2) s[i] >>= sh1, s[i + 1] >>= sh2;
    const int ux = x, uy = y;
    int a = int((s[0] * uint32_t(ux) + s[1] * uint32_t(uy) + (rnum >> 14)) & 0x3Fu);
    int b = int((s[2] * uint32_t(ux) + s[3] * uint32_t(uy) + (rnum >> 10)) & 0x3Fu);
    int c = int((s[4] * uint32_t(ux) + s[5] * uint32_t(uy) + (rnum >> 6)) & 0x3Fu);
    int d = int((s[6] * uint32_t(ux) + s[7] * uint32_t(uy) + (rnum >> 2)) & 0x3Fu);
    if (partitionCount < 4) d = 0;
    if (partitionCount < 3) c = 0;
    if (a >= b && a >= c && a >= d) return 0;
    if (b >= c && b >= d) return 1;
    if (c >= d) return 2;
    return 3;
}

}  // namespace glyptora_astc
