#pragma once
// Quantisation of fitted weights to ISE values of a weight range.
#include <cstdint>

#include "astc/float_matrix.h"

namespace glyptora_astc {

// Maps each weight of the one-column matrix `floatInd` (0 = first endpoint, 1 = second;
// values outside clamp, NaN reads as 0) to the ISE value of weight range `range` (0..11)
// whose unquantised weight is nearest; of two equally near levels the lower wins. Writes
// `numIndices` values; the matrix must have exactly that many lines.
void s_QuantizeIndices(const FloatMatrix& floatInd, int numIndices, int range, uint8_t* out);

// The same rule for one weight, as a table walk for the encoder's inner loops.
struct AstcQuantizedWeight {
    uint8_t iseValue;
    uint8_t weight;  // 0..64
};

class AstcWeightQuantizer {
public:
    explicit AstcWeightQuantizer(int range);

    AstcQuantizedWeight operator()(float w) const {
        const float target = (w > 0.0f ? (w < 1.0f ? w : 1.0f) : 0.0f) * 64.0f;  // NaN fails w > 0
        // The level at or below the target, then the one above it when strictly nearer.
        int k = m_below[int(target)];
        k += target > m_middle[k] ? 1 : 0;  // strictly nearer the level above
        return {m_iseValue[k], m_weight[k]};
    }

    int levels() const { return m_count; }
    // Level k (0..levels-1, ascending): its weight 0..64 and its ISE value; the level of a weight
    // that is one.
    int levelWeight(int k) const { return m_weight[k]; }
    uint8_t levelIse(int k) const { return m_iseValue[k]; }
    int levelOf(int weight) const { return m_below[weight]; }
    // ISE value whose weight is 64 minus that of `iseValue` (every weight range is symmetric).
    uint8_t mirror(uint8_t iseValue) const { return m_mirror[iseValue]; }

private:
    int m_count = 0;
    uint8_t m_weight[32] = {};    // ascending
    uint8_t m_iseValue[32] = {};  // ISE value of each ascending level
    uint8_t m_below[65] = {};     // index of the highest level <= t for t = 0..64
    float m_middle[32] = {};      // halfway to the next level (past the last: never reached)
    uint8_t m_mirror[32] = {};
};

// The quantiser of each weight range 0..11, built once.
const AstcWeightQuantizer& astcWeightQuantizer(int range);

}  // namespace glyptora_astc
