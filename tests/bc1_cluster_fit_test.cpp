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

namespace {

struct Point {
    double x[3];
    double w;
};

// Pixel weight: 1, or (alpha + 1) / 256 for BC1a; alpha-0 pixels are skipped for BC1a.
double weightOf(const uint8_t* p, bool bc1a) { return bc1a ? (p[3] + 1) / 256.0 : 1.0; }

// Distinct colours with summed weights, ordered along the dominant axis of their weighted
// covariance (power iteration from the row with the largest diagonal entry).
std::vector<Point> sortedPoints(const uint8_t* bgra, bool bc1a) {
    std::vector<Point> pts;
    for (int i = 0; i < 16; ++i) {
        const uint8_t* p = bgra + 4 * i;
        if (bc1a && p[3] == 0) continue;
        const Point q{{p[2] / 255.0, p[1] / 255.0, p[0] / 255.0}, weightOf(p, bc1a)};
        auto same = std::find_if(pts.begin(), pts.end(), [&](const Point& o) {
            return o.x[0] == q.x[0] && o.x[1] == q.x[1] && o.x[2] == q.x[2];
        });
        if (same != pts.end()) same->w += q.w;
        else pts.push_back(q);
    }
    double total = 0, centre[3] = {}, cov[3][3] = {};
    for (const Point& p : pts)
        for (int c = 0; c < 3; ++c) centre[c] += p.w * p.x[c], total += c == 0 ? p.w : 0;
    for (const Point& p : pts)
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) cov[r][c] += p.w * (p.x[r] - centre[r] / total) * (p.x[c] - centre[c] / total);
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
    auto along = [&](const Point& p) { return p.x[0] * v[0] + p.x[1] * v[1] + p.x[2] * v[2]; };
    std::stable_sort(pts.begin(), pts.end(), [&](const Point& a, const Point& b) { return along(a) < along(b); });
    return pts;
}

const double kLevels[3] = {31, 63, 31};

// Smallest error over every split of the sorted points into clusters with palette
// weights `clusterAlpha` on endpoint a (1 - alpha on b).
double bestSplitError(const std::vector<Point>& pts, const std::vector<double>& clusterAlpha, const float* metric) {
    const int n = int(pts.size()), clusters = int(clusterAlpha.size());
    double best = 1e30;
    std::vector<int> cut(clusters - 1, 0);
    for (;;) {
        std::vector<double> alpha(n);
        for (int i = 0; i < n; ++i) alpha[i] = clusterAlpha[std::upper_bound(cut.begin(), cut.end(), i) - cut.begin()];
        double aa = 0, bb = 0, ab = 0, ax[3] = {}, bx[3] = {};
        for (int i = 0; i < n; ++i) {
            const double al = alpha[i], be = 1 - al, w = pts[i].w;
            aa += w * al * al, bb += w * be * be, ab += w * al * be;
            for (int c = 0; c < 3; ++c) ax[c] += w * al * pts[i].x[c], bx[c] += w * be * pts[i].x[c];
        }
        const double det = aa * bb - ab * ab;
        if (std::fabs(det) > 1e-9) {
            double e = 0;
            for (int c = 0; c < 3; ++c) {
                auto snap = [&](double v) { return std::trunc(std::clamp(v, 0.0, 1.0) * kLevels[c] + 0.5) / kLevels[c]; };
                const double a = snap((bb * ax[c] - ab * bx[c]) / det), b = snap((aa * bx[c] - ab * ax[c]) / det);
                for (int i = 0; i < n; ++i)
                    e += metric[c] * metric[c] * pts[i].w * std::pow(alpha[i] * a + (1 - alpha[i]) * b - pts[i].x[c], 2);
            }
            best = std::min(best, e);
        }
        int k = clusters - 2;  // next non-decreasing cut vector
        while (k >= 0 && cut[k] == n) --k;
        if (k < 0) return best;
        ++cut[k];
        for (int m = k + 1; m < clusters - 1; ++m) cut[m] = cut[k];
    }
}

// The block's error in the same units: endpoints as grid levels / (31, 63, 31), palette
// weights from the indices and the block's mode. Opaque pixels must not be on index 3.
double blockError(const uint8_t* block, const uint8_t* bgra, bool bc1a, const float* metric) {
    const unsigned c0 = block[0] | (block[1] << 8), c1 = block[2] | (block[3] << 8);
    const double e0[3] = {(c0 >> 11) / 31.0, ((c0 >> 5) & 63) / 63.0, (c0 & 31) / 31.0};
    const double e1[3] = {(c1 >> 11) / 31.0, ((c1 >> 5) & 63) / 63.0, (c1 & 31) / 31.0};
    const double four[4] = {1, 0, 2.0 / 3, 1.0 / 3}, three[4] = {1, 0, 0.5, -1};
    double e = 0;
    for (int i = 0; i < 16; ++i) {
        const uint8_t* p = bgra + 4 * i;
        const int index = (block[4 + i / 4] >> (2 * (i % 4))) & 3;
        if (bc1a && p[3] == 0) {
            EXPECT_EQ(index, 3) << "transparent pixel " << i;
            continue;
        }
        const double al = (c0 > c1 ? four : three)[index];
        EXPECT_GE(al, 0.0) << "opaque pixel " << i << " written transparent";
        for (int c = 0; c < 3; ++c)
            e += metric[c] * metric[c] * weightOf(p, bc1a) * std::pow(al * e0[c] + (1 - al) * e1[c] - p[2 - c] / 255.0, 2);
    }
    return e;
}

// Random block with a dominant direction, repeated colours, noise and random alpha.
std::array<uint8_t, 64> randomBlock(std::mt19937& rng) {
    std::array<uint8_t, 64> px;
    int a[3], b[3];
    for (int c = 0; c < 3; ++c) a[c] = int(rng() % 256), b[c] = int(rng() % 256);
    const int noise = int(rng() % 40);
    for (int i = 0; i < 16; ++i) {
        const int j = i > 0 && rng() % 4 == 0 ? int(rng() % i) : -1;
        const double t = (rng() % 1000) / 999.0;
        for (int c = 0; c < 3; ++c)
            px[4 * i + 2 - c] = uint8_t(std::clamp(int(a[c] + (b[c] - a[c]) * t) + int(rng() % (2 * noise + 1)) - noise, 0, 255));
        px[4 * i + 3] = uint8_t(rng());
        if (j >= 0) std::copy_n(&px[4 * j], 4, &px[4 * i]);
    }
    return px;
}

}  // namespace

TEST(ClusterFit, FourColourBlockReachesTheBestSplit) {
    std::mt19937 rng(17);
    for (int n = 0; n < 300; ++n) {
        const float metric[3] = {n % 2 ? 0.2126f : 1.0f, n % 2 ? 0.7152f : 1.0f, n % 2 ? 0.0722f : 1.0f};
        const auto px = randomBlock(rng);
        const std::vector<Point> pts = sortedPoints(px.data(), false);
        if (pts.size() < 2) continue;
        uint8_t block[8];
        glyptora_dxt::encodeColourBlock(px.data(), false, metric, block);
        ASSERT_NEAR(blockError(block, px.data(), false, metric), bestSplitError(pts, {1, 2.0 / 3, 1.0 / 3, 0}, metric), 1e-4)
            << n;
    }
}

TEST(ClusterFit, ThreeColourBlockWithTransparencyReachesTheBestSplit) {
    std::mt19937 rng(19);
    const float metric[3] = {1, 1, 1};
    for (int n = 0; n < 300; ++n) {
        auto px = randomBlock(rng);
        px[4 * (n % 16) + 3] = 0;  // a transparent pixel forces 3-colour mode
        const std::vector<Point> pts = sortedPoints(px.data(), true);
        if (pts.size() < 2) continue;
        uint8_t block[8];
        glyptora_dxt::encodeBC1aBlock(px.data(), false, metric, block);
        ASSERT_NEAR(blockError(block, px.data(), true, metric), bestSplitError(pts, {1, 0.5, 0}, metric), 1e-4) << n;
    }
}
