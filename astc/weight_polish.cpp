#include "astc/weight_polish.h"

#include "astc/content_endpoints.h"
#include "astc/weight_quantization.h"
#include "core/vec4.h"

namespace glyptora_astc {

namespace {

using glyptora_simd::Vec4f;

constexpr int kRounds = 2;

struct Polish {
    Polish(const AstcBlockTexels& t, const AstcGridInfill& g) : texels(t), grid(g) {}

    const AstcBlockTexels& texels;
    const AstcGridInfill& grid;
    int planes = 1;
    int channel = -1;          // the channel of the second plane
    alignas(16) float from[4][4], to[4][4];  // decoded endpoints per partition, weighted space
    uint8_t partition[kAstcMaxTexels] = {};
    int level[2][64] = {};         // per plane and grid point: level index
    int gridWeight[2][64] = {};    // its weight 0..64
    int texelWeight[2][kAstcMaxTexels] = {};
    // The decoder's infill sum before its shift: 8 + the sum of grid weight x tap factor (an
    // identity grid taps its own point at 16).
    int infillSum[2][kAstcMaxTexels] = {};

    // The texel's squared distance from its colour on its partition's segment at weights w1
    // (w2 for the second plane's channel), 0..64; invalid texels count nothing. The channels
    // go side by side and their squares add in channel order.
    float error(int t, int w1, int w2) const {
        if (texels.valid[t] == 0.0f) return 0.0f;
        const int p = partition[t];
        const Vec4f w = glyptora_simd::select(secondPlane, Vec4f(float(w2) * (1.0f / 64.0f)),
                                              Vec4f(float(w1) * (1.0f / 64.0f)));
        const Vec4f d = colour[t] - (start[p] + direction[p] * w);
        alignas(16) float e[4];
        (d * d).store(e);
        return ((e[0] + e[1]) + e[2]) + e[3];
    }
    Vec4f colour[kAstcMaxTexels];
    Vec4f start[4], direction[4];  // per partition: from, to - from
    Vec4f secondPlane;             // lane mask of `channel`
};

}  // namespace

float astcPolishWeights(const AstcBlockTexels& texels, const AstcGridInfill& grid, const AstcBlockContent& content,
                        const uint8_t* partitionOf, const float weights[4], AstcBlockContent& polished,
                        float out[2][64]) {
    Polish s(texels, grid);
    s.planes = content.mode.dualPlane ? 2 : 1;
    s.channel = content.mode.dualPlane ? content.planeTwoComponent : -1;
    uint8_t endpoints[2][4][4] = {};
    astcContentEndpoints(content, endpoints[0], endpoints[1]);
    for (int p = 0; p < content.partitionCount; ++p)
        for (int c = 0; c < 4; ++c) {
            s.from[p][c] = float(endpoints[0][p][c]) * weights[c] / 255.0f;
            s.to[p][c] = float(endpoints[1][p][c]) * weights[c] / 255.0f;
        }
    for (int p = 0; p < content.partitionCount; ++p) {
        s.start[p] = Vec4f::load(s.from[p]);
        s.direction[p] = Vec4f::load(s.to[p]) - s.start[p];
    }
    for (int t = 0; t < texels.texels; ++t)
        s.colour[t] = Vec4f(texels.channel[0][t], texels.channel[1][t], texels.channel[2][t], texels.channel[3][t]);
    alignas(16) float lane[4] = {};
    if (s.channel >= 0) lane[s.channel] = 1.0f;
    s.secondPlane = glyptora_simd::cmpGreater(Vec4f::load(lane), Vec4f());
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
    // The texels each grid point reaches, with the factor it reaches each by.
    struct Reach {
        const uint8_t *texel, *factor;
        int count;
    };
    const auto reachOf = [&grid](int g) {
        const int first = grid.reachStart[size_t(g)];
        return Reach{grid.reachTexel.data() + first, grid.reachFactor.data() + first, grid.reachStart[size_t(g) + 1] - first};
    };
    for (int plane = 0; plane < s.planes; ++plane) {
        for (int t = 0; t < texels.texels; ++t) s.infillSum[plane][t] = 8;
        for (int g = 0; g < grid.points; ++g) {
            const Reach reach = reachOf(g);
            for (int r = 0; r < reach.count; ++r) s.infillSum[plane][reach.texel[r]] += s.gridWeight[plane][g] * reach.factor[r];
        }
        for (int t = 0; t < texels.texels; ++t) s.texelWeight[plane][t] = s.infillSum[plane][t] >> 4;
    }
    // Each texel's error at its current weights, kept up to date as grid points move.
    float texelError[kAstcMaxTexels];
    for (int t = 0; t < texels.texels; ++t)
        texelError[t] = s.error(t, s.texelWeight[0][t], s.planes == 2 ? s.texelWeight[1][t] : 0);
    float change = 0.0f;
    int trial[2][kAstcMaxTexels];        // per step: the reached texels' weights
    float trialError[2][kAstcMaxTexels];  // and their errors
    // A grid point whose texels have not changed since it was last tried would find the same
    // moves again, none of them better: moves are numbered, and each texel keeps the number
    // of the last move that changed it and each grid point the number its last try saw.
    int moves = 0;
    int texelChanged[kAstcMaxTexels], tried[2][64];
    for (int t = 0; t < texels.texels; ++t) texelChanged[t] = 0;
    for (int plane = 0; plane < s.planes; ++plane)
        for (int g = 0; g < grid.points; ++g) tried[plane][g] = -1;
    for (int round = 0; round < kRounds; ++round) {
        bool movedThisRound = false;
        for (int plane = 0; plane < s.planes; ++plane)
            for (int g = 0; g < grid.points; ++g) {
                const Reach reach = reachOf(g);
                if (tried[plane][g] >= 0) {
                    bool changed = false;
                    for (int r = 0; r < reach.count && !changed; ++r) changed = texelChanged[reach.texel[r]] > tried[plane][g];
                    if (!changed) continue;
                }
                tried[plane][g] = moves;
                const int current = s.level[plane][g];
                float bestDelta = 0.0f;
                int bestLevel = current, bestStep = 0;
                for (int step = 0; step < 2; ++step) {
                    const int k = current + (step == 0 ? -1 : 1);
                    if (k < 0 || k >= levels) continue;
                    const int shift = quantizer.levelWeight(k) - s.gridWeight[plane][g];
                    float delta = 0.0f;
                    for (int r = 0; r < reach.count; ++r) {
                        const int t = reach.texel[r];
                        const int w = trial[step][r] = (s.infillSum[plane][t] + shift * reach.factor[r]) >> 4;
                        const int other = s.planes == 2 ? s.texelWeight[1 - plane][t] : 0;
                        const float e = trialError[step][r] = s.error(t, plane == 0 ? w : other, plane == 0 ? other : w);
                        delta += e - texelError[t];
                    }
                    if (delta < bestDelta) bestDelta = delta, bestLevel = k, bestStep = step;
                }
                if (bestLevel == current) continue;
                const int moved = quantizer.levelWeight(bestLevel) - s.gridWeight[plane][g];
                s.gridWeight[plane][g] += moved;
                s.level[plane][g] = bestLevel;
                ++moves;
                for (int r = 0; r < reach.count; ++r) {
                    const int t = reach.texel[r];
                    texelChanged[t] = moves;
                    s.infillSum[plane][t] += moved * reach.factor[r];
                    s.texelWeight[plane][t] = trial[bestStep][r];
                    texelError[t] = trialError[bestStep][r];
                }
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
