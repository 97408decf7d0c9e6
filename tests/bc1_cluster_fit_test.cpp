// Checks the vectorised cluster fit against a plain double-precision search over the
// same splits: along the same principal-axis order, every split into consecutive
// clusters, least-squares endpoints clamped and snapped to 5:6:5. The block the encoder
// writes must reach the smallest error of that search.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <vector>

#include "bc/bc1_encoder.h"

using namespace glyptora_dxt;

namespace {

struct Point {
    double x[3];
    double w;
};

// Distinct colours in first-appearance order with summed weights; alpha-0 pixels are
// left out when `punchThrough`, and weigh (alpha + 1) / 256 when `byAlpha`.
std::vector<Point> points(const uint8_t* bgra, bool punchThrough, bool byAlpha, std::vector<int>& remap) {
    std::vector<Point> pts;
    std::vector<uint32_t> keys;
    remap.assign(16, -1);
    for (int i = 0; i < 16; ++i) {
        const uint8_t* p = bgra + 4 * i;
        if (punchThrough && p[3] == 0) continue;
        const uint32_t key = p[0] | (p[1] << 8) | (p[2] << 16);
        const double w = byAlpha ? (p[3] + 1) / 256.0 : 1.0;
        auto it = std::find(keys.begin(), keys.end(), key);
        if (it != keys.end()) {
            remap[i] = int(it - keys.begin());
            pts[remap[i]].w += w;
            continue;
        }
        remap[i] = int(pts.size());
        keys.push_back(key);
        pts.push_back({{p[2] / 255.0, p[1] / 255.0, p[0] / 255.0}, w});
    }
    return pts;
}

// Points ordered along the dominant axis of the weighted covariance (power iteration
// from the row with the largest diagonal entry).
std::vector<Point> sortedAlongAxis(std::vector<Point> pts) {
    double total = 0, centre[3] = {0, 0, 0}, cov[3][3] = {};
    for (const Point& p : pts) {
        total += p.w;
        for (int c = 0; c < 3; ++c) centre[c] += p.w * p.x[c];
    }
    for (double& c : centre) c /= total;
    for (const Point& p : pts)
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) cov[r][c] += p.w * (p.x[r] - centre[r]) * (p.x[c] - centre[c]);
    int start = 0;
    for (int d = 1; d < 3; ++d)
        if (cov[d][d] > cov[start][start]) start = d;
    double v[3] = {cov[start][0], cov[start][1], cov[start][2]};
    for (int it = 0; it < 8; ++it) {
        double u[3];
        for (int r = 0; r < 3; ++r) u[r] = cov[r][0] * v[0] + cov[r][1] * v[1] + cov[r][2] * v[2];
        const double m = std::max({std::fabs(u[0]), std::fabs(u[1]), std::fabs(u[2])});
        for (int r = 0; r < 3; ++r) v[r] = u[r] / m;
    }
    std::stable_sort(pts.begin(), pts.end(), [&](const Point& a, const Point& b) {
        return a.x[0] * v[0] + a.x[1] * v[1] + a.x[2] * v[2] < b.x[0] * v[0] + b.x[1] * v[1] + b.x[2] * v[2];
    });
    return pts;
}

const double kLevels[3] = {31, 63, 31};

double snap(double v, int c) { return std::trunc(std::clamp(v, 0.0, 1.0) * kLevels[c] + 0.5) / kLevels[c]; }

// Full weighted error of the points painted with palette weights `alpha` (on a; 1 - alpha on b).
double error(const std::vector<Point>& pts, const std::vector<double>& alpha, const double a[3], const double b[3],
             const double metric[3]) {
    double e = 0;
    for (size_t i = 0; i < pts.size(); ++i)
        for (int c = 0; c < 3; ++c) {
            const double d = alpha[i] * a[c] + (1 - alpha[i]) * b[c] - pts[i].x[c];
            e += metric[c] * metric[c] * pts[i].w * d * d;
        }
    return e;
}

// Smallest error over every split of the sorted points into clusters with palette
// weights `clusterAlpha` (4 clusters: 1, 2/3, 1/3, 0; 3 clusters: 1, 1/2, 0).
double bestSplitError(const std::vector<Point>& pts, const std::vector<double>& clusterAlpha, const double metric[3]) {
    const int n = int(pts.size()), clusters = int(clusterAlpha.size());
    double best = 1e30;
    std::vector<int> cut(clusters - 1, 0);
    while (true) {
        std::vector<double> alpha(n);
        for (int i = 0; i < n; ++i) {
            int k = 0;
            while (k < clusters - 1 && i >= cut[k]) ++k;
            alpha[i] = clusterAlpha[k];
        }
        double aa = 0, bb = 0, ab = 0, ax[3] = {}, bx[3] = {};
        for (int i = 0; i < n; ++i) {
            const double al = alpha[i], be = 1 - al, w = pts[i].w;
            aa += w * al * al, bb += w * be * be, ab += w * al * be;
            for (int c = 0; c < 3; ++c) ax[c] += w * al * pts[i].x[c], bx[c] += w * be * pts[i].x[c];
        }
        const double det = aa * bb - ab * ab;
        if (std::fabs(det) > 1e-9) {
            double a[3], b[3];
            for (int c = 0; c < 3; ++c) {
                a[c] = snap((bb * ax[c] - ab * bx[c]) / det, c);
                b[c] = snap((aa * bx[c] - ab * ax[c]) / det, c);
            }
            best = std::min(best, error(pts, alpha, a, b, metric));
        }
        // Next cut vector, non-decreasing, each cut in [0, n].
        int k = clusters - 2;
        while (k >= 0 && cut[k] == n) --k;
        if (k < 0) break;
        ++cut[k];
        for (int m = k + 1; m < clusters - 1; ++m) cut[m] = cut[k];
    }
    return best;
}

// Error of an encoded block in the same units: endpoints as grid levels / (31, 63, 31),
// palette weights from the indices and the block's mode.
double blockError(const uint8_t* block, const uint8_t* bgra, bool byAlpha, const std::vector<Point>& pts,
                  const std::vector<int>& remap, const double metric[3]) {
    const unsigned c0 = block[0] | (block[1] << 8), c1 = block[2] | (block[3] << 8);
    const uint32_t idx = block[4] | (block[5] << 8) | (block[6] << 16) | (uint32_t(block[7]) << 24);
    const double e0[3] = {(c0 >> 11) / 31.0, ((c0 >> 5) & 63) / 63.0, (c0 & 31) / 31.0};
    const double e1[3] = {(c1 >> 11) / 31.0, ((c1 >> 5) & 63) / 63.0, (c1 & 31) / 31.0};
    const double fourColour[4] = {1, 0, 2.0 / 3, 1.0 / 3}, threeColour[4] = {1, 0, 0.5, -1};
    double e = 0;
    for (int i = 0; i < 16; ++i) {
        if (remap[i] < 0) continue;
        const double al = (c0 > c1 ? fourColour : threeColour)[(idx >> (2 * i)) & 3];
        EXPECT_GE(al, 0.0) << "opaque pixel " << i << " written transparent";
        const Point& p = pts[remap[i]];
        const double w = byAlpha ? (bgra[4 * i + 3] + 1) / 256.0 : 1.0;
        for (int c = 0; c < 3; ++c) {
            const double d = al * e0[c] + (1 - al) * e1[c] - p.x[c];
            e += metric[c] * metric[c] * w * d * d;
        }
    }
    return e;
}

// Random block with a dominant direction, some repeated colours and noise.
std::array<uint8_t, 64> randomBlock(std::mt19937& rng) {
    std::array<uint8_t, 64> px;
    int a[3], b[3];
    for (int c = 0; c < 3; ++c) a[c] = int(rng() % 256), b[c] = int(rng() % 256);
    const int noise = int(rng() % 40);
    for (int i = 0; i < 16; ++i) {
        if (i > 0 && rng() % 4 == 0) {  // repeat an earlier pixel
            const int j = int(rng() % i);
            for (int c = 0; c < 4; ++c) px[4 * i + c] = px[4 * j + c];
            continue;
        }
        const double t = (rng() % 1000) / 999.0;
        for (int c = 0; c < 3; ++c) {
            const int v = int(a[c] + (b[c] - a[c]) * t) + int(rng() % (2 * noise + 1)) - noise;
            px[4 * i + 2 - c] = uint8_t(std::clamp(v, 0, 255));
        }
        px[4 * i + 3] = uint8_t(rng());
    }
    return px;
}

}  // namespace

TEST(ClusterFit, FourColourBlockReachesTheBestSplit) {
    std::mt19937 rng(17);
    for (int n = 0; n < 300; ++n) {
        const auto px = randomBlock(rng);
        const float metric[3] = {n % 2 ? 0.2126f : 1.0f, n % 2 ? 0.7152f : 1.0f, n % 2 ? 0.0722f : 1.0f};
        const double m[3] = {metric[0], metric[1], metric[2]};
        std::vector<int> remap;
        const std::vector<Point> pts = points(px.data(), false, false, remap);
        if (pts.size() < 2) continue;
        uint8_t block[8];
        encodeColourBlock(px.data(), false, metric, block);
        const double best = bestSplitError(sortedAlongAxis(pts), {1, 2.0 / 3, 1.0 / 3, 0}, m);
        ASSERT_NEAR(blockError(block, px.data(), false, pts, remap, m), best, 1e-4) << "block " << n;
    }
}

TEST(ClusterFit, ThreeColourBlockWithTransparencyReachesTheBestSplit) {
    std::mt19937 rng(19);
    for (int n = 0; n < 300; ++n) {
        auto px = randomBlock(rng);
        px[4 * (n % 16) + 3] = 0;  // forces 3-colour mode; weights follow alpha
        std::vector<int> remap;
        const std::vector<Point> pts = points(px.data(), true, true, remap);
        if (pts.size() < 2) continue;
        const float metric[3] = {1, 1, 1};
        const double m[3] = {1, 1, 1};
        uint8_t block[8];
        encodeBC1aBlock(px.data(), false, metric, block);
        const double best = bestSplitError(sortedAlongAxis(pts), {1, 0.5, 0}, m);
        ASSERT_NEAR(blockError(block, px.data(), true, pts, remap, m), best, 1e-4) << "block " << n;
        for (int i = 0; i < 16; ++i) {
            if (px[4 * i + 3] == 0) {
                ASSERT_EQ((block[4 + i / 4] >> (2 * (i % 4))) & 3, 3) << i;
            }
        }
    }
}
