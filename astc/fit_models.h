#pragma once
// The least-squares models the ASTC block searches score candidates with: the decoder's
// weight infill, weight-plane moments over a texel mask, the per-channel quadratic error of
// an endpoint pair and lower bounds of what each endpoint mode can reach.
#include "astc/block_texels.h"
#include "astc/infill_database.h"
#include "astc/weight_quantization.h"
#include "core/vec4.h"

namespace glyptora_astc {

using glyptora_simd::Vec4f;

// Texel weights / 64 of grid weights 0..64, as the decoder infills them: (sum of weight x
// factor + 8) >> 4, exact in float. Writes the padded texel count (padding reads 0).
inline void astcInfillWeights(const AstcGridInfill& g, int texels, const float* gridWeights, float* out) {
    constexpr float kScale = 1.0f / 64.0f;
    const int padded = (texels + 3) & ~3;
    if (g.identity) {
        for (int i = 0; i < padded; i += 4) (Vec4f::load(gridWeights + i) * Vec4f(kScale)).store(out + i);
        return;
    }
    const int32_t* tap = g.tapLanes.data();
    const float* factor = g.factorLanes.data();
    for (int i = 0; i < padded; i += 4) {
        Vec4f sum(8.0f);
        for (int k = 0; k < 4; ++k) {
            const int32_t* t = tap + k * padded + i;
            const Vec4f w(gridWeights[t[0]], gridWeights[t[1]], gridWeights[t[2]], gridWeights[t[3]]);
            sum += w * Vec4f::load(factor + k * padded + i);
        }
        (glyptora_simd::floor(sum * Vec4f(1.0f / 16.0f)) * Vec4f(kScale)).store(out + i);
    }
}

// One mode's quantised weights: ISE values and 0..64 values per grid point, and per texel
// the infilled weight / 64, for each plane.
struct AstcWeightTrial {
    uint8_t ise[2][64];
    alignas(16) float grid[2][64];  // 0..64; past the points: 0
    alignas(16) float texel[2][kAstcMaxTexels];
};

// Quantises the grid weights `grid1` (and `grid2` for two planes), fractions of one, to
// `weightRange` and infills them to the texels.
inline void astcQuantizeTrial(const AstcGridInfill& grid, int weightRange, int texels, int planes, const float* grid1,
                              const float* grid2, AstcWeightTrial& trial) {
    const AstcWeightQuantizer& quantize = astcWeightQuantizer(weightRange);
    for (int plane = 0; plane < planes; ++plane) {
        const float* g = plane == 0 ? grid1 : grid2;
        for (int p = 0; p < grid.points; ++p) {
            const AstcQuantizedWeight q = quantize(g[p]);
            trial.ise[plane][p] = q.iseValue;
            trial.grid[plane][p] = q.weight;
        }
        for (int p = grid.points; p < ((grid.points + 3) & ~3); ++p) trial.grid[plane][p] = 0.0f;
        astcInfillWeights(grid, texels, trial.grid[plane], trial.texel[plane]);
    }
}

// Per-channel sums of a weight plane over the valid texels: count, sum of w, of w^2, of
// w times each centred channel.
struct AstcWeightMoments {
    float n = 0, sw = 0, sww = 0;
    float swx[4] = {};
};

inline AstcWeightMoments astcWeightMoments(const float* valid, const float* w, const float (*x)[kAstcMaxTexels],
                                           int padded) {
    Vec4f n, sw, sww, sx0, sx1, sx2, sx3;
    for (int i = 0; i < padded; i += 4) {
        const Vec4f m = Vec4f::load(valid + i), wi = Vec4f::load(w + i);
        const Vec4f mw = m * wi;
        n += m;
        sw += mw;
        sww += mw * wi;
        sx0 += mw * Vec4f::load(x[0] + i);
        sx1 += mw * Vec4f::load(x[1] + i);
        sx2 += mw * Vec4f::load(x[2] + i);
        sx3 += mw * Vec4f::load(x[3] + i);
    }
    AstcWeightMoments out;
    out.n = glyptora_simd::horizontalSum(n);
    out.sw = glyptora_simd::horizontalSum(sw);
    out.sww = glyptora_simd::horizontalSum(sww);
    out.swx[0] = glyptora_simd::horizontalSum(sx0);
    out.swx[1] = glyptora_simd::horizontalSum(sx1);
    out.swx[2] = glyptora_simd::horizontalSum(sx2);
    out.swx[3] = glyptora_simd::horizontalSum(sx3);
    return out;
}

// Quadratic error model of the four channels (one per lane) for endpoints e0, e1 (centred):
// with x the centred texels and w their weights, sum (e0 (1 - w) + e1 w - x)^2 over the valid
// texels is s + 2 swx (e0 - e1) + a e0^2 + 2 b e0 e1 + c e1^2.
struct AstcChannelModels {
    Vec4f s, n, sw, sww, swx;
    Vec4f a, b, c;

    void finish() {
        a = n - Vec4f(2.0f) * sw + sww;
        b = sw - sww;
        c = sww;
    }
    float error(Vec4f e0, Vec4f e1) const {
        const Vec4f e = s + Vec4f(2.0f) * swx * (e0 - e1) + a * e0 * e0 + Vec4f(2.0f) * b * e0 * e1 + c * e1 * e1;
        return glyptora_simd::horizontalSum(e);
    }
    // Least-squares endpoints; returns the error they leave.
    float fit(Vec4f& e0, Vec4f& e1) const {
        const Vec4f det = n * sww - sw * sw;
        const Vec4f solvable = glyptora_simd::cmpGreater(det, Vec4f(1e-9f) * n * n);
        const Vec4f inverse = glyptora_simd::select(solvable, Vec4f(1.0f) / det, Vec4f());
        e0 = -swx * sw * inverse;
        e1 = swx * (n - sw) * inverse;
        return glyptora_simd::horizontalSum(s - n * swx * swx * inverse);
    }
    // Least excess of the error when the endpoints move by d0, d1.
    Vec4f excess(Vec4f d0, Vec4f d1) const { return a * d0 * d0 + Vec4f(2.0f) * b * d0 * d1 + c * d1 * d1; }
};

// A lower bound of the error of endpoint mode `cem` given the least-squares endpoints e0, e1
// (centred, in `models`' lanes) and the error `bound` they leave. Luminance modes put both
// endpoints on the grey axis; base-plus-offset modes keep them within 32 of each other
// (8-bit). Other modes get the plain bound.
inline float astcEndpointModeBound(int cem, const AstcChannelModels& models, Vec4f e0, Vec4f e1, Vec4f mean,
                                   const float* weights, int planeTwo, float bound) {
    const Vec4f rgb(1.0f, 1.0f, 1.0f, 0.0f);
    if (cem == 0 || cem == 4) {
        // With a colour channel on its own plane the grey fit below is not the minimum.
        if (planeTwo >= 0 && planeTwo < 3) return bound;
        const Vec4f w = Vec4f::load(weights) * rgb;
        const float norm = glyptora_simd::dot4(w, w);
        const Vec4f target0 = mean + e0, target1 = mean + e1;
        const float l0 = glyptora_simd::dot4(w, target0) / norm, l1 = glyptora_simd::dot4(w, target1) / norm;
        const Vec4f d0 = (w * Vec4f(l0) - target0) * rgb, d1 = (w * Vec4f(l1) - target1) * rgb;
        return bound + glyptora_simd::horizontalSum(models.excess(d0, d1));
    }
    if (cem == 9 || cem == 13) {
        // Moving the difference e1 - e0 by `shift` costs at least shift^2 det / n.
        const Vec4f limit = Vec4f(32.0f / 255.0f) * Vec4f::load(weights);
        Vec4f shift = glyptora_simd::max(glyptora_simd::abs(e1 - e0) - limit, Vec4f());
        if (cem == 9) shift = shift * rgb;
        const Vec4f det = models.n * models.sww - models.sw * models.sw;
        const Vec4f extra = glyptora_simd::select(glyptora_simd::cmpGreater(models.n, Vec4f()),
                                                  shift * shift * det / models.n, Vec4f());
        return bound + glyptora_simd::horizontalSum(extra);
    }
    return bound;
}

}  // namespace glyptora_astc
