#include "astc/weight_quantization.h"

#include <algorithm>
#include <array>

#include "astc/encoder_assert.h"
#include "astc/integer_sequence.h"
#include "astc/quantization_tables.h"

namespace glyptora_astc {

AstcWeightQuantizer::AstcWeightQuantizer(int range) {
    m_count = astcRangeLevels(range);
    std::array<uint8_t, 32> order{};
    for (int v = 0; v < m_count; ++v) order[size_t(v)] = uint8_t(v);
    std::stable_sort(order.begin(), order.begin() + m_count, [range](uint8_t x, uint8_t y) {
        return astcWeightUnquant(range, x) < astcWeightUnquant(range, y);
    });
    for (int k = 0; k < m_count; ++k) {
        m_iseValue[k] = order[size_t(k)];
        m_weight[k] = astcWeightUnquant(range, order[size_t(k)]);
    }
    for (int t = 0, k = 0; t <= 64; ++t) {
        while (k + 1 < m_count && m_weight[k + 1] <= t) ++k;
        m_below[t] = uint8_t(k);
    }
    for (int k = 0; k < m_count; ++k) {
        m_mirror[m_iseValue[k]] = m_iseValue[m_count - 1 - k];
        m_middle[k] = k + 1 < m_count ? 0.5f * float(m_weight[k] + m_weight[k + 1]) : 1e9f;
    }
}

const AstcWeightQuantizer& astcWeightQuantizer(int range) {
    static const std::array<AstcWeightQuantizer, kAstcWeightRangeCount> quantizers = [] {
        return std::array<AstcWeightQuantizer, kAstcWeightRangeCount>{
            AstcWeightQuantizer(0), AstcWeightQuantizer(1), AstcWeightQuantizer(2),  AstcWeightQuantizer(3),
            AstcWeightQuantizer(4), AstcWeightQuantizer(5), AstcWeightQuantizer(6),  AstcWeightQuantizer(7),
            AstcWeightQuantizer(8), AstcWeightQuantizer(9), AstcWeightQuantizer(10), AstcWeightQuantizer(11)};
    }();
    return quantizers[size_t(std::clamp(range, 0, kAstcWeightRangeCount - 1))];
}

void s_QuantizeIndices(const FloatMatrix& floatInd, int numIndices, int range, uint8_t* out) {
    GLYPTORA_ASTC_ASSERT("glyptora_astc::s_QuantizeIndices", floatInd.Lines() == (unsigned)numIndices);
    const AstcWeightQuantizer& quantize = astcWeightQuantizer(range);
    const int available = std::min(int(floatInd.Lines()), numIndices);
    for (int i = 0; i < numIndices; ++i) out[i] = quantize(i < available ? floatInd(unsigned(i)) : 0.0f).iseValue;
}

}  // namespace glyptora_astc
