#pragma once
// How the weight grid of a block spreads to its texels: each texel's weight is a bilinear
// blend of up to four grid points, with integer factors that sum to 16. The decoder and the
// encoder's grid fitting share this one rule.
#include "core/host_device.h"

namespace glyptora_astc {

struct AstcInfillTaps {
    int index[4];   // grid points (row-major), top-left, top-right, bottom-left, bottom-right
    int factor[4];  // 0..16, summing to 16
};

// Taps of texel (s, t) of a `blockWidth` x `blockHeight` footprint for a `gridWidth` x
// `gridHeight` grid. Points past the grid's last column or row only ever meet a zero factor;
// their index is clamped onto the grid so that it can be read.
GLYPTORA_HD inline AstcInfillTaps astcInfillTaps(int blockWidth, int blockHeight, int gridWidth, int gridHeight, int s,
                                                 int t) {
    const int ds = (1024 + blockWidth / 2) / (blockWidth - 1), dt = (1024 + blockHeight / 2) / (blockHeight - 1);
    const int gs = (ds * s * (gridWidth - 1) + 32) >> 6, gt = (dt * t * (gridHeight - 1) + 32) >> 6;
    const int js = gs >> 4, fs = gs & 15, jt = gt >> 4, ft = gt & 15;
    const int w11 = (fs * ft + 8) >> 4;
    const int js1 = js + 1 < gridWidth ? js + 1 : js, jt1 = jt + 1 < gridHeight ? jt + 1 : jt;
    AstcInfillTaps taps;
    taps.index[0] = jt * gridWidth + js;
    taps.index[1] = jt * gridWidth + js1;
    taps.index[2] = jt1 * gridWidth + js;
    taps.index[3] = jt1 * gridWidth + js1;
    taps.factor[0] = 16 - fs - ft + w11;
    taps.factor[1] = fs - w11;
    taps.factor[2] = ft - w11;
    taps.factor[3] = w11;
    return taps;
}

// Texel weight 0..64 from grid weights 0..64 (`stride` apart, for interleaved planes).
GLYPTORA_HD inline int astcInfillWeight(const AstcInfillTaps& taps, const int* gridWeights, int stride) {
    return (gridWeights[taps.index[0] * stride] * taps.factor[0] +
            gridWeights[taps.index[1] * stride] * taps.factor[1] +
            gridWeights[taps.index[2] * stride] * taps.factor[2] +
            gridWeights[taps.index[3] * stride] * taps.factor[3] + 8) >>
           4;
}

}  // namespace glyptora_astc
