#include "astc/block_search.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "astc/colour_statistics.h"
#include "astc/content_endpoints.h"
#include "astc/endpoint_encoding.h"
#include "astc/fit_models.h"
#include "astc/integer_sequence.h"
#include "astc/mode_refinement.h"
#include "astc/quantization_tables.h"
#include "astc/weight_quantization.h"
#include "astc/weight_spectrum.h"
#include "core/vec4.h"

namespace glyptora_astc {

using glyptora_simd::Vec4f;

// The most modes a ranked search fits in full.
constexpr int kMaxFullFits = 32;

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
                              AstcSearchResult& best, AstcWeightTrial& trial) const {
    const int planes = channel >= 0 ? 2 : 1;
    astcQuantizeTrial(grid, info.mode.weightRange, m_texels.texels, planes, grid1, grid2, trial);
    const AstcWeightMoments m1 = astcWeightMoments(m_texels.valid, trial.texel[0], m_centred, m_texels.padded);
    AstcChannelModels models;
    models.s = Vec4f::load(m_sumSquares);
    models.n = Vec4f(m1.n);
    models.sw = Vec4f(m1.sw);
    models.sww = Vec4f(m1.sww);
    models.swx = Vec4f::load(m1.swx);
    if (planes == 2) {
        // The second plane's channel reads its own weights.
        const AstcWeightMoments m2 = astcWeightMoments(m_texels.valid, trial.texel[1], m_centred, m_texels.padded);
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
            if (astcEndpointModeBound(cem, models, e0, e1, mean, m_weights, channel, bound) > limit) continue;
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
    const AstcWeightQuantizer& quantize = astcWeightQuantizer(info.mode.weightRange);
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
    uint8_t endpoints[2][4][4] = {};
    astcContentEndpoints(best.content, endpoints[0], endpoints[1]);
    const uint8_t *e0 = endpoints[0][0], *e1 = endpoints[1][0];
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

    float kept[kMaxFullFits];
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
            astcShortlistMode(estimate, &info, &grid, keep, kept, modes, grids, count);
        }
    }
    return count;
}

void AstcBlockSearch::search(const std::vector<AstcModeGroup>& groups, int channel, const AstcSearchSettings& settings,
                             AstcSearchResult& best) {
    idealWeights(channel);
    AstcWeightTrial trial;
    float grid1[64], grid2[64];
    AstcRefineList kept(settings);
    const auto fitMode = [&](const AstcModeInfo& info, const AstcGridInfill& grid, const float* g1, const float* g2) {
        AstcSearchResult result;
        result.error = kept.admission(best.error, settings);
        if (tryMode(info, grid, g1, g2, channel, settings, result, trial)) kept.add(result, &info, &grid);
        if (settings.lowLevelStretch == 1.0f || channel >= 0 ||
            astcRangeLevels(info.mode.weightRange) > kAstcStretchedStartLevels)
            return;
        float stretched[64];
        for (int i = 0; i < grid.points; ++i)
            stretched[i] = std::clamp((g1[i] - 0.5f) * settings.lowLevelStretch + 0.5f, 0.0f, 1.0f);
        AstcSearchResult second;
        second.error = kept.admission(best.error, settings);
        if (tryMode(info, grid, stretched, g2, channel, settings, second, trial)) kept.add(second, &info, &grid);
    };
    size_t total = 0;
    for (const AstcModeGroup& group : groups) total += group.modes.size();
    if (settings.fullFits > 0 && size_t(settings.fullFits) < total) {
        const AstcModeInfo* modes[kMaxFullFits];
        const AstcGridInfill* grids[kMaxFullFits];
        const int count = selectByEstimate(groups, channel, settings.fullFits < kMaxFullFits ? settings.fullFits : kMaxFullFits,
                                           modes, grids);
        // Each grid is fitted once, however many of the kept modes use it.
        const AstcGridInfill* fitted[kMaxFullFits];
        float fits[kMaxFullFits][2][64];
        int fittedCount = 0;
        for (int k = 0; k < count; ++k) {
            int slot = 0;
            while (slot < fittedCount && fitted[slot] != grids[k]) ++slot;
            if (slot == fittedCount) {
                astcFitGrid(*grids[k], m_texels.texels, m_ideal[0], fits[slot][0]);
                if (channel >= 0) astcFitGrid(*grids[k], m_texels.texels, m_ideal[1], fits[slot][1]);
                fitted[fittedCount++] = grids[k];
            }
            fitMode(*modes[k], *grids[k], fits[slot][0], fits[slot][1]);
        }
    } else {
        for (const AstcModeGroup& group : groups) {
            astcFitGrid(*group.grid, m_texels.texels, m_ideal[0], grid1);
            if (channel >= 0) astcFitGrid(*group.grid, m_texels.texels, m_ideal[1], grid2);
            for (const AstcModeInfo& info : group.modes) fitMode(info, *group.grid, grid1, grid2);
        }
    }
    astcRefineKept(
        kept, settings, m_texels, channel >= 0, nullptr, m_weights, best,
        [&](const AstcSearchResult& result, float* u1, float* u2) { refitWeights(result, channel, u1, u2); },
        [&](const AstcModeInfo& info, const AstcGridInfill& grid, const float* g1, const float* g2,
            AstcSearchResult& result) { return tryMode(info, grid, g1, g2, channel, settings, result, trial); });
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
