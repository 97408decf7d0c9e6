#include "astc/partition_search.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#include "astc/block_layout.h"
#include "astc/colour_range_lookup.h"
#include "astc/colour_statistics.h"
#include "astc/content_endpoints.h"
#include "astc/endpoint_encoding.h"
#include "astc/fit_models.h"
#include "astc/mode_refinement.h"
#include "astc/quantization_tables.h"
#include "astc/weight_quantization.h"
#include "astc/weight_spectrum.h"

namespace glyptora_astc {

namespace {

constexpr int kMaxKeep = 64;
constexpr int kMaxEndpointModes = 4;

// One step of each colour range, as a fraction of the whole.
const std::array<float, kAstcRangeCount>& colourSteps() {
    static const std::array<float, kAstcRangeCount> steps = [] {
        std::array<float, kAstcRangeCount> s{};
        for (int r = 0; r < kAstcRangeCount; ++r) s[size_t(r)] = 1.0f / float(astcRangeLevels(r) - 1);
        return s;
    }();
    return steps;
}

}  // namespace

AstcPartitionSearch::AstcPartitionSearch(const AstcBlockTexels& texels, const AstcPartitionPattern& pattern,
                                         int partitionCount, const float weights[4], const float inverseWeights[4])
    : m_texels(texels), m_pattern(pattern), m_count(partitionCount), m_weights(weights),
      m_inverseWeights(inverseWeights) {
    std::memset(m_mean, 0, sizeof m_mean);
    std::memset(m_sumSquares, 0, sizeof m_sumSquares);
    std::memset(m_covariance, 0, sizeof m_covariance);
    std::memset(m_mask, 0, sizeof m_mask);
    std::memset(m_centred, 0, sizeof m_centred);
    float n[4] = {};
    for (int i = 0; i < texels.texels; ++i) {
        const int p = pattern.partitionOf[i];
        m_mask[p][i] = texels.valid[i];
        n[p] += texels.valid[i];
        for (int c = 0; c < 4; ++c) m_mean[p][c] += texels.valid[i] * texels.channel[c][i];
    }
    for (int p = 0; p < m_count; ++p)
        for (int c = 0; c < 4; ++c) m_mean[p][c] = n[p] > 0.0f ? m_mean[p][c] / n[p] : 0.0f;
    for (int i = 0; i < texels.texels; ++i) {
        const int p = pattern.partitionOf[i];
        for (int c = 0; c < 4; ++c) m_centred[c][i] = texels.channel[c][i] - m_mean[p][c];
        for (int r = 0; r < 4; ++r)
            for (int c = r; c < 4; ++c) m_covariance[p][r][c] += texels.valid[i] * m_centred[r][i] * m_centred[c][i];
    }
    for (int p = 0; p < m_count; ++p)
        for (int r = 0; r < 4; ++r) {
            m_sumSquares[p][r] = m_covariance[p][r][r];
            for (int c = r; c < 4; ++c) {
                const float v = n[p] > 0.0f ? m_covariance[p][r][c] / n[p] : 0.0f;
                m_covariance[p][r][c] = m_covariance[p][c][r] = v;
            }
        }
}

// Per-texel weights along the principal axis of its partition's plane-1 channels, each axis
// turned so that its far end is the brighter (the endpoint modes then store the pair in
// order, which a shared weight grid needs), and for a second plane the position of each
// texel in its partition's range of `channel`.
void AstcPartitionSearch::idealWeights(int channel) {
    const int texels = m_texels.texels;
    float axis[4][4], lo[4], hi[4], lo2[4], hi2[4];
    for (int p = 0; p < m_count; ++p) {
        float cov[4][4];
        std::memcpy(cov, m_covariance[p], sizeof cov);
        if (channel >= 0)
            for (int c = 0; c < 4; ++c) cov[c][channel] = cov[channel][c] = 0.0f;
        astcPrincipalAxis(cov, axis[p]);
        float brightness = 0.0f;
        for (int c = 0; c < 3; ++c) brightness += c != channel ? axis[p][c] : 0.0f;
        if (brightness < 0.0f || (brightness == 0.0f && axis[p][3] < 0.0f))
            for (int c = 0; c < 4; ++c) axis[p][c] = -axis[p][c];
        lo[p] = lo2[p] = 1e30f, hi[p] = hi2[p] = -1e30f;
    }
    for (int i = 0; i < texels; ++i) {
        const int p = m_pattern.partitionOf[i];
        float t = 0.0f;
        for (int c = 0; c < 4; ++c) t += m_centred[c][i] * axis[p][c];
        m_ideal[0][i] = t;
        if (m_texels.valid[i] == 0.0f) continue;
        lo[p] = std::min(lo[p], t), hi[p] = std::max(hi[p], t);
        if (channel >= 0)
            lo2[p] = std::min(lo2[p], m_centred[channel][i]), hi2[p] = std::max(hi2[p], m_centred[channel][i]);
    }
    float span[2][4] = {};
    for (int p = 0; p < m_count; ++p) {
        span[0][p] = hi[p] > lo[p] ? hi[p] - lo[p] : 0.0f;
        span[1][p] = channel >= 0 && hi2[p] > lo2[p] ? hi2[p] - lo2[p] : 0.0f;
    }
    m_spanSquared[0] = m_spanSquared[1] = 0.0f;
    for (int i = 0; i < m_texels.padded; ++i) {
        if (i >= texels) {
            m_ideal[0][i] = m_ideal[1][i] = 0.0f;
            continue;
        }
        const int p = m_pattern.partitionOf[i];
        const auto position = [](float x, float low, float size) {
            return size > 1e-12f ? std::clamp((x - low) / size, 0.0f, 1.0f) : 0.0f;
        };
        m_ideal[0][i] = position(m_ideal[0][i], lo[p], span[0][p]);
        m_ideal[1][i] = channel >= 0 ? position(m_centred[channel][i], lo2[p], span[1][p]) : 0.0f;
        for (int plane = 0; plane < 2; ++plane)
            m_spanSquared[plane] += m_texels.valid[i] * span[plane][p] * span[plane][p];
    }
    const float n = m_texels.validCount > 0 ? float(m_texels.validCount) : 1.0f;
    m_spanSquared[0] /= n, m_spanSquared[1] /= n;
    astcExtendFromValidTexels(m_texels, m_ideal[0]);
    if (channel >= 0) astcExtendFromValidTexels(m_texels, m_ideal[1]);
}

bool AstcPartitionSearch::tryMode(const AstcModeInfo& info, const AstcGridInfill& grid, const float* grid1,
                                  const float* grid2, int channel, const AstcSearchSettings& settings,
                                  AstcSearchResult& best, AstcWeightTrial& trial) const {
    const int planes = channel >= 0 ? 2 : 1;
    astcQuantizeTrial(grid, info.mode.weightRange, m_texels.texels, planes, grid1, grid2, trial);
    float lane[4] = {0, 0, 0, 0};
    if (channel >= 0) lane[channel] = 1.0f;
    const Vec4f planeTwo = glyptora_simd::cmpGreater(Vec4f::load(lane), Vec4f());
    AstcChannelModels models[4];
    Vec4f e0[4], e1[4];
    float bounds[4], bound = 0.0f;
    for (int p = 0; p < m_count; ++p) {
        const AstcWeightMoments m1 = astcWeightMoments(m_mask[p], trial.texel[0], m_centred, m_texels.padded);
        AstcChannelModels& model = models[p];
        model.s = Vec4f::load(m_sumSquares[p]);
        model.n = Vec4f(m1.n);
        model.sw = Vec4f(m1.sw);
        model.sww = Vec4f(m1.sww);
        model.swx = Vec4f::load(m1.swx);
        if (planes == 2) {
            const AstcWeightMoments m2 = astcWeightMoments(m_mask[p], trial.texel[1], m_centred, m_texels.padded);
            model.sw = glyptora_simd::select(planeTwo, Vec4f(m2.sw), model.sw);
            model.sww = glyptora_simd::select(planeTwo, Vec4f(m2.sww), model.sww);
            model.swx = glyptora_simd::select(planeTwo, Vec4f::load(m2.swx), model.swx);
        }
        model.finish();
        bounds[p] = model.fit(e0[p], e1[p]);
        bound += bounds[p];
    }
    if (!(double(bound) < best.error)) return false;

    const Vec4f toBytes = Vec4f::load(m_inverseWeights) * Vec4f(255.0f);
    const Vec4f toWeighted = Vec4f::load(m_weights) * Vec4f(1.0f / 255.0f);
    const Vec4f unit2 = toWeighted * toWeighted;
    float lo[4][4], hi[4][4];
    AstcEndpointErrorModel levelModels[4];
    for (int p = 0; p < m_count; ++p) {
        const Vec4f mean = Vec4f::load(m_mean[p]);
        ((mean + e0[p]) * toBytes).store(lo[p]);
        ((mean + e1[p]) * toBytes).store(hi[p]);
        (models[p].a * unit2).store(levelModels[p].a);
        (models[p].b * unit2).store(levelModels[p].b);
        (models[p].c * unit2).store(levelModels[p].c);
    }
    const auto errorOf = [&](int p, const AstcEncodedEndpoints& enc) {
        const Vec4f mean = Vec4f::load(m_mean[p]);
        const Vec4f a(float(enc.lo[0]), float(enc.lo[1]), float(enc.lo[2]), float(enc.lo[3]));
        const Vec4f b(float(enc.hi[0]), float(enc.hi[1]), float(enc.hi[2]), float(enc.hi[3]));
        const float error = models[p].error(a * toWeighted - mean, b * toWeighted - mean);
        return error > 0.0f ? double(error) : 0.0;
    };
    const int direct = m_texels.hasAlpha ? 12 : 8;
    // Each partition may take its own endpoint mode (within two neighbouring classes, at the
    // cost of the extra mode bits): a partition of flat colour then leaves the others more
    // colour precision. For a given colour range the partitions' errors are independent, so
    // each (partition, mode, range) is encoded once however many combinations use it.
    const int modeCount = std::min(settings.endpointModeCount, kMaxEndpointModes);
    float modeBound[4][kMaxEndpointModes];
    for (int p = 0; p < m_count; ++p)
        for (int k = 0; k < modeCount; ++k)
            modeBound[p][k] = astcEndpointModeBound(settings.endpointModes[k], models[p], e0[p], e1[p],
                                                    Vec4f::load(m_mean[p]), m_weights, channel, bounds[p]);
    struct Encoded {
        AstcEncodedEndpoints enc;
        double error;
    };
    Encoded cache[4][kMaxEndpointModes][2];  // the two ranges a partition's mode meets most
    int cachedRange[4][kMaxEndpointModes][2];
    for (auto& partition : cachedRange)
        for (auto& mode : partition) mode[0] = mode[1] = -1;
    const auto encoded = [&](int p, int k, int range) -> const Encoded& {
        int* ranges = cachedRange[p][k];
        const int slot = ranges[0] == range ? 0 : ranges[1] == range ? 1 : ranges[0] < 0 ? 0 : 1;
        Encoded& e = cache[p][k][slot];
        if (ranges[slot] == range) return e;
        ranges[slot] = range;
        const int cem = settings.endpointModes[k];
        AstcEncodedEndpoints scratch;
        astcEncodeEndpoints(cem, range, lo[p], hi[p], m_weights, e.enc, settings.chooseLevels ? &levelModels[p] : nullptr);
        e.error = e.enc.invert ? kAstcNoBlockError : errorOf(p, e.enc);
        if (cem == direct && settings.blueContraction && range < kAstcRangeCount - 1 &&
            astcEncodeEndpointsBlueContracted(direct, range, lo[p], hi[p], scratch) && !scratch.invert) {
            const double contracted = errorOf(p, scratch);
            if (contracted < e.error) e.error = contracted, e.enc = scratch;
        }
        return e;
    };
    double bestError = best.error;
    int winnerRange = -1;
    uint8_t winnerModes[4] = {};
    AstcEncodedEndpoints winnerEnc[4];
    for (int i = 0; i < m_combinationCount; ++i) {
        const ModeCombination& combination = m_combinations[i];
        const uint8_t* k = combination.k;
        const int range = astcColourRangeLookup(m_count, combination.extraBits, info.mode.dualPlane, info.weightBits,
                                                combination.valueCount);
        if (range < 0) continue;
        float lower = 0.0f;
        for (int p = 0; p < m_count; ++p) lower += modeBound[p][k[p]];
        if (double(lower) >= bestError) continue;
        double total = 0.0;
        for (int p = 0; p < m_count && total < bestError; ++p) total += encoded(p, k[p], range).error;
        if (!(total < bestError)) continue;
        bestError = total;
        winnerRange = range;
        for (int p = 0; p < m_count; ++p) winnerModes[p] = combination.cems[p], winnerEnc[p] = encoded(p, k[p], range).enc;
    }
    if (winnerRange < 0) return false;
    best.error = bestError;
    AstcBlockContent& content = best.content;
    content.mode = info.mode;
    content.partitionCount = m_count;
    content.partitionSeed = m_pattern.seed;
    content.colourRange = winnerRange;
    content.planeTwoComponent = channel >= 0 ? channel : 0;
    for (int p = 0, at = 0; p < m_count; ++p) {
        const int values = astcEndpointValueCount(winnerModes[p]);
        content.cem[p] = winnerModes[p];
        std::memcpy(content.colourValues + at, winnerEnc[p].values, size_t(values));
        at += values;
    }
    for (int p = 0; p < grid.points; ++p)
        for (int plane = 0; plane < planes; ++plane) content.weights[p * planes + plane] = trial.ise[plane][p];
    return true;
}

// Per-texel weights that put each texel nearest to its colour on the segment between its
// partition's decoded endpoints (plane 1: all channels but `channel`; plane 2: `channel`).
void AstcPartitionSearch::refitWeights(const AstcSearchResult& best, int channel, float* u1, float* u2) const {
    const AstcBlockContent& content = best.content;
    float from[4][4], dir[4][4], inverse[4], inverse2[4];
    uint8_t endpoints[2][4][4] = {};
    astcContentEndpoints(content, endpoints[0], endpoints[1]);
    for (int p = 0; p < m_count; ++p) {
        const uint8_t *a = endpoints[0][p], *b = endpoints[1][p];
        float length = 0.0f;
        for (int c = 0; c < 4; ++c) {
            const float scale = m_weights[c] / 255.0f;
            from[p][c] = float(a[c]) * scale - m_mean[p][c];
            dir[p][c] = (float(b[c]) - float(a[c])) * scale;
            if (c != channel) length += dir[p][c] * dir[p][c];
        }
        inverse[p] = length > 1e-12f ? 1.0f / length : 0.0f;
        inverse2[p] = channel >= 0 && std::fabs(dir[p][channel]) > 1e-12f ? 1.0f / dir[p][channel] : 0.0f;
    }
    for (int i = 0; i < m_texels.padded; ++i) {
        u1[i] = u2[i] = 0.0f;
        if (i >= m_texels.texels) continue;
        const int p = m_pattern.partitionOf[i];
        float t = 0.0f;
        for (int c = 0; c < 4; ++c)
            if (c != channel) t += (m_centred[c][i] - from[p][c]) * dir[p][c];
        u1[i] = std::clamp(t * inverse[p], 0.0f, 1.0f);
        if (channel >= 0) u2[i] = std::clamp((m_centred[channel][i] - from[p][channel]) * inverse2[p], 0.0f, 1.0f);
    }
    astcExtendFromValidTexels(m_texels, u1);
    if (channel >= 0) astcExtendFromValidTexels(m_texels, u2);
}

// Ranks the modes of `groups` by an estimate of their error and keeps the `keep` best: what
// the grid cannot hold of the ideal weights, the noise of the weight range and that of the
// colour range the partitions leave.
int AstcPartitionSearch::selectByEstimate(const std::vector<AstcModeGroup>& groups, int channel,
                                          const AstcSearchSettings& settings, int keep, const AstcModeInfo** modes,
                                          const AstcGridInfill** grids) const {
    AstcWeightSpectrum spectrum[2];
    const int planes = channel >= 0 ? 2 : 1;
    for (int p = 0; p < planes; ++p) spectrum[p].compute(m_ideal[p], m_texels.blockWidth, m_texels.blockHeight);
    const float n = float(m_texels.validCount);
    const float spanNoise = (m_spanSquared[0] + m_spanSquared[1]) * n;
    float weightSum = 0.0f;
    for (int c = 0; c < (m_texels.hasAlpha ? 4 : 3); ++c) weightSum += m_weights[c] * m_weights[c];
    const float colourNoise = weightSum * n;
    // The endpoint modes that hold colour, richest first: a mode fits the estimate by the
    // colour range of the richest that fits it (four partitions hold no direct RGB pairs), and
    // one that holds only luminance would be scored without the colour it loses.
    uint8_t richest[8];
    int richCount = 0;
    for (int k = 0; k < settings.endpointModeCount && richCount < 8; ++k)
        if (settings.endpointModes[k] != 0 && settings.endpointModes[k] != 4)
            richest[richCount++] = settings.endpointModes[k];
    std::stable_sort(richest, richest + richCount,
                     [](uint8_t a, uint8_t b) { return astcEndpointValueCount(a) > astcEndpointValueCount(b); });
    const std::array<float, kAstcRangeCount>& steps = colourSteps();
    float kept[kMaxKeep];
    int count = 0;
    for (const AstcModeGroup& group : groups) {
        const AstcGridInfill& grid = *group.grid;
        float lost = 0.0f;
        for (int p = 0; p < planes; ++p)
            lost += 2.0f * m_spanSquared[p] * spectrum[p].lostEnergy(grid.gridWidth, grid.gridHeight);
        for (size_t m = 0; m < group.modes.size(); ++m) {
            const AstcModeInfo& info = group.modes[m];
            const int8_t* shared = group.sharedRange[m].data() + 4 * (m_count - 1);
            int range = -1;
            for (int k = 0; k < richCount && range < 0; ++k) range = shared[richest[k] >> 2];
            if (range < 0) continue;
            const float step = steps[size_t(range)];
            const float estimate = lost + spanNoise * group.weightNoise[m] + 0.3f * colourNoise * step * step / 18.0f;
            astcShortlistMode(estimate, &info, &grid, keep, kept, modes, grids, count);
        }
    }
    return count;
}

// The shared modes first, in list order, then the mixed combinations (ties keep the earlier).
void AstcPartitionSearch::listModeCombinations(const AstcSearchSettings& settings) {
    const int modeCount = std::min(settings.endpointModeCount, kMaxEndpointModes);
    int combinations = 1;
    for (int p = 0; p < m_count; ++p) combinations *= modeCount;
    m_combinationCount = 0;
    for (int pass = 0; pass < 2; ++pass)
        for (int c = 0; c < (pass == 0 ? modeCount : combinations); ++c) {
            ModeCombination& combination = m_combinations[m_combinationCount];
            for (int p = 0, rest = c; p < m_count; ++p, rest /= modeCount) {
                combination.k[p] = uint8_t(pass == 0 ? c : rest % modeCount);
                combination.cems[p] = settings.endpointModes[combination.k[p]];
            }
            bool shared = true;
            if (!astcEndpointModesStorable(m_count, combination.cems, shared) || (pass == 1 && shared)) continue;
            combination.extraBits = uint8_t(astcExtraCemBits(m_count, shared));
            combination.valueCount = uint8_t(astcColourValueCount(m_count, combination.cems));
            ++m_combinationCount;
        }
}

void AstcPartitionSearch::search(const std::vector<AstcModeGroup>& groups, int channel,
                                 const AstcSearchSettings& settings, AstcSearchResult& best) {
    listModeCombinations(settings);
    idealWeights(channel);
    const AstcModeInfo* modes[kMaxKeep];
    const AstcGridInfill* grids[kMaxKeep];
    const int keep = std::clamp(settings.fullFits, 1, kMaxKeep);
    const int count = selectByEstimate(groups, channel, settings, keep, modes, grids);
    AstcWeightTrial trial;
    // Each grid is fitted once, however many of the kept modes use it.
    const AstcGridInfill* fitted[kMaxKeep];
    alignas(16) float fits[kMaxKeep][2][64];
    int fittedCount = 0;
    AstcRefineList kept(settings);
    for (int k = 0; k < count; ++k) {
        int slot = 0;
        while (slot < fittedCount && fitted[slot] != grids[k]) ++slot;
        if (slot == fittedCount) {
            astcFitGrid(*grids[k], m_texels.texels, m_ideal[0], fits[slot][0]);
            if (channel >= 0) astcFitGrid(*grids[k], m_texels.texels, m_ideal[1], fits[slot][1]);
            fitted[fittedCount++] = grids[k];
        }
        AstcSearchResult result;
        result.error = kept.admission(best.error, settings);
        if (tryMode(*modes[k], *grids[k], fits[slot][0], fits[slot][1], channel, settings, result, trial))
            kept.add(result, modes[k], grids[k]);
    }
    astcRefineKept(
        kept, settings, m_texels, channel >= 0, m_pattern.partitionOf, m_weights, best,
        [&](const AstcSearchResult& result, float* u1, float* u2) { refitWeights(result, channel, u1, u2); },
        [&](const AstcModeInfo& info, const AstcGridInfill& grid, const float* g1, const float* g2,
            AstcSearchResult& result) { return tryMode(info, grid, g1, g2, channel, settings, result, trial); });
}

}  // namespace glyptora_astc
