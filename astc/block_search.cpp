#include "astc/block_search.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "astc/colour_statistics.h"
#include "astc/endpoint_encoding.h"
#include "astc/integer_sequence.h"
#include "astc/quantization_tables.h"
#include "astc/weight_quantization.h"
#include "astc/weight_spectrum.h"
#include "core/vec4.h"

namespace glyptora_astc {

using glyptora_simd::Vec4f;

// One mode's quantised weights: ISE values and 0..64 values per grid point, and per texel
// the infilled weight / 64, for each plane.
struct AstcBlockSearch::Trial {
    uint8_t ise[2][64];
    alignas(16) float grid[2][64];  // 0..64; past the points: 0
    alignas(16) float texel[2][kAstcMaxTexels];
};

namespace {

// Texel weights / 64 of grid weights 0..64, as the decoder infills them: (sum of weight x
// factor + 8) >> 4, exact in float. Writes the padded texel count (padding reads 0).
void infill(const AstcGridInfill& g, int texels, const float* gridWeights, float* out) {
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

// Per-channel sums of a weight plane over the valid texels: count, sum of w, of w^2, of
// w times each centred channel.
struct Moments {
    float n = 0, sw = 0, sww = 0;
    float swx[4] = {};
};

Moments moments(const float* valid, const float* w, const float (*x)[kAstcMaxTexels], int padded) {
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
    Moments out;
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
struct ChannelModels {
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
float endpointModeBound(int cem, const ChannelModels& models, Vec4f e0, Vec4f e1, Vec4f mean, const float* weights,
                        int planeTwo, float bound) {
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

}  // namespace

void astcFitGrid(const AstcGridInfill& grid, int texels, const float* u, float* out) {
    if (grid.identity) {
        std::memcpy(out, u, sizeof(float) * size_t(texels));
        return;
    }
    // Texel by texel, each adding its weight times its column of the fit; sixteen grid points
    // at a time so that the sums stay in registers.
    const int chunks = grid.fitStride / 4;
    alignas(16) float all[64];
    for (int first = 0; first < chunks; first += 4) {
        Vec4f s0, s1, s2, s3;
        const float* column = grid.fit.data() + 4 * first;
        const int count = chunks - first;
        for (int i = 0; i < texels; ++i, column += grid.fitStride) {
            const Vec4f ui(u[i]);
            s0 += Vec4f::load(column) * ui;
            if (count > 1) s1 += Vec4f::load(column + 4) * ui;
            if (count > 2) s2 += Vec4f::load(column + 8) * ui;
            if (count > 3) s3 += Vec4f::load(column + 12) * ui;
        }
        s0.store(all + 4 * first);
        if (count > 1) s1.store(all + 4 * first + 4);
        if (count > 2) s2.store(all + 4 * first + 8);
        if (count > 3) s3.store(all + 4 * first + 12);
    }
    std::memcpy(out, all, sizeof(float) * size_t(grid.points));
}

AstcBlockSearch::AstcBlockSearch(const AstcBlockTexels& texels, const float weights[4], const float inverseWeights[4])
    : m_texels(texels), m_weights(weights), m_inverseWeights(inverseWeights) {
    const int padded = texels.padded;
    Vec4f sum[4];
    for (int i = 0; i < padded; i += 4) {
        const Vec4f m = Vec4f::load(texels.valid + i);
        for (int c = 0; c < 4; ++c) sum[c] += m * Vec4f::load(texels.channel[c] + i);
    }
    const float n = texels.validCount > 0 ? float(texels.validCount) : 1.0f;
    for (int c = 0; c < 4; ++c) m_mean[c] = glyptora_simd::horizontalSum(sum[c]) / n;
    // Centred channels (0 past the footprint) and their products over the valid texels.
    Vec4f products[10];
    for (int i = 0; i < padded; i += 4) {
        const Vec4f m = Vec4f::load(texels.valid + i);
        const Vec4f inside = glyptora_simd::cmpLess(Vec4f(float(i)) + Vec4f(0, 1, 2, 3), Vec4f(float(texels.texels)));
        Vec4f x[4];
        for (int c = 0; c < 4; ++c) {
            x[c] = glyptora_simd::select(inside, Vec4f::load(texels.channel[c] + i) - Vec4f(m_mean[c]), Vec4f());
            x[c].store(m_centred[c] + i);
        }
        int k = 0;
        for (int r = 0; r < 4; ++r) {
            const Vec4f mx = m * x[r];
            for (int c = r; c < 4; ++c) products[k++] += mx * x[c];
        }
    }
    for (int r = 0, k = 0; r < 4; ++r)
        for (int c = r; c < 4; ++c, ++k) {
            const float p = glyptora_simd::horizontalSum(products[k]);
            m_covariance[r][c] = m_covariance[c][r] = p / n;
            if (r == c) m_sumSquares[c] = p;
        }
}

// Per-texel weights along the principal axis of the plane-1 channels (all but `channel`),
// and for a second plane the position of each texel in `channel`'s own range.
void AstcBlockSearch::idealWeights(int channel) {
    float cov[4][4];
    std::memcpy(cov, m_covariance, sizeof cov);
    if (channel >= 0)
        for (int c = 0; c < 4; ++c) cov[c][channel] = cov[channel][c] = 0.0f;
    float axis[4];
    astcPrincipalAxis(cov, axis);
    const int texels = m_texels.texels, padded = m_texels.padded;
    float* t = m_ideal[0];
    Vec4f low(1e30f), high(-1e30f);
    for (int i = 0; i < padded; i += 4) {
        const Vec4f p = Vec4f::load(m_centred[0] + i) * Vec4f(axis[0]) +
                        Vec4f::load(m_centred[1] + i) * Vec4f(axis[1]) +
                        Vec4f::load(m_centred[2] + i) * Vec4f(axis[2]) + Vec4f::load(m_centred[3] + i) * Vec4f(axis[3]);
        p.store(t + i);
        const Vec4f inside = glyptora_simd::cmpLess(Vec4f(float(i)) + Vec4f(0, 1, 2, 3), Vec4f(float(texels)));
        low = glyptora_simd::select(inside, glyptora_simd::min(low, p), low);
        high = glyptora_simd::select(inside, glyptora_simd::max(high, p), high);
    }
    const float lo = std::min(std::min(low[0], low[1]), std::min(low[2], low[3]));
    const float hi = std::max(std::max(high[0], high[1]), std::max(high[2], high[3]));
    const float scale = hi - lo > 1e-12f ? 1.0f / (hi - lo) : 0.0f;
    for (int i = 0; i < padded; i += 4) {
        const Vec4f inside = glyptora_simd::cmpLess(Vec4f(float(i)) + Vec4f(0, 1, 2, 3), Vec4f(float(texels)));
        glyptora_simd::select(inside, (Vec4f::load(t + i) - Vec4f(lo)) * Vec4f(scale), Vec4f()).store(t + i);
    }
    astcExtendFromValidTexels(m_texels, t);
    m_span[0] = hi - lo;
    m_span[1] = 0.0f;
    if (channel < 0) return;
    const float* x = m_centred[channel];
    float lo2 = 1e30f, hi2 = -1e30f;
    for (int i = 0; i < texels; ++i) lo2 = x[i] < lo2 ? x[i] : lo2, hi2 = x[i] > hi2 ? x[i] : hi2;
    const float scale2 = hi2 - lo2 > 1e-12f ? 1.0f / (hi2 - lo2) : 0.0f;
    m_span[1] = hi2 - lo2;
    for (int i = 0; i < padded; ++i) m_ideal[1][i] = i < texels ? (x[i] - lo2) * scale2 : 0.0f;
    astcExtendFromValidTexels(m_texels, m_ideal[1]);
}

bool AstcBlockSearch::tryMode(const AstcModeInfo& info, const AstcGridInfill& grid, const float* grid1,
                              const float* grid2, int channel, const AstcSearchSettings& settings,
                              AstcSearchResult& best, Trial& trial) const {
    const int planes = channel >= 0 ? 2 : 1;
    const AstcWeightQuantizer& quantize = astcWeightQuantizer(info.mode.weightRange);
    for (int plane = 0; plane < planes; ++plane) {
        const float* g = plane == 0 ? grid1 : grid2;
        for (int p = 0; p < grid.points; ++p) {
            const AstcQuantizedWeight q = quantize(g[p]);
            trial.ise[plane][p] = q.iseValue;
            trial.grid[plane][p] = q.weight;
        }
        for (int p = grid.points; p < ((grid.points + 3) & ~3); ++p) trial.grid[plane][p] = 0.0f;
        infill(grid, m_texels.texels, trial.grid[plane], trial.texel[plane]);
    }
    const Moments m1 = moments(m_texels.valid, trial.texel[0], m_centred, m_texels.padded);
    ChannelModels models;
    models.s = Vec4f::load(m_sumSquares);
    models.n = Vec4f(m1.n);
    models.sw = Vec4f(m1.sw);
    models.sww = Vec4f(m1.sww);
    models.swx = Vec4f::load(m1.swx);
    if (planes == 2) {
        // The second plane's channel reads its own weights.
        const Moments m2 = moments(m_texels.valid, trial.texel[1], m_centred, m_texels.padded);
        float lane[4] = {0, 0, 0, 0};
        lane[channel] = 1.0f;
        const Vec4f mask = glyptora_simd::cmpGreater(Vec4f::load(lane), Vec4f());
        models.sw = glyptora_simd::select(mask, Vec4f(m2.sw), models.sw);
        models.sww = glyptora_simd::select(mask, Vec4f(m2.sww), models.sww);
        models.swx = glyptora_simd::select(mask, Vec4f::load(m2.swx), models.swx);
    }
    models.finish();
    // The least-squares endpoints bound what any endpoint mode can reach with these weights.
    Vec4f e0, e1;
    const float bound = models.fit(e0, e1);
    if (!(double(bound) < best.error)) return false;

    const Vec4f mean = Vec4f::load(m_mean), toBytes = Vec4f::load(m_inverseWeights) * Vec4f(255.0f);
    float lo[4], hi[4];
    ((mean + e0) * toBytes).store(lo);
    ((mean + e1) * toBytes).store(hi);
    const Vec4f toWeighted = Vec4f::load(m_weights) * Vec4f(1.0f / 255.0f);
    // The models' quadratics in 8-bit units, for the encoders' choice of levels.
    AstcEndpointErrorModel levelModel;
    const Vec4f unit2 = toWeighted * toWeighted;
    (models.a * unit2).store(levelModel.a);
    (models.b * unit2).store(levelModel.b);
    (models.c * unit2).store(levelModel.c);
    const AstcEndpointErrorModel* levels = settings.chooseLevels ? &levelModel : nullptr;
    const auto errorOf = [&](const AstcEncodedEndpoints& enc) {
        const Vec4f a(float(enc.lo[0]), float(enc.lo[1]), float(enc.lo[2]), float(enc.lo[3]));
        const Vec4f b(float(enc.hi[0]), float(enc.hi[1]), float(enc.hi[2]), float(enc.hi[3]));
        const float error = models.error(a * toWeighted - mean, b * toWeighted - mean);
        return error > 0.0f ? double(error) : 0.0;
    };
    const int direct = m_texels.hasAlpha ? 12 : 8;
    AstcEncodedEndpoints directEnc, scratch, winnerEnc;
    double directError = kAstcNoBlockError;
    const int directRange = info.colourRange[direct >> 2];
    if (directRange >= 0) {
        astcEncodeEndpoints(direct, directRange, lo, hi, m_weights, directEnc, levels);
        directError = errorOf(directEnc);
    }
    double bestError = best.error;
    int winner = -1, winnerRange = -1;
    for (int k = 0; k < settings.endpointModeCount; ++k) {
        const int cem = settings.endpointModes[k];
        const int range = info.colourRange[cem >> 2];
        if (range < 0) continue;
        if (cem == direct) {
            if (settings.blueContraction && directRange < kAstcRangeCount - 1 &&
                astcEncodeEndpointsBlueContracted(direct, directRange, lo, hi, scratch)) {
                const double error = errorOf(scratch);
                if (error < directError) directError = error, directEnc = scratch;
            }
            if (!(directError < bestError)) continue;
            bestError = directError;
            winnerEnc = directEnc;
        } else {
            const double limit = bestError < directError ? bestError : directError;
            if (endpointModeBound(cem, models, e0, e1, mean, m_weights, channel, bound) > limit) continue;
            astcEncodeEndpoints(cem, range, lo, hi, m_weights, scratch, levels);
            const double error = errorOf(scratch);
            if (!(error < bestError)) continue;
            bestError = error;
            winnerEnc = scratch;
        }
        winner = cem;
        winnerRange = range;
    }
    if (winner < 0) return false;
    const AstcEncodedEndpoints& enc = winnerEnc;
    best.error = bestError;
    AstcBlockContent& content = best.content;
    content.mode = info.mode;
    content.partitionCount = 1;
    content.cem[0] = uint8_t(winner);
    content.colourRange = winnerRange;
    content.planeTwoComponent = channel >= 0 ? channel : 0;
    std::memcpy(content.colourValues, enc.values, sizeof enc.values);
    for (int p = 0; p < grid.points; ++p)
        for (int plane = 0; plane < planes; ++plane) {
            const uint8_t v = trial.ise[plane][p];
            content.weights[p * planes + plane] = enc.invert ? quantize.mirror(v) : v;
        }
    return true;
}

// Per-texel weights that put each texel nearest to its colour on the segment between the
// decoded endpoints of `best` (plane 1: all channels but `channel`; plane 2: `channel`).
void AstcBlockSearch::refitWeights(const AstcSearchResult& best, int channel, float* u1, float* u2) const {
    uint8_t unquantised[8], e0[4], e1[4];
    const AstcBlockContent& content = best.content;
    for (int i = 0; i < astcEndpointValueCount(content.cem[0]); ++i)
        unquantised[i] = astcColourUnquant(content.colourRange, content.colourValues[i]);
    decodeAstcEndpoints(content.cem[0], unquantised, e0, e1);
    float a[4], d[4], length = 0.0f;
    for (int c = 0; c < 4; ++c) {
        const float scale = m_weights[c] / 255.0f;
        a[c] = float(e0[c]) * scale - m_mean[c];
        d[c] = (float(e1[c]) - float(e0[c])) * scale;
        if (c != channel) length += d[c] * d[c];
    }
    // Four texels at a time; the padding past the footprint comes out 0 (the fits read it).
    const int texels = m_texels.texels, padded = m_texels.padded;
    const Vec4f inv(length > 1e-12f ? 1.0f / length : 0.0f), zero, one(1.0f);
    Vec4f dir[4], from[4];
    for (int c = 0; c < 4; ++c) {
        dir[c] = Vec4f(c != channel ? d[c] : 0.0f);
        from[c] = Vec4f(a[c]);
    }
    for (int i = 0; i < padded; i += 4) {
        const Vec4f t =
            ((Vec4f::load(m_centred[0] + i) - from[0]) * dir[0] + (Vec4f::load(m_centred[1] + i) - from[1]) * dir[1] +
             (Vec4f::load(m_centred[2] + i) - from[2]) * dir[2] + (Vec4f::load(m_centred[3] + i) - from[3]) * dir[3]) *
            inv;
        const Vec4f inside = glyptora_simd::cmpLess(Vec4f(float(i)) + Vec4f(0, 1, 2, 3), Vec4f(float(texels)));
        glyptora_simd::select(inside, glyptora_simd::clamp(t, zero, one), zero).store(u1 + i);
    }
    astcExtendFromValidTexels(m_texels, u1);
    if (channel < 0) return;
    const float dc = d[channel];
    const Vec4f invc(std::fabs(dc) > 1e-12f ? 1.0f / dc : 0.0f), start(a[channel]);
    for (int i = 0; i < padded; i += 4) {
        const Vec4f t = (Vec4f::load(m_centred[channel] + i) - start) * invc;
        const Vec4f inside = glyptora_simd::cmpLess(Vec4f(float(i)) + Vec4f(0, 1, 2, 3), Vec4f(float(texels)));
        glyptora_simd::select(inside, glyptora_simd::clamp(t, zero, one), zero).store(u2 + i);
    }
    astcExtendFromValidTexels(m_texels, u2);
}

// Ranks the modes of `groups` by an estimate of their error and keeps the `keep` best, in
// order of estimate. The estimate adds what the mode's grid cannot hold of the ideal weights
// (their spectrum above the grid's size), the noise of quantising the grid to the mode's
// weight range, and the noise of quantising the endpoints to the colour range left.
int AstcBlockSearch::selectByEstimate(const std::vector<AstcModeGroup>& groups, int channel, int keep,
                                      const AstcModeInfo** modes, const AstcGridInfill** grids) const {
    AstcWeightSpectrum spectrum[2];
    const int bw = m_texels.blockWidth, bh = m_texels.blockHeight, planes = channel >= 0 ? 2 : 1;
    for (int p = 0; p < planes; ++p) spectrum[p].compute(m_ideal[p], bw, bh);
    const float n = float(m_texels.validCount);
    const float spanNoise = (m_span[0] * m_span[0] + m_span[1] * m_span[1]) * n;
    const int alpha = m_texels.hasAlpha ? 1 : 0;
    float weightSum = 0.0f;
    for (int c = 0; c < 3 + alpha; ++c) weightSum += m_weights[c] * m_weights[c];
    const float colourNoise = weightSum * n;

    constexpr int kMaxKeep = 8;
    float kept[kMaxKeep];
    int count = 0;
    for (const AstcModeGroup& group : groups) {
        const AstcGridInfill& grid = *group.grid;
        // Bilinear infill holds less than the spectrum's cut suggests: its loss counts twice.
        // (The weights of the three terms were set on the training images.)
        float lost = 0.0f;
        for (int p = 0; p < planes; ++p)
            lost += 2.0f * m_span[p] * m_span[p] * spectrum[p].lostEnergy(grid.gridWidth, grid.gridHeight);
        for (size_t m = 0; m < group.modes.size(); ++m) {
            const AstcModeInfo& info = group.modes[m];
            const float estimate =
                lost + spanNoise * group.weightNoise[m] + 0.3f * colourNoise * group.colourNoise[alpha][m];
            // Insert into the sorted short list.
            int at = count < keep ? count : keep;
            while (at > 0 && kept[at - 1] > estimate) --at;
            if (at >= keep) continue;
            for (int k = (count < keep ? count : keep - 1); k > at; --k)
                kept[k] = kept[k - 1], modes[k] = modes[k - 1], grids[k] = grids[k - 1];
            kept[at] = estimate, modes[at] = &info, grids[at] = &grid;
            count = count < keep ? count + 1 : keep;
        }
    }
    return count;
}

void AstcBlockSearch::search(const std::vector<AstcModeGroup>& groups, int channel, const AstcSearchSettings& settings,
                             AstcSearchResult& best) {
    idealWeights(channel);
    Trial trial;
    float grid1[64], grid2[64];
    const AstcModeInfo* winner = nullptr;
    const AstcGridInfill* winnerGrid = nullptr;
    size_t total = 0;
    for (const AstcModeGroup& group : groups) total += group.modes.size();
    if (settings.fullFits > 0 && size_t(settings.fullFits) < total) {
        constexpr int kMaxKeep = 8;
        const AstcModeInfo* modes[kMaxKeep];
        const AstcGridInfill* grids[kMaxKeep];
        const int count = selectByEstimate(groups, channel, settings.fullFits < kMaxKeep ? settings.fullFits : kMaxKeep,
                                           modes, grids);
        // Each grid is fitted once, however many of the kept modes use it.
        const AstcGridInfill* fitted[kMaxKeep];
        float fits[kMaxKeep][2][64];
        int fittedCount = 0;
        for (int k = 0; k < count; ++k) {
            int slot = 0;
            while (slot < fittedCount && fitted[slot] != grids[k]) ++slot;
            if (slot == fittedCount) {
                astcFitGrid(*grids[k], m_texels.texels, m_ideal[0], fits[slot][0]);
                if (channel >= 0) astcFitGrid(*grids[k], m_texels.texels, m_ideal[1], fits[slot][1]);
                fitted[fittedCount++] = grids[k];
            }
            if (tryMode(*modes[k], *grids[k], fits[slot][0], fits[slot][1], channel, settings, best, trial)) {
                winner = modes[k];
                winnerGrid = grids[k];
            }
        }
    } else {
        for (const AstcModeGroup& group : groups) {
            astcFitGrid(*group.grid, m_texels.texels, m_ideal[0], grid1);
            if (channel >= 0) astcFitGrid(*group.grid, m_texels.texels, m_ideal[1], grid2);
            for (const AstcModeInfo& info : group.modes)
                if (tryMode(info, *group.grid, grid1, grid2, channel, settings, best, trial)) {
                    winner = &info;
                    winnerGrid = group.grid;
                }
        }
    }
    if (!winner) return;
    // Weights refitted to the winner's own endpoints, then endpoints refitted to them.
    alignas(16) float u1[kAstcMaxTexels], u2[kAstcMaxTexels];
    for (int round = 0; round < settings.refineRounds && best.error > 0; ++round) {
        refitWeights(best, channel, u1, u2);
        astcFitGrid(*winnerGrid, m_texels.texels, u1, grid1);
        if (channel >= 0) astcFitGrid(*winnerGrid, m_texels.texels, u2, grid2);
        if (!tryMode(*winner, *winnerGrid, grid1, grid2, channel, settings, best, trial)) break;
    }
}

void AstcBlockSearch::singlePlane(const std::vector<AstcModeGroup>& groups, const AstcSearchSettings& settings,
                                  AstcSearchResult& best) {
    search(groups, -1, settings, best);
}

void AstcBlockSearch::dualPlane(const std::vector<AstcModeGroup>& groups, int channel,
                                const AstcSearchSettings& settings, AstcSearchResult& best) {
    search(groups, channel, settings, best);
}

}  // namespace glyptora_astc
