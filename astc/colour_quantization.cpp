#include "astc/colour_quantization.h"

#include <cstdlib>

#include "astc/integer_sequence.h"
#include "astc/quantization_tables.h"

namespace glyptora_astc {

namespace {

AstcColourQuantTables buildTables() {
    AstcColourQuantTables out{};
    for (int r = kAstcFirstColourRange; r < kAstcRangeCount; ++r)
        for (int v = 0; v < 256; ++v) {
            int best = 0, bestDistance = 1 << 20;
            for (int q = 0; q < astcRangeLevels(r); ++q) {
                const int u = astcColourUnquant(r, q), d = std::abs(u - v);
                if (d < bestDistance || (d == bestDistance && u < astcColourUnquant(r, best)))
                    best = q, bestDistance = d;
            }
            out.iseValue[r][v] = uint8_t(best);
            out.nearest[r][v] = astcColourUnquant(r, best);
            int below = -1, above = -1;
            for (int q = 0; q < astcRangeLevels(r); ++q) {
                const int u = astcColourUnquant(r, q);
                if (u <= v && (below < 0 || u > astcColourUnquant(r, below))) below = q;
                if (u >= v && (above < 0 || u < astcColourUnquant(r, above))) above = q;
            }
            out.below[r][v] = uint8_t(below);
            out.above[r][v] = uint8_t(above);
        }
    return out;
}

}  // namespace

const AstcColourQuantTables kAstcColourQuantTables = buildTables();

}  // namespace glyptora_astc
