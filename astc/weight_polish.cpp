#include "astc/weight_polish.h"

#include "astc/content_endpoints.h"
#include "astc/weight_quantization.h"

namespace glyptora_astc {

namespace {

constexpr int kRounds = 2;

struct Polish {
    const AstcBlockTexels& texels;
    const AstcGridInfill& grid;
    int planes = 1;
    int channel = -1;          // the channel of the second plane
    float from[4][4], to[4][4];  // decoded endpoints per partition, weighted space
    uint8_t partition[kAstcMaxTexels] = {};
    int level[2][64] = {};         // per plane and grid point: level index
    int gridWeight[2][64] = {};    // its weight 0..64
    int texelWeight[2][kAstcMaxTexels] = {};

    int infill(int plane, int t) const {
        if (grid.identity) return gridWeight[plane][t];
        int sum = 8;
        for (int k = 0; k < 4; ++k) sum += gridWeight[plane][grid.tapIndex[t * 4 + k]] * grid.tapFactor[t * 4 + k];
        return sum >> 4;
    }
    float error(int t, int w1, int w2) const {
        if (texels.valid[t] == 0.0f) return 0.0f;
        const int p = partition[t];
        float e = 0.0f;
        for (int c = 0; c < 4; ++c) {
            const float w = float(c == channel ? w2 : w1) * (1.0f / 64.0f);
            const float d = texels.channel[c][t] - (from[p][c] + (to[p][c] - from[p][c]) * w);
            e += d * d;
        }
        return e;
    }
};

}  // namespace

float astcPolishWeights(const AstcBlockTexels& texels, const AstcGridInfill& grid, const AstcBlockContent& content,
                        const uint8_t* partitionOf, const float weights[4], AstcBlockContent& polished,
                        float out[2][64]) {
    Polish s{texels, grid, 1, -1, {}, {}};
    s.planes = content.mode.dualPlane ? 2 : 1;
    s.channel = content.mode.dualPlane ? content.planeTwoComponent : -1;
    uint8_t endpoints[2][4][4] = {};
    astcContentEndpoints(content, endpoints[0], endpoints[1]);
    for (int p = 0; p < content.partitionCount; ++p)
        for (int c = 0; c < 4; ++c) {
            s.from[p][c] = float(endpoints[0][p][c]) * weights[c] / 255.0f;
            s.to[p][c] = float(endpoints[1][p][c]) * weights[c] / 255.0f;
        }
    if (partitionOf)
        for (int t = 0; t < texels.texels; ++t) s.partition[t] = partitionOf[t];
    const AstcWeightQuantizer& quantizer = astcWeightQuantizer(content.mode.weightRange);
    const int levels = quantizer.levels();
    for (int plane = 0; plane < s.planes; ++plane)
        for (int g = 0; g < grid.points; ++g) {
            const int w = astcWeightUnquant(content.mode.weightRange, content.weights[g * s.planes + plane]);
            s.gridWeight[plane][g] = w;
            s.level[plane][g] = quantizer.levelOf(w);
        }
    for (int plane = 0; plane < s.planes; ++plane)
        for (int t = 0; t < texels.texels; ++t) s.texelWeight[plane][t] = s.infill(plane, t);

    // The texels each grid point reaches.
    uint8_t reach[64][kAstcMaxTexels];
    int reachCount[64] = {};
    for (int t = 0; t < texels.texels; ++t) {
        if (grid.identity) {
            reach[t][reachCount[t]++] = uint8_t(t);
            continue;
        }
        for (int k = 0; k < 4; ++k) {
            const int g = grid.tapIndex[t * 4 + k];
            if (grid.tapFactor[t * 4 + k] && (reachCount[g] == 0 || reach[g][reachCount[g] - 1] != t))
                reach[g][reachCount[g]++] = uint8_t(t);
        }
    }
    float change = 0.0f;
    int trial[kAstcMaxTexels];
    for (int round = 0; round < kRounds; ++round) {
        bool movedThisRound = false;
        for (int plane = 0; plane < s.planes; ++plane)
            for (int g = 0; g < grid.points; ++g) {
                const int current = s.level[plane][g];
                float bestDelta = 0.0f;
                int bestLevel = current;
                for (int step = -1; step <= 1; step += 2) {
                    const int k = current + step;
                    if (k < 0 || k >= levels) continue;
                    s.gridWeight[plane][g] = quantizer.levelWeight(k);
                    float delta = 0.0f;
                    for (int r = 0; r < reachCount[g]; ++r) {
                        const int t = reach[g][r];
                        trial[r] = s.infill(plane, t);
                        const int other = s.planes == 2 ? s.texelWeight[1 - plane][t] : 0;
                        const int w1 = plane == 0 ? trial[r] : other, w2 = plane == 0 ? other : trial[r];
                        const int o1 = s.texelWeight[0][t], o2 = s.planes == 2 ? s.texelWeight[1][t] : 0;
                        delta += s.error(t, w1, w2) - s.error(t, o1, o2);
                    }
                    if (delta < bestDelta) bestDelta = delta, bestLevel = k;
                }
                s.gridWeight[plane][g] = quantizer.levelWeight(bestLevel);
                if (bestLevel == current) continue;
                s.level[plane][g] = bestLevel;
                for (int r = 0; r < reachCount[g]; ++r) s.texelWeight[plane][reach[g][r]] = s.infill(plane, reach[g][r]);
                change += bestDelta;
                movedThisRound = true;
            }
        if (!movedThisRound) break;
    }
    polished = content;
    for (int plane = 0; plane < 2; ++plane)
        for (int g = 0; g < 64; ++g) {
            const bool used = plane < s.planes && g < grid.points;
            out[plane][g] = used ? float(s.gridWeight[plane][g]) / 64.0f : 0.0f;
            if (used) polished.weights[g * s.planes + plane] = quantizer.levelIse(s.level[plane][g]);
        }
    return change;
}

}  // namespace glyptora_astc
