#include "astc/infill_database.h"

#include <cmath>
#include <mutex>

#include "astc/infill_taps.h"

namespace glyptora_astc {

namespace {

AstcGridInfill buildGrid(int bw, int bh, int gw, int gh) {
    AstcGridInfill g;
    g.gridWidth = gw;
    g.gridHeight = gh;
    g.points = gw * gh;
    g.identity = gw == bw && gh == bh;
    const int texels = bw * bh;
    g.tapIndex.resize(size_t(texels) * 4);
    g.tapFactor.resize(size_t(texels) * 4);
    double gain = 0.0;
    for (int t = 0; t < bh; ++t)
        for (int s = 0; s < bw; ++s) {
            const int i = t * bw + s;
            const AstcInfillTaps taps = astcInfillTaps(bw, bh, gw, gh, s, t);
            for (int k = 0; k < 4; ++k) {
                gain += double(taps.factor[k] * taps.factor[k]) / 256.0;
                g.tapIndex[size_t(i) * 4 + k] = uint8_t(taps.index[k]);
                g.tapFactor[size_t(i) * 4 + k] = uint8_t(taps.factor[k]);
            }
        }
    g.noiseGain = float(gain / texels);
    std::vector<std::vector<std::pair<uint8_t, uint8_t>>> reach(size_t(g.points));
    for (int i = 0; i < texels; ++i) {
        if (g.identity) {
            reach[size_t(i)].push_back({uint8_t(i), uint8_t(16)});
            continue;
        }
        for (int k = 0; k < 4; ++k) {
            const int point = g.tapIndex[size_t(i) * 4 + k], factor = g.tapFactor[size_t(i) * 4 + k];
            if (factor == 0) continue;
            auto& list = reach[size_t(point)];
            if (!list.empty() && list.back().first == i)
                list.back().second = uint8_t(list.back().second + factor);
            else
                list.push_back({uint8_t(i), uint8_t(factor)});
        }
    }
    g.reachStart.assign(1, 0);
    for (const auto& list : reach) {
        for (const auto& [texel, factor] : list) g.reachTexel.push_back(texel), g.reachFactor.push_back(factor);
        g.reachStart.push_back(uint16_t(g.reachTexel.size()));
    }
    const int padded = (texels + 3) & ~3;
    g.tapLanes.assign(size_t(padded) * 4, 0);
    g.factorLanes.assign(size_t(padded) * 4, 0.0f);
    for (int i = 0; i < texels; ++i)
        for (int k = 0; k < 4; ++k) {
            g.tapLanes[size_t(k * padded + i)] = g.tapIndex[size_t(i) * 4 + k];
            g.factorLanes[size_t(k * padded + i)] = float(g.tapFactor[size_t(i) * 4 + k]);
        }
    return g;
}

// The grid weights g that minimise |W g - u|^2 for texel weights u, W the infill (texels x
// points, factors / 16): g = (W^T W)^-1 W^T u, solved once per grid by Cholesky. A tiny ridge
// keeps grids that the infill cannot fully tell apart solvable.
void buildFit(int texels, AstcGridInfill& g) {
    const int p = g.points;
    std::vector<double> normal(size_t(p) * p, 0.0), wt(size_t(p) * texels, 0.0);
    for (int i = 0; i < texels; ++i)
        for (int a = 0; a < 4; ++a) {
            const int pa = g.tapIndex[size_t(i) * 4 + a];
            const double fa = g.tapFactor[size_t(i) * 4 + a] / 16.0;
            wt[size_t(pa) * texels + i] += fa;
            for (int b = 0; b < 4; ++b)
                normal[size_t(pa) * p + g.tapIndex[size_t(i) * 4 + b]] += fa * g.tapFactor[size_t(i) * 4 + b] / 16.0;
        }
    double trace = 0.0;
    for (int k = 0; k < p; ++k) trace += normal[size_t(k) * p + k];
    for (int k = 0; k < p; ++k) normal[size_t(k) * p + k] += 1e-6 * trace / p;
    // Cholesky factor L (lower), then L L^T X = W^T column by column.
    for (int j = 0; j < p; ++j) {
        double d = normal[size_t(j) * p + j];
        for (int k = 0; k < j; ++k) d -= normal[size_t(j) * p + k] * normal[size_t(j) * p + k];
        d = std::sqrt(d > 1e-300 ? d : 1e-300);
        normal[size_t(j) * p + j] = d;
        for (int i = j + 1; i < p; ++i) {
            double v = normal[size_t(i) * p + j];
            for (int k = 0; k < j; ++k) v -= normal[size_t(i) * p + k] * normal[size_t(j) * p + k];
            normal[size_t(i) * p + j] = v / d;
        }
    }
    g.fitStride = (p + 3) & ~3;
    g.fit.assign(size_t(texels) * g.fitStride, 0.0f);
    std::vector<double> y(static_cast<size_t>(p));
    for (int i = 0; i < texels; ++i) {
        for (int r = 0; r < p; ++r) {
            double v = wt[size_t(r) * texels + i];
            for (int k = 0; k < r; ++k) v -= normal[size_t(r) * p + k] * y[size_t(k)];
            y[size_t(r)] = v / normal[size_t(r) * p + r];
        }
        for (int r = p - 1; r >= 0; --r) {
            double v = y[size_t(r)];
            for (int k = r + 1; k < p; ++k) v -= normal[size_t(k) * p + r] * y[size_t(k)];
            y[size_t(r)] = v / normal[size_t(r) * p + r];
        }
        for (int r = 0; r < p; ++r) g.fit[size_t(i) * g.fitStride + r] = float(y[size_t(r)]);
    }
}

// The grids of each footprint, shared by all encodes of the process: they depend on the
// footprint alone, and the fits cost far more to build (milliseconds for the large
// footprints) than a small image takes to encode. Built under one lock, grid by grid, and
// never changed once built, so that passes of other encodes read them without a lock.
struct FootprintGrids {
    bool built = false;
    std::vector<AstcGridInfill> grids;
};
std::mutex g_buildLock;
FootprintGrids g_footprints[13][13];

}  // namespace

InfillMatDataBase::InfillMatDataBase(int blockWidth, int blockHeight)
    : m_blockWidth(blockWidth), m_blockHeight(blockHeight) {
    std::lock_guard<std::mutex> lock(g_buildLock);
    FootprintGrids& shared = g_footprints[blockWidth][blockHeight];
    if (!shared.built) {
        shared.grids.resize(size_t(kSides * kSides));
        for (int gh = 2; gh <= blockHeight; ++gh)
            for (int gw = 2; gw <= blockWidth; ++gw)
                if (gw * gh <= 64)
                    shared.grids[size_t((gh - 2) * kSides + gw - 2)] = buildGrid(blockWidth, blockHeight, gw, gh);
        shared.built = true;
    }
    m_grids = shared.grids.data();
}

void InfillMatDataBase::prepareFit(int gridWidth, int gridHeight) {
    std::lock_guard<std::mutex> lock(g_buildLock);
    AstcGridInfill& g = m_grids[size_t((gridHeight - 2) * kSides + gridWidth - 2)];
    if (g.fit.empty() && !g.identity && g.points > 0) buildFit(m_blockWidth * m_blockHeight, g);
}

}  // namespace glyptora_astc
