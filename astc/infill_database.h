#pragma once
// InfillMatDataBase: for one footprint, how every weight grid spreads to the texels (the
// decoder's bilinear infill) and the least-squares fit the encoder uses to get grid weights
// from per-texel weights. Made at the start of an encode, read-only during the passes; the
// tables behind it are built once per process (under a lock) and shared.
#include <cstddef>
#include <cstdint>
#include <vector>

namespace glyptora_astc {

struct AstcGridInfill {
    int gridWidth = 0;
    int gridHeight = 0;
    int points = 0;
    bool identity = false;  // the grid is the footprint: grid point i is texel i
    // Mean over the texels of the sum of their squared tap factors (factors scaled to sum 1):
    // how much of independent noise on the grid points reaches a texel's weight.
    float noiseGain = 1.0f;
    std::vector<uint8_t> tapIndex;   // 4 grid points per texel
    std::vector<uint8_t> tapFactor;  // their factors, 0..16, summing to 16
    // The same taps tap by tap for four texels at a time (texels padded to a multiple of 4,
    // padding reads point 0 with factor 0): tapLanes[k * padded + i], factorLanes likewise.
    std::vector<int32_t> tapLanes;
    std::vector<float> factorLanes;
    // The other way round: the texels each grid point reaches, in texel order, with the factor
    // it reaches each by (taps of one point into one texel merged): those of point g at
    // reachStart[g] .. reachStart[g + 1] - 1 of reachTexel and reachFactor.
    std::vector<uint16_t> reachStart;
    std::vector<uint8_t> reachTexel, reachFactor;
    // Least-squares fit: grid weights = fit x texel weights, stored texel by texel: for each
    // texel the factors of all grid points, `fitStride` floats (points padded to a multiple
    // of 4); empty until prepared.
    int fitStride = 0;
    std::vector<float> fit;
};

class InfillMatDataBase {
public:
    InfillMatDataBase(int blockWidth, int blockHeight);

    int blockWidth() const { return m_blockWidth; }
    int blockHeight() const { return m_blockHeight; }
    // The grid `gridWidth` x `gridHeight` (2..block width, 2..block height).
    const AstcGridInfill& grid(int gridWidth, int gridHeight) const {
        return m_grids[size_t((gridHeight - 2) * kSides + gridWidth - 2)];
    }

    // Builds the least-squares fit of the grid `gridWidth` x `gridHeight` unless it exists.
    // Call before the passes that read it.
    void prepareFit(int gridWidth, int gridHeight);

private:
    static constexpr int kSides = 11;  // grid sides 2..12
    int m_blockWidth;
    int m_blockHeight;
    AstcGridInfill* m_grids;  // kSides x kSides, by (height - 2) * kSides + width - 2
};

}  // namespace glyptora_astc
