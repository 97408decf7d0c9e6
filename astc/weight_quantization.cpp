#include "astc/weight_quantization.h"

#include <algorithm>
#include <array>

#include "astc/encoder_assert.h"
#include "astc/integer_sequence.h"
#include "astc/quantization_tables.h"

namespace glyptora_astc {

namespace {

// The levels of each weight range in ascending order of their unquantised weight, with the
// ISE value that stands for each.
struct RangeLevels {
    int count = 0;
    std::array<uint8_t, 32> weight{};    // 0..64, ascending
    std::array<uint8_t, 32> iseValue{};  // ISE value of that weight
};

const std::array<RangeLevels, kAstcWeightRangeCount>& sortedLevels() {
    static const std::array<RangeLevels, kAstcWeightRangeCount> levels = [] {
        std::array<RangeLevels, kAstcWeightRangeCount> all;
        for (int r = 0; r < kAstcWeightRangeCount; ++r) {
            RangeLevels& l = all[r];
            l.count = astcRangeLevels(r);
            std::array<uint8_t, 32> order{};
            for (int v = 0; v < l.count; ++v) order[v] = uint8_t(v);
            std::stable_sort(order.begin(), order.begin() + l.count,
                             [r](uint8_t x, uint8_t y) { return astcWeightUnquant(r, x) < astcWeightUnquant(r, y); });
            for (int k = 0; k < l.count; ++k) {
                l.iseValue[k] = order[k];
                l.weight[k] = astcWeightUnquant(r, order[k]);
            }
        }
        return all;
    }();
    return levels;
}

}  // namespace

void s_QuantizeIndices(const FloatMatrix& floatInd, int numIndices, int range, uint8_t* out) {
    GLYPTORA_ASTC_ASSERT("glyptora_astc::s_QuantizeIndices", floatInd.Lines() == (unsigned)numIndices);
    const RangeLevels& levels = sortedLevels()[std::clamp(range, 0, kAstcWeightRangeCount - 1)];
    const int available = std::min(int(floatInd.Lines()), numIndices);
    for (int i = 0; i < numIndices; ++i) {
        const float w = i < available ? floatInd(unsigned(i)) : 0.0f;
        const float target = (w > 0.0f ? (w < 1.0f ? w : 1.0f) : 0.0f) * 64.0f;  // NaN fails w > 0
        // First level at or above the target, then the nearer of it and the one below.
        int k = 0;
        while (k < levels.count - 1 && float(levels.weight[k]) < target) ++k;
        if (k > 0 && target - float(levels.weight[k - 1]) <= float(levels.weight[k]) - target) --k;
        out[i] = levels.iseValue[k];
    }
}

}  // namespace glyptora_astc
