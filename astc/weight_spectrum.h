#pragma once
// How much of a block's ideal per-texel weights each weight grid can hold, estimated from
// their cosine spectrum: a grid of gw x gh points keeps roughly the frequencies below gw
// across and gh down, so the energy above them is what fitting that grid loses. One
// transform per block ranks every grid of the footprint.
#include "astc/block_texels.h"

namespace glyptora_astc {

class AstcWeightSpectrum {
public:
    // Transforms `u` (blockWidth x blockHeight weights, row by row).
    void compute(const float* u, int blockWidth, int blockHeight);

    // Energy (sum of squares over the texels) that a gridWidth x gridHeight grid cannot hold.
    float lostEnergy(int gridWidth, int gridHeight) const { return m_total - m_kept[gridHeight - 1][gridWidth - 1]; }

    // The same for one grid without the whole transform: only the frequencies it keeps.
    static float lostEnergyOf(const float* u, int blockWidth, int blockHeight, int gridWidth, int gridHeight);

private:
    float m_total = 0.0f;
    float m_kept[12][12] = {};  // [rows - 1][columns - 1]: energy of the lowest frequencies
};

}  // namespace glyptora_astc
