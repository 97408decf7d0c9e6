#pragma once
// Weighted cluster fit for BC1 colour blocks.
//
// The block's distinct colours (ColourPointSet) are ordered along their principal
// axis; every split of that order into consecutive clusters, one cluster per palette
// entry, is then solved for the least-squares endpoints, snapped to 5:6:5 and scored.
// With prefix sums of the weighted colours each split costs O(1) in four-lane vector
// arithmetic. Colours are on the 0..1 scale; errors are weighted by the squared metric.
#include <cfloat>
#include <cstdint>

#include "bc/single_colour_tables.h"
#include "core/host_device.h"
#include "core/vec4.h"

namespace clusterfit {
inline namespace GLYPTORA_SIMD_ABI {

using glyptora_simd::Vec4f;

// Point set construction flags.
enum : int {
    kPunchThrough = 1,     // alpha 0 pixels are transparent and get no point
    kWeightByAlpha = 128,  // a pixel weighs (alpha + 1) / 256 instead of 1
};

// Fit flags.
enum : int {
    kThreeColourAllowed = 1,
};

// The distinct colours of one 4x4 block with their summed weights.
class ColourPointSet {
public:
    // `bgra`: 16 pixels as blue, green, red, alpha bytes.
    GLYPTORA_HD ColourPointSet(const uint8_t* bgra, int flags) {
        const bool punchThrough = (flags & kPunchThrough) != 0;
        const bool weightByAlpha = (flags & kWeightByAlpha) != 0;
        uint32_t keys[16];
        for (int i = 0; i < 16; ++i) {
            const uint8_t* p = bgra + 4 * i;
            if (punchThrough && p[3] == 0) {
                m_remap[i] = -1;
                m_transparent = true;
                continue;
            }
            const float weight = weightByAlpha ? float(p[3] + 1) * 0.00390625f : 1.0f;
            const uint32_t key = uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16);
            // Transparent pixels never own a point, so any earlier point is opaque.
            int found = -1;
            for (int j = 0; j < m_count; ++j)
                if (keys[j] == key) {
                    found = j;
                    break;
                }
            if (found >= 0) {
                m_weights[found] += weight;
                m_remap[i] = found;
                continue;
            }
            keys[m_count] = key;
            m_points[m_count][0] = float(p[2]) * 0.003921569f;
            m_points[m_count][1] = float(p[1]) * 0.003921569f;
            m_points[m_count][2] = float(p[0]) * 0.003921569f;
            m_weights[m_count] = weight;
            m_remap[i] = m_count;
            ++m_count;
        }
    }

    GLYPTORA_HD int count() const { return m_count; }
    // Red, green, blue of point i on the 0..1 scale.
    GLYPTORA_HD const float* point(int i) const { return m_points[i]; }
    GLYPTORA_HD float weight(int i) const { return m_weights[i]; }
    // Point index of pixel i, or -1 for a transparent pixel.
    GLYPTORA_HD int remap(int i) const { return m_remap[i]; }
    GLYPTORA_HD bool isTransparent() const { return m_transparent; }

    // The fit's error (constant term left out) of painting every point with `colour`
    // (0..1 scale), so that a single-colour candidate competes with the fits.
    GLYPTORA_HD float flatError(const float colour[3], const float metric[3]) const {
        float error = 0.0f;
        for (int c = 0; c < 3; ++c) {
            float sum = 0.0f;
            for (int i = 0; i < m_count; ++i) sum += m_weights[i] * (colour[c] - 2.0f * m_points[i][c]);
            error += metric[c] * metric[c] * colour[c] * sum;
        }
        return error;
    }

private:
    int m_count = 0;
    float m_points[16][3] = {};
    float m_weights[16] = {};
    int m_remap[16] = {};
    bool m_transparent = false;
};

// A colour fit over a point set; writes the block when it beats the best error so far.
class ColourFit {
public:
    GLYPTORA_HD ColourFit(const ColourPointSet* colours, int flags) : m_colours(colours), m_flags(flags) {}
    GLYPTORA_HD virtual ~ColourFit() {}

    // 3-colour mode fit (transparent pixels on index 3).
    GLYPTORA_HD virtual void compressThreeColour(uint8_t* block) = 0;
    // 4-colour mode fit.
    GLYPTORA_HD virtual void compressFourColour(uint8_t* block) = 0;

    // Runs the fits the flags allow: 4-colour only; or, with 3-colour mode allowed,
    // 4-colour when nothing is transparent and then 3-colour.
    GLYPTORA_HD void compress(uint8_t* block) {
        if (m_flags & kThreeColourAllowed) {
            if (!m_colours->isTransparent()) compressFourColour(block);
            compressThreeColour(block);
        } else {
            compressFourColour(block);
        }
    }

protected:
    const ColourPointSet* m_colours;
    int m_flags;
};

class WeightedClusterFit final : public ColourFit {
public:
    // `metric`: red, green, blue error weights.
    GLYPTORA_HD WeightedClusterFit(const ColourPointSet* colours, int flags, const float metric[3])
        : ColourFit(colours, flags),
          m_metric(metric[0], metric[1], metric[2], 0.0f),
          m_metricSqr(metric[0] * metric[0], metric[1] * metric[1], metric[2] * metric[2], 0.0f),
          m_besterror(FLT_MAX) {
        const int n = colours->count();
        m_count = n;
        for (int c = 0; c < 3; ++c) m_metricSqrLane[c] = metric[c] * metric[c];

        // Principal axis of the weighted covariance, then the points in order along it.
        float axis[3];
        principalAxis(axis);
        float projection[16];
        for (int i = 0; i < n; ++i) {
            const float* p = colours->point(i);
            projection[i] = p[0] * axis[0] + p[1] * axis[1] + p[2] * axis[2];
        }
        for (int i = 0; i < n; ++i) {
            // Stable insertion sort: equal projections keep their first-appearance order.
            int j = i;
            while (j > 0 && projection[m_order[j - 1]] > projection[i]) {
                m_order[j] = m_order[j - 1];
                --j;
            }
            m_order[j] = i;
        }

        // Running totals of the weighted colours (colour * weight) and weights in sorted
        // order: m_prefix[c][s] sums the first s points.
        float sum[4] = {0.0f, 0.0f, 0.0f, 0.0f};
        for (int s = 0; s <= n; ++s) {
            for (int c = 0; c < 4; ++c) m_prefix[c][s] = sum[c];
            if (s < n) {
                const int i = m_order[s];
                const float* p = colours->point(i);
                const float w = colours->weight(i);
                sum[0] += p[0] * w;
                sum[1] += p[1] * w;
                sum[2] += p[2] * w;
                sum[3] += w;
            }
        }

        // Every pair of cut positions f <= s in loop order (f, then s), with the sums the
        // split evaluation needs. A run of consecutive pairs loads as one vector, so the
        // inner loops step four splits at a time with almost no idle lanes.
        int p = 0;
        for (int f = 0; f <= n; ++f) {
            m_pairStart[f] = p;
            for (int t = f; t <= n; ++t, ++p) {
                for (int c = 0; c < 3; ++c) m_pairSum[c][p] = m_prefix[c][f] + m_prefix[c][t];
                m_pairFirstW[p] = m_prefix[3][f];
                m_pairSecondW[p] = m_prefix[3][t];
                m_pairSecond[p] = uint8_t(t);
            }
        }
        m_pairCount = p;
        for (; p < kMaxPairs; ++p) {
            // Padding for loads past the last pair; those lanes are never taken.
            for (int c = 0; c < 3; ++c) m_pairSum[c][p] = 0.0f;
            m_pairFirstW[p] = m_pairSecondW[p] = 0.0f;
            m_pairSecond[p] = 0;
        }
    }

    GLYPTORA_HD void setBestError(float error) { m_besterror = Vec4f(error); }
    GLYPTORA_HD float bestError() const { return m_besterror.x(); }

    // Clusters [0,i) on a, [i,j) on 2/3 a + 1/3 b, [j,k) on 1/3 a + 2/3 b, [k,n) on b,
    // for all i <= j <= k <= n in loop order. With prefix sums P and W the cluster sums
    // reduce to
    //   sum alpha x = (P_i + P_j + P_k) / 3,
    //   sum alpha^2 = (5 W_i + 3 W_j + W_k) / 9,   sum beta^2 = W_n - (W_i + 3 W_j + 5 W_k) / 9,
    //   sum alpha beta = 2 (W_k - W_i) / 9,
    // so for a fixed i the pairs (j, k) are a suffix of the pair list.
    GLYPTORA_HD void compressFourColour(uint8_t* block) override {
        const int n = m_count;
        const Vec4f third(1.0f / 3.0f), ninth(0.11111111f), twoNinths(0.22222222f);
        const Vec4f three(3.0f), five(5.0f), lane(0.0f, 1.0f, 2.0f, 3.0f);
        const Vec4f total(m_prefix[3][n]), pairEnd(float(m_pairCount) - 0.5f);

        float best = m_besterror.x();
        int bestI = -1, bestPair = 0;
        float bestQ[6] = {};
        for (int i = 0; i <= n; ++i) {
            const Vec4f pi[3] = {Vec4f(m_prefix[0][i]), Vec4f(m_prefix[1][i]), Vec4f(m_prefix[2][i])};
            const Vec4f wi(m_prefix[3][i]);
            const Vec4f wi5 = five * wi;
            for (int p = m_pairStart[i]; p < m_pairCount; p += 4) {
                const Vec4f wj = Vec4f::load(&m_pairFirstW[p]);
                const Vec4f wk = Vec4f::load(&m_pairSecondW[p]);
                Vec4f alphax[3];
                for (int c = 0; c < 3; ++c) alphax[c] = (pi[c] + Vec4f::load(&m_pairSum[c][p])) * third;
                const Vec4f wj3 = three * wj;
                const Vec4f alpha2 = (wi5 + wj3 + wk) * ninth;
                const Vec4f beta2 = total - (wi + wj3 + five * wk) * ninth;
                const Vec4f alphabeta = (wk - wi) * twoNinths;
                const Vec4f valid = cmpLess(Vec4f(float(p)) + lane, pairEnd);
                const int taken = scoreSplits(alphax, alpha2, beta2, alphabeta, valid, best, bestQ);
                if (taken >= 0) {
                    bestI = i;
                    bestPair = p + taken;
                }
            }
        }
        if (bestI < 0) return;

        const int bestJ = pairFirst(bestPair), bestK = m_pairSecond[bestPair];
        const unsigned A = pack565(bestQ), B = pack565(bestQ + 3);
        // Cluster -> index: a is col0 when it is the larger endpoint.
        int clusterIndex[4];
        if (A > B) {
            clusterIndex[0] = 0, clusterIndex[1] = 2, clusterIndex[2] = 3, clusterIndex[3] = 1;
        } else if (A < B) {
            clusterIndex[0] = 1, clusterIndex[1] = 3, clusterIndex[2] = 2, clusterIndex[3] = 0;
        } else {
            // Equal endpoints decode as 3-colour mode; index 0 is the colour either way.
            clusterIndex[0] = clusterIndex[1] = clusterIndex[2] = clusterIndex[3] = 0;
        }
        uint8_t pointIndex[16];
        for (int s = 0; s < n; ++s)
            pointIndex[m_order[s]] = uint8_t(clusterIndex[(s >= bestI) + (s >= bestJ) + (s >= bestK)]);
        writeFit(block, A >= B ? A : B, A >= B ? B : A, pointIndex);
        m_besterror = Vec4f(best);
    }

    // Clusters [0,i) on a, [i,j) on the midpoint, [j,n) on b for all i <= j <= n: one
    // pass over the pair list, with
    //   sum alpha x = (P_i + P_j) / 2,  sum alpha^2 = (3 W_i + W_j) / 4,
    //   sum beta^2 = W_n - (W_i + 3 W_j) / 4,  sum alpha beta = (W_j - W_i) / 4.
    GLYPTORA_HD void compressThreeColour(uint8_t* block) override {
        const int n = m_count;
        const Vec4f half(0.5f), quarter(0.25f), three(3.0f), lane(0.0f, 1.0f, 2.0f, 3.0f);
        const Vec4f total(m_prefix[3][n]), pairEnd(float(m_pairCount) - 0.5f);

        float best = m_besterror.x();
        int bestPair = -1;
        float bestQ[6] = {};
        for (int p = 0; p < m_pairCount; p += 4) {
            const Vec4f wi = Vec4f::load(&m_pairFirstW[p]);
            const Vec4f wj = Vec4f::load(&m_pairSecondW[p]);
            Vec4f alphax[3];
            for (int c = 0; c < 3; ++c) alphax[c] = Vec4f::load(&m_pairSum[c][p]) * half;
            const Vec4f alpha2 = mulAdd(three, wi, wj) * quarter;
            const Vec4f beta2 = total - mulAdd(three, wj, wi) * quarter;
            const Vec4f alphabeta = (wj - wi) * quarter;
            const Vec4f valid = cmpLess(Vec4f(float(p)) + lane, pairEnd);
            const int taken = scoreSplits(alphax, alpha2, beta2, alphabeta, valid, best, bestQ);
            if (taken >= 0) bestPair = p + taken;
        }
        if (bestPair < 0) return;

        const int bestI = pairFirst(bestPair), bestJ = m_pairSecond[bestPair];
        const unsigned A = pack565(bestQ), B = pack565(bestQ + 3);
        // 3-colour order: the smaller endpoint is col0.
        int clusterIndex[3];
        if (A <= B) clusterIndex[0] = 0, clusterIndex[1] = 2, clusterIndex[2] = 1;
        else clusterIndex[0] = 1, clusterIndex[1] = 2, clusterIndex[2] = 0;
        uint8_t pointIndex[16];
        for (int s = 0; s < n; ++s) pointIndex[m_order[s]] = uint8_t(clusterIndex[(s >= bestI) + (s >= bestJ)]);
        writeFit(block, A <= B ? A : B, A <= B ? B : A, pointIndex);
        m_besterror = Vec4f(best);
    }

private:
    static constexpr int kMaxPairs = 156;  // 17 * 18 / 2 cut pairs, rounded up to whole vectors

    // Dominant eigenvector of the weighted covariance by power iteration, started from
    // the covariance row with the largest diagonal entry. Zero for a single colour.
    GLYPTORA_HD void principalAxis(float axis[3]) const {
        const int n = m_colours->count();
        float total = 0.0f, centre[3] = {0.0f, 0.0f, 0.0f};
        for (int i = 0; i < n; ++i) {
            const float w = m_colours->weight(i);
            const float* p = m_colours->point(i);
            total += w;
            for (int c = 0; c < 3; ++c) centre[c] += w * p[c];
        }
        if (total > 0.0f)
            for (int c = 0; c < 3; ++c) centre[c] /= total;
        float cov[3][3] = {};
        for (int i = 0; i < n; ++i) {
            const float w = m_colours->weight(i);
            const float* p = m_colours->point(i);
            const float d[3] = {p[0] - centre[0], p[1] - centre[1], p[2] - centre[2]};
            for (int r = 0; r < 3; ++r)
                for (int c = r; c < 3; ++c) cov[r][c] += w * d[r] * d[c];
        }
        cov[1][0] = cov[0][1];
        cov[2][0] = cov[0][2];
        cov[2][1] = cov[1][2];

        int start = 0;
        if (cov[1][1] > cov[start][start]) start = 1;
        if (cov[2][2] > cov[start][start]) start = 2;
        float v[3] = {cov[start][0], cov[start][1], cov[start][2]};
        for (int iteration = 0; iteration < 8; ++iteration) {
            const float x = cov[0][0] * v[0] + cov[0][1] * v[1] + cov[0][2] * v[2];
            const float y = cov[1][0] * v[0] + cov[1][1] * v[1] + cov[1][2] * v[2];
            const float z = cov[2][0] * v[0] + cov[2][1] * v[1] + cov[2][2] * v[2];
            float largest = fabsf(x);
            if (fabsf(y) > largest) largest = fabsf(y);
            if (fabsf(z) > largest) largest = fabsf(z);
            if (!(largest > 0.0f)) break;
            const float scale = 1.0f / largest;
            v[0] = x * scale;
            v[1] = y * scale;
            v[2] = z * scale;
        }
        axis[0] = v[0];
        axis[1] = v[1];
        axis[2] = v[2];
    }

    // First cut position of pair p.
    GLYPTORA_HD int pairFirst(int p) const {
        int f = 0;
        while (f < m_count && m_pairStart[f + 1] <= p) ++f;
        return f;
    }

    // Scores four splits at once (lane = split; lanes off `valid` are ignored) from their
    // sums: alphax[c] (the implied betax[c] is the total minus alphax[c]), alpha2, beta2
    // and alphabeta. Each lane's least-squares endpoints
    //   a = (beta2 alphax - alphabeta betax) / D,  b = (alpha2 betax - alphabeta alphax) / D,
    //   D = alpha2 beta2 - alphabeta^2 (1/D: reciprocal estimate and one Newton step),
    // are clamped to [0, 1] and snapped to 5:6:5, and the error
    //   E = sum over channels of m^2 (a^2 alpha2 + b^2 beta2 + 2 (a b alphabeta - a alphax - b betax))
    // (the constant sum of w x^2 left out) is compared with `best`, lane by lane in order,
    // strict improvement only. Returns the lane of the last improvement (its error is
    // then in `best`, its grid levels in `bestQ`: a red, green, blue, then b), or -1.
    GLYPTORA_HD int scoreSplits(const Vec4f* alphax, Vec4f alpha2, Vec4f beta2, Vec4f alphabeta, Vec4f valid,
                                float& best, float* bestQ) const {
        const Vec4f zero(0.0f), one(1.0f), half(0.5f);
        const float gridLevels[3] = {31.0f, 63.0f, 31.0f};
        const float gridStep[3] = {0.032258064f, 0.015873017f, 0.032258064f};

        const Vec4f det = alpha2 * beta2 - alphabeta * alphabeta;
        Vec4f factor = reciprocalEstimate(det);
        factor = mulAdd(factor, one - factor * det, factor);

        Vec4f error(0.0f), q[6];
        for (int c = 0; c < 3; ++c) {
            const Vec4f ax = alphax[c];
            const Vec4f bx = Vec4f(m_prefix[c][m_count]) - ax;
            const Vec4f a = (ax * beta2 - bx * alphabeta) * factor;
            const Vec4f b = (bx * alpha2 - ax * alphabeta) * factor;
            const Vec4f grid(gridLevels[c]), step(gridStep[c]);
            q[c] = truncate(mulAdd(grid, clamp(a, zero, one), half));
            q[c + 3] = truncate(mulAdd(grid, clamp(b, zero, one), half));
            const Vec4f sa = q[c] * step, sb = q[c + 3] * step;
            // sa (sa alpha2 + 2 (sb alphabeta - ax)) + sb (sb beta2 - 2 bx)
            const Vec4f t = sb * alphabeta - ax;
            const Vec4f ea = sa * (sa * alpha2 + (t + t));
            const Vec4f eb = sb * (sb * beta2 - (bx + bx));
            error = mulAdd(ea + eb, Vec4f(m_metricSqrLane[c]), error);
        }
        error = select(valid, error, Vec4f(FLT_MAX));
        if (moveMask(cmpLess(error, Vec4f(best))) == 0) return -1;

        // Rare: take the lanes in loop order.
        float e[4], qs[6][4];
        error.store(e);
        for (int c = 0; c < 6; ++c) q[c].store(qs[c]);
        int taken = -1;
        for (int l = 0; l < 4; ++l) {
            if (!(e[l] < best)) continue;
            best = e[l];
            taken = l;
            for (int c = 0; c < 6; ++c) bestQ[c] = qs[c][l];
        }
        return taken;
    }

    // Grid levels (red, green, blue) as packed 5:6:5.
    GLYPTORA_HD static unsigned pack565(const float* q) {
        return unsigned((int(q[0]) << 11) | (int(q[1]) << 5) | int(q[2]));
    }

    // Writes the block; pixels take their point's index, transparent pixels index 3.
    GLYPTORA_HD void writeFit(uint8_t* block, unsigned col0, unsigned col1, const uint8_t* pointIndex) const {
        uint32_t indices = 0;
        for (int i = 0; i < 16; ++i) {
            const int point = m_colours->remap(i);
            const uint32_t index = point < 0 ? 3u : pointIndex[point];
            indices |= index << (2 * i);
        }
        block[0] = uint8_t(col0);
        block[1] = uint8_t(col0 >> 8);
        block[2] = uint8_t(col1);
        block[3] = uint8_t(col1 >> 8);
        block[4] = uint8_t(indices);
        block[5] = uint8_t(indices >> 8);
        block[6] = uint8_t(indices >> 16);
        block[7] = uint8_t(indices >> 24);
    }

    Vec4f m_metric;
    Vec4f m_metricSqr;
    Vec4f m_besterror;  // all lanes equal
    float m_metricSqrLane[3];
    int m_count = 0;
    int m_order[16] = {};                 // sorted position -> point
    float m_prefix[4][17];                // running totals: red, green, blue (times weight), weight
    int m_pairCount = 0;
    int m_pairStart[18] = {};             // first pair whose first cut is f
    float m_pairSum[3][kMaxPairs];        // P_f + P_s per colour channel
    float m_pairFirstW[kMaxPairs];        // W_f
    float m_pairSecondW[kMaxPairs];       // W_s
    uint8_t m_pairSecond[kMaxPairs];      // s
};

}  // namespace GLYPTORA_SIMD_ABI
}  // namespace clusterfit
