#pragma once
// Shape ranking and selection of the fast BC7 encoder: per-subset moments and
// line statistics of every shape, the cheap scatter estimate, the choice of
// the best few shapes, their endpoint fits and modelled errors.
#include <cstdint>

#include "bc7/bc7_simd.h"
#include "bc7/fast_block_load.h"
#include "bc7/fast_settings.h"
#include "core/host_device.h"
#include "core/vec4.h"

namespace glyptora_bc7 {
inline namespace GLYPTORA_SIMD_ABI {
namespace fastenc {

// ---------------------------------------------------------------------------
// Shape ranking: the principal-axis residual of every subset of every shape.
//
// Moments over the valid texels of each row are tabulated for all 16 column
// subsets of the row, so a subset's moments cost four look-ups. Four shapes
// are then processed at once, one per lane.

// Record layout: n, the sums of the NC channels, the NC squares, then the
// NC (NC - 1) / 2 cross products (01, 02, 12 / 01, 02, 03, 12, 13, 23). For
// three channels the first two quads (n, sums, squares) give the scatter.
template <int NC>
GLYPTORA_HD constexpr int momentSlot(int k, int l) {
    // k <= l
    return k == l ? 1 + NC + k
                  : 1 + 2 * NC + (NC == 3 ? (k == 0 ? l - 1 : 2) : (k == 0 ? l - 1 : (k == 1 ? l + 1 : 5)));
}

// Record quads holding data: 10 values for three channels, 15 for four.
template <int NC>
GLYPTORA_HD constexpr int momentQuads() {
    return NC == 3 ? 3 : 4;
}

template <int NC>
struct RowMoments {
    float mu[NC];           // block mean (moments are taken about it)
    float sums[4][16][16];  // [row][column subset][record] (filled before use, not zeroed)
    Vec4f total[4];
    GLYPTORA_HD Vec4f quad(int row, int subset, int q) const { return Vec4f::load(&sums[row][subset][4 * q]); }
    // The sum of a subset's quad q over the four rows (offsets from ShapeRowOffsets).
    GLYPTORA_HD Vec4f subsetQuad(const uint16_t (&at)[4], int q) const {
        const float* base = &sums[0][0][4 * q];
        return (Vec4f::load(base + at[0]) + Vec4f::load(base + at[1])) +
               (Vec4f::load(base + at[2]) + Vec4f::load(base + at[3]));
    }
};

// The block mean of the first NC channels over the valid texels.
template <int NC>
GLYPTORA_HD inline void blockMean(const Block& b, float (&mu)[NC]) {
    for (int k = 0; k < NC; ++k) {
        Vec4f s(0.0f);
        for (int g = 0; g < 4; ++g) s = s + lanes::keep(b.valid[g], b.ch[k][g]);
        mu[k] = lanes::hsum(s) / float(b.validCount);
    }
}

// The moment record of texel i about mu (all zero outside the valid region).
template <int NC>
GLYPTORA_HD inline void momentRecord(const Block& b, const float (&mu)[NC], int i, float (&v)[16]) {
    for (int j = 0; j < 16; ++j) v[j] = 0.0f;
    if (!(b.validMask & (1u << i))) return;
    float y[NC];
    for (int k = 0; k < NC; ++k) y[k] = b.px[i][k] - mu[k];
    v[0] = 1.0f;
    for (int k = 0; k < NC; ++k) v[1 + k] = y[k];
    for (int k = 0; k < NC; ++k)
        for (int l = k; l < NC; ++l) v[momentSlot<NC>(k, l)] = y[k] * y[l];
}

template <int NC>
GLYPTORA_HD inline void buildRowMoments(const Block& b, RowMoments<NC>& rm) {
    blockMean<NC>(b, rm.mu);
    for (int r = 0; r < 4; ++r) {
        Vec4f rec[4][4];
        for (int j = 0; j < 4; ++j) {
            float v[16];
            momentRecord<NC>(b, rm.mu, r * 4 + j, v);
            for (int q = 0; q < 4; ++q) rec[j][q] = Vec4f::load(v + 4 * q);
        }
        for (int q = 0; q < momentQuads<NC>(); ++q) Vec4f(0.0f).store(&rm.sums[r][0][4 * q]);
        for (int m = 1; m < 16; ++m) {
            const int low = m & -m;
            const int bit = low == 1 ? 0 : (low == 2 ? 1 : (low == 4 ? 2 : 3));
            for (int q = 0; q < momentQuads<NC>(); ++q)
                (Vec4f::load(&rm.sums[r][m ^ low][4 * q]) + rec[bit][q]).store(&rm.sums[r][m][4 * q]);
        }
    }
    for (int q = 0; q < momentQuads<NC>(); ++q)
        rm.total[q] = rm.quad(0, 15, q) + rm.quad(1, 15, q) + rm.quad(2, 15, q) + rm.quad(3, 15, q);
}

// The values of RowMoments without its table: each subset of a row is summed from the
// texels when asked for, column 3 down to column 0 (the order in which the table
// accumulates it), so both give the same values. For code that rates a shape or two with
// little memory (the GPU stages).
template <int NC>
struct TexelMoments {
    const Block* b;
    float mu[NC];
    Vec4f total[4];
    GLYPTORA_HD Vec4f rowQuad(int row, int columns, int q) const {
        Vec4f s(0.0f);
        for (int j = 3; j >= 0; --j) {
            if (!((columns >> j) & 1)) continue;
            float v[16];
            momentRecord<NC>(*b, mu, row * 4 + j, v);
            s = s + Vec4f::load(v + 4 * q);
        }
        return s;
    }
    // The column subset of each row is bits 4..7 of the table offsets (ShapeRowOffsets).
    GLYPTORA_HD Vec4f subsetQuad(const uint16_t (&at)[4], int q) const {
        return (rowQuad(0, (at[0] >> 4) & 15, q) + rowQuad(1, (at[1] >> 4) & 15, q)) +
               (rowQuad(2, (at[2] >> 4) & 15, q) + rowQuad(3, (at[3] >> 4) & 15, q));
    }
};

template <int NC>
GLYPTORA_HD inline void buildTexelMoments(const Block& b, TexelMoments<NC>& tm) {
    tm.b = &b;
    blockMean<NC>(b, tm.mu);
    for (int q = 0; q < momentQuads<NC>(); ++q)
        tm.total[q] = tm.rowQuad(0, 15, q) + tm.rowQuad(1, 15, q) + tm.rowQuad(2, 15, q) + tm.rowQuad(3, 15, q);
}

// Residual of the best line through each of four subsets (one per lane) in
// sum-of-squares units, with the subsets' total scatter, means and axes.
template <int NC>
GLYPTORA_HD inline void subsetStats(const Vec4f (&V)[16], const float (&mu)[NC], int iterations, Vec4f& residual,
                                    Vec4f& scatter, Vec4f (&mean)[NC], Vec4f (&axis)[NC]) {
    const Vec4f invn = Vec4f(1.0f) / glyptora_simd::max(V[0], Vec4f(1.0f));
    Vec4f C[NC][NC];
    for (int k = 0; k < NC; ++k)
        for (int l = k; l < NC; ++l) {
            C[k][l] = V[momentSlot<NC>(k, l)] - V[1 + k] * V[1 + l] * invn;
            C[l][k] = C[k][l];
        }
    Vec4f trace = C[0][0];
    for (int k = 1; k < NC; ++k) trace = trace + C[k][k];
    trace = glyptora_simd::max(trace, Vec4f(0.0f));
    // Power iteration from the column of the largest diagonal entry, scaled by
    // that entry (so |v| <= 1; a couple of iterations cannot overflow).
    Vec4f v[NC];
    Vec4f bestDiag = C[0][0];
    for (int k = 0; k < NC; ++k) v[k] = C[k][0];
    for (int j = 1; j < NC; ++j) {
        const Vec4f larger = glyptora_simd::cmpGreater(C[j][j], bestDiag);
        bestDiag = glyptora_simd::select(larger, C[j][j], bestDiag);
        for (int k = 0; k < NC; ++k) v[k] = glyptora_simd::select(larger, C[k][j], v[k]);
    }
    const Vec4f invDiag = Vec4f(1.0f) / glyptora_simd::max(bestDiag, Vec4f(1e-20f));
    for (int k = 0; k < NC; ++k) v[k] = v[k] * invDiag;
    Vec4f w[NC];
    for (int k = 0; k < NC; ++k) w[k] = v[k];
    for (int it = 0; it < iterations; ++it) {
        for (int k = 0; k < NC; ++k) {
            Vec4f acc = C[k][0] * v[0];
            for (int l = 1; l < NC; ++l) acc = acc + C[k][l] * v[l];
            w[k] = acc;
        }
        if (it + 1 < iterations)
            for (int k = 0; k < NC; ++k) v[k] = w[k] * invDiag;
    }
    Vec4f vw = v[0] * w[0], vv = v[0] * v[0], ww = w[0] * w[0];
    for (int k = 1; k < NC; ++k) {
        vw = vw + v[k] * w[k];
        vv = vv + v[k] * v[k];
        ww = ww + w[k] * w[k];
    }
    // Variance along the axis, at least the largest diagonal entry: the Rayleigh
    // quotient of v, or without iterations |C e_k|^2 / C_kk for the column k.
    Vec4f lambda = iterations > 0 ? vw / glyptora_simd::max(vv, Vec4f(1e-30f)) : vv * bestDiag;
    lambda = glyptora_simd::min(glyptora_simd::max(lambda, bestDiag), trace);
    residual = trace - lambda;
    scatter = trace;
    const Vec4f hasAxis = glyptora_simd::cmpGreater(ww, Vec4f(1e-30f));
    const Vec4f invLen = Vec4f(1.0f) / glyptora_simd::sqrt(glyptora_simd::max(ww, Vec4f(1e-30f)));
    for (int k = 0; k < NC; ++k) {
        axis[k] = lanes::keep(hasAxis, w[k] * invLen);
        mean[k] = Vec4f(mu[k]) + V[1 + k] * invn;
    }
}

// Statistics of shapes held in slots (the shape index itself when all 64
// are kept, or the rank of a chosen candidate): per subset the line residual,
// the scatter (sum of squared distances from the mean), the mean and the
// principal axis; `est` is the sum of the residuals.
template <int NC, int NS, int N>
struct ShapeStats {
    float est[N];
    float residual[NS][N];
    float scatter[NS][N];
    float mean[NS][NC][N];
    float axis[NS][NC][N];
};

GLYPTORA_HD inline const ShapeBits& shapeBits(int subsets) { return subsets == 2 ? kShapeBits2 : kShapeBits3; }

// Moments of the subsets of four shapes (one per lane) from RowMoments or TexelMoments: V[s][slot].
template <int NC, int NS, typename Moments>
GLYPTORA_HD inline void gatherMoments(const Block& b, const Moments& rm, const int (&shapes)[4], int quads,
                                      Vec4f (&V)[NS][16]) {
    // Texels outside the valid region have zero records: no masking needed.
    const ShapeRowOffsets& rows = NS == 2 ? kShapeRows2 : kShapeRows3;
    // Shape j's record quad q goes to V[s][4q + j]; each 4x4 block is then transposed.
    for (int j = 0; j < 4; ++j) {
        const int p = shapes[j];
        for (int q = 0; q < quads; ++q) {
            const Vec4f s1 = rm.subsetQuad(rows.at[p][0], q);
            V[1 % NS][4 * q + j] = s1;
            Vec4f s0 = rm.total[q] - s1;
            if (NS == 3) {
                const Vec4f s2 = rm.subsetQuad(rows.at[p][1], q);
                V[2 % NS][4 * q + j] = s2;
                s0 = s0 - s2;
            }
            V[0][4 * q + j] = s0;
        }
    }
    for (int s = 0; s < NS; ++s)
        for (int q = 0; q < quads; ++q)
            lanes::transpose(V[s][4 * q + 0], V[s][4 * q + 1], V[s][4 * q + 2], V[s][4 * q + 3]);
}

// Statistics of `count` shapes (N >= count rounded up to four) into slots 0..count-1.
template <int NC, int NS, int N, typename Moments>
GLYPTORA_HD inline void shapeStats(const Block& b, const Moments& rm, const int* shapes, int count,
                                   int iterations, ShapeStats<NC, NS, N>& st) {
    for (int g0 = 0; g0 < count; g0 += 4) {
        int p[4];
        for (int j = 0; j < 4; ++j) p[j] = shapes[g0 + j < count ? g0 + j : count - 1];
        Vec4f V[NS][16];
        gatherMoments<NC, NS>(b, rm, p, momentQuads<NC>(), V);
        Vec4f est(0.0f);
        for (int s = 0; s < NS; ++s) {
            Vec4f residual, scatter, mean[NC], axis[NC];
            subsetStats<NC>(V[s], rm.mu, iterations, residual, scatter, mean, axis);
            est = est + residual;
            residual.store(&st.residual[s][g0]);
            scatter.store(&st.scatter[s][g0]);
            for (int k = 0; k < NC; ++k) {
                mean[k].store(&st.mean[s][k][g0]);
                axis[k].store(&st.axis[s][k][g0]);
            }
        }
        est.store(&st.est[g0]);
    }
}

// Cheaper estimate of a shape: the sum of its subsets' scatters. With moments about the
// block mean that is the block's total sum of squares less each subset's |sum|^2 / n, so
// only the counts and sums are gathered.
template <int NC, typename Moments>
GLYPTORA_HD inline float totalSquares(const Moments& rm) {
    float squares = 0.0f;
    float t[8];
    rm.total[0].store(t);
    rm.total[1].store(t + 4);
    for (int k = 0; k < NC; ++k) squares += t[1 + NC + k];
    return squares;
}

// The estimates of four shapes (one per lane); `squares` from totalSquares().
template <int NC, int NS, typename Moments>
GLYPTORA_HD inline Vec4f scatterEstimate4(const Block& b, const Moments& rm, const int (&p)[4], float squares) {
    Vec4f V[NS][16];
    gatherMoments<NC, NS>(b, rm, p, 1, V);
    Vec4f explained(0.0f);
    for (int s = 0; s < NS; ++s) {
        Vec4f sums = V[s][1] * V[s][1];
        for (int k = 1; k < NC; ++k) sums = sums + V[s][1 + k] * V[s][1 + k];
        explained = explained + sums / glyptora_simd::max(V[s][0], Vec4f(1.0f));
    }
    return glyptora_simd::max(Vec4f(squares) - explained, Vec4f(0.0f));
}

// The estimates of all 64 shapes.
template <int NC, int NS>
GLYPTORA_HD inline void scatterEstimates(const Block& b, const RowMoments<NC>& rm, float (&est)[64]) {
    const float squares = totalSquares<NC>(rm);
    for (int p0 = 0; p0 < 64; p0 += 4) {
        const int p[4] = {p0, p0 + 1, p0 + 2, p0 + 3};
        scatterEstimate4<NC, NS>(b, rm, p, squares).store(&est[p0]);
    }
}

// The `keep` (at most 16) smallest estimates among the first `limit` shapes.
// Estimates are not negative, so their bit patterns order like
// them; the key is the pattern with its lowest six bits replaced by the shape
// index (estimates equal to 17 significant bits keep shape order). Selected
// by a quickselect; the candidates stay in the order it leaves them, which the
// ties between their fits follow.
template <int K>
GLYPTORA_HD inline int selectShapes(const float* est, int limit, int keep, int (&order)[K]) {
    if (keep > K) keep = K;
    if (keep > limit) keep = limit;
    uint32_t keys[64];
    for (int p = 0; p < limit; ++p) {
        union {
            float f;
            uint32_t u;
        } bits;
        bits.f = est[p];
        keys[p] = (bits.u & ~63u) | uint32_t(p);
    }
    int lo = 0, hi = limit - 1;
    while (lo < hi) {
        const uint32_t pivot = keys[(lo + hi) >> 1];
        int i = lo, j = hi;
        while (i <= j) {
            while (keys[i] < pivot) ++i;
            while (keys[j] > pivot) --j;
            if (i <= j) {
                const uint32_t t = keys[i];
                keys[i] = keys[j];
                keys[j] = t;
                ++i;
                --j;
            }
        }
        if (keep - 1 <= j)
            hi = j;
        else if (keep - 1 >= i)
            lo = i;
        else
            break;
    }
    for (int c = 0; c < keep; ++c) order[c] = int(keys[c] & 63u);
    return keep;
}

// A candidate shape after its fit: endpoints at the extremes of each subset's
// projection onto its axis, and the modelled error of the fit for two index
// counts (perpendicular scatter plus the error of rounding each projection to
// one of `levels` evenly spaced points between the extremes).
template <int NS>
struct ShapeFit {
    int partition;
    int slot;      // where its statistics are
    float lo[NS];  // extremes of the projections, about each subset's mean
    float hi[NS];
    float model[2];
    float f[NS][2][4];  // endpoints (0..255), set by setEndpoints()
};

// Endpoints at the extremes of each subset's projection onto its axis.
template <int NC, int NS, int N>
GLYPTORA_HD inline void setEndpoints(const ShapeStats<NC, NS, N>& st, ShapeFit<NS>& fit) {
    for (int s = 0; s < NS; ++s)
        for (int k = 0; k < 4; ++k) {
            if (k < NC) {
                const float m = st.mean[s][k][fit.slot], a = st.axis[s][k][fit.slot];
                fit.f[s][0][k] = clampf(m + a * fit.lo[s], 0.0f, 255.0f);
                fit.f[s][1][k] = clampf(m + a * fit.hi[s], 0.0f, 255.0f);
            } else {
                fit.f[s][0][k] = fit.f[s][1][k] = 255.0f;
            }
        }
}

// `slots` locate the candidates' statistics, `shapes` are their shape indices.
template <int NC, int NS, int N>
GLYPTORA_HD inline void fitCandidates(const Block& b, const ShapeStats<NC, NS, N>& st, const int* slots,
                                      const int* shapes, int count, int levelsA, int levelsB, ShapeFit<NS>* out) {
    const ShapeBits& bits = shapeBits(NS);
    for (int g0 = 0; g0 < count; g0 += 4) {
        int p[4], q[4];
        for (int j = 0; j < 4; ++j) {
            p[j] = shapes[g0 + j < count ? g0 + j : count - 1];
            q[j] = slots[g0 + j < count ? g0 + j : count - 1];
        }
        // Per subset and lane: axis, offset (mean . axis) and scatter.
        Vec4f axis[NS][NC], offset[NS], scatter(0.0f);
        for (int s = 0; s < NS; ++s) {
            offset[s] = Vec4f(0.0f);
            for (int k = 0; k < NC; ++k) {
                axis[s][k] = Vec4f(st.axis[s][k][q[0]], st.axis[s][k][q[1]], st.axis[s][k][q[2]], st.axis[s][k][q[3]]);
                const Vec4f mean(st.mean[s][k][q[0]], st.mean[s][k][q[1]], st.mean[s][k][q[2]], st.mean[s][k][q[3]]);
                offset[s] = offset[s] + mean * axis[s][k];
            }
            scatter =
                scatter + Vec4f(st.scatter[s][q[0]], st.scatter[s][q[1]], st.scatter[s][q[2]], st.scatter[s][q[3]]);
        }
        const Vec4i second(int(bits.second[p[0]]), int(bits.second[p[1]]), int(bits.second[p[2]]),
                           int(bits.second[p[3]]));
        const Vec4i third(int(bits.third[p[0]]), int(bits.third[p[1]]), int(bits.third[p[2]]), int(bits.third[p[3]]));
        // Pass 1: projections (about the subset mean) and their extremes per subset.
        Vec4f tv[16], in1[16], in2[16];
        Vec4f tmin[NS], tmax[NS];
        for (int s = 0; s < NS; ++s) {
            tmin[s] = Vec4f(kBig);
            tmax[s] = Vec4f(-kBig);
        }
        Vec4f sumT2(0.0f);
        for (int i = 0; i < 16; ++i) {
            if (!(b.validMask & (1u << i))) continue;
            in1[i] = lanes::bitLane(second, i);
            Vec4f t = -glyptora_simd::select(in1[i], offset[1 % NS], offset[0]);
            if (NS == 3) {
                in2[i] = lanes::bitLane(third, i);
                t = glyptora_simd::select(in2[i], -offset[2 % NS], t);
            }
            for (int k = 0; k < NC; ++k) {
                Vec4f a = glyptora_simd::select(in1[i], axis[1 % NS][k], axis[0][k]);
                if (NS == 3) a = glyptora_simd::select(in2[i], axis[2 % NS][k], a);
                t = t + Vec4f(b.px[i][k]) * a;
            }
            tv[i] = t;
            sumT2 = sumT2 + t * t;
            if (NS == 2) {
                const Vec4f t0 = glyptora_simd::select(in1[i], tmin[0], t),
                            t1 = glyptora_simd::select(in1[i], t, tmin[1]);
                tmin[0] = glyptora_simd::min(tmin[0], t0);
                tmin[1 % NS] = glyptora_simd::min(tmin[1 % NS], t1);
                const Vec4f u0 = glyptora_simd::select(in1[i], tmax[0], t),
                            u1 = glyptora_simd::select(in1[i], t, tmax[1 % NS]);
                tmax[0] = glyptora_simd::max(tmax[0], u0);
                tmax[1 % NS] = glyptora_simd::max(tmax[1 % NS], u1);
            } else {
                const Vec4f other = glyptora_simd::select(in2[i], in2[i], in1[i]);
                tmin[0] = glyptora_simd::min(tmin[0], glyptora_simd::select(other, tmin[0], t));
                tmax[0] = glyptora_simd::max(tmax[0], glyptora_simd::select(other, tmax[0], t));
                tmin[1 % NS] = glyptora_simd::min(tmin[1 % NS], glyptora_simd::select(in1[i], t, tmin[1 % NS]));
                tmax[1 % NS] = glyptora_simd::max(tmax[1 % NS], glyptora_simd::select(in1[i], t, tmax[1 % NS]));
                tmin[2 % NS] = glyptora_simd::min(tmin[2 % NS], glyptora_simd::select(in2[i], t, tmin[2 % NS]));
                tmax[2 % NS] = glyptora_simd::max(tmax[2 % NS], glyptora_simd::select(in2[i], t, tmax[2 % NS]));
            }
        }
        for (int s = 0; s < NS; ++s) {  // empty subsets: both endpoints at the mean
            const Vec4f empty = glyptora_simd::cmpGreater(tmin[s], tmax[s]);
            tmin[s] = glyptora_simd::select(empty, Vec4f(0.0f), tmin[s]);
            tmax[s] = glyptora_simd::select(empty, Vec4f(0.0f), tmax[s]);
        }
        // Pass 2: rounding error along the axis for each index count, in units of the step.
        float model[2][4] = {};
        for (int pass = 0; pass < 2; ++pass) {
            const int levels = pass == 0 ? levelsA : levelsB;
            if (levels <= 0) continue;
            Vec4f scale[NS], shift[NS], step2[NS];
            for (int s = 0; s < NS; ++s) {
                const Vec4f range = tmax[s] - tmin[s];
                scale[s] = Vec4f(float(levels - 1)) / glyptora_simd::max(range, Vec4f(1e-6f));
                shift[s] = tmin[s] * scale[s] - Vec4f(0.5f);
                const Vec4f step = range * Vec4f(1.0f / float(levels - 1));
                step2[s] = step * step;
            }
            Vec4f err(0.0f);
            const Vec4f top(float(levels - 1));
            for (int i = 0; i < 16; ++i) {
                if (!(b.validMask & (1u << i))) continue;
                Vec4f sc = glyptora_simd::select(in1[i], scale[1 % NS], scale[0]);
                Vec4f sh = glyptora_simd::select(in1[i], shift[1 % NS], shift[0]);
                Vec4f st = glyptora_simd::select(in1[i], step2[1 % NS], step2[0]);
                if (NS == 3) {
                    sc = glyptora_simd::select(in2[i], scale[2 % NS], sc);
                    sh = glyptora_simd::select(in2[i], shift[2 % NS], sh);
                    st = glyptora_simd::select(in2[i], step2[2 % NS], st);
                }
                // u + 0.5 = (t - tmin) * scale + 0.5; the rounded level is floor(u + 0.5).
                const Vec4f u = tv[i] * sc - sh;
                const Vec4f d = u - glyptora_simd::min(glyptora_simd::floor(u), top) - Vec4f(0.5f);
                err = err + d * d * st;
            }
            (glyptora_simd::max(scatter - sumT2, Vec4f(0.0f)) + err).store(model[pass]);
        }
        float lo[NS][4], hi[NS][4];
        for (int s = 0; s < NS; ++s) {
            tmin[s].store(lo[s]);
            tmax[s].store(hi[s]);
        }
        for (int j = 0; j < 4 && g0 + j < count; ++j) {
            ShapeFit<NS>& o = out[g0 + j];
            o.partition = p[j];
            o.slot = q[j];
            o.model[0] = model[0][j];
            o.model[1] = model[1][j];
            for (int s = 0; s < NS; ++s) {
                o.lo[s] = lo[s][j];
                o.hi[s] = hi[s][j];
            }
        }
    }
}

// Endpoints of one shape: the extremes of each subset's projection onto its
// axis (the texels in lanes, one subset at a time).
template <int NC, int NS, int N>
GLYPTORA_HD inline void fitShape(const Block& b, const ShapeStats<NC, NS, N>& st, int slot, int partition,
                                 ShapeFit<NS>& out) {
    Shape<NS> shape;
    makeShape<NS>(b, partition, shape);
    out.partition = partition;
    out.slot = slot;
    out.model[0] = out.model[1] = 0.0f;
    for (int s = 0; s < NS; ++s) {
        Vec4f a[NC];
        float offset = 0.0f;
        for (int k = 0; k < NC; ++k) {
            a[k] = Vec4f(st.axis[s][k][slot]);
            offset += st.mean[s][k][slot] * st.axis[s][k][slot];
        }
        Vec4f tmin(kBig), tmax(-kBig);
        for (int g = 0; g < 4; ++g) {
            Vec4f t = b.ch[0][g] * a[0];
            for (int k = 1; k < NC; ++k) t = t + b.ch[k][g] * a[k];
            tmin = glyptora_simd::min(tmin, glyptora_simd::select(shape.sel[s][g], t, Vec4f(kBig)));
            tmax = glyptora_simd::max(tmax, glyptora_simd::select(shape.sel[s][g], t, Vec4f(-kBig)));
        }
        float lo = lanes::hmin(tmin) - offset, hi = lanes::hmax(tmax) - offset;
        if (lo > hi) lo = hi = 0.0f;  // empty subset: both endpoints at the mean
        out.lo[s] = lo;
        out.hi[s] = hi;
    }
    setEndpoints<NC, NS, N>(st, out);
}

// Modelled error of a candidate from its moments alone: each subset's line residual plus
// the rounding error of its spread along the axis onto `levels` evenly spaced points,
// taking the texels as evenly spread (variance / (levels - 1)^2).
template <int NC, int NS, int N>
GLYPTORA_HD inline float momentModel(const ShapeStats<NC, NS, N>& st, int c, int levels) {
    const float k = 1.0f / float((levels - 1) * (levels - 1));
    float model = 0.0f;
    for (int s = 0; s < NS; ++s) model += st.residual[s][c] + (st.scatter[s][c] - st.residual[s][c]) * k;
    return model;
}

// The candidate of least momentModel() (the earlier one on a tie).
template <int NC, int NS, int N>
GLYPTORA_HD inline int bestByMoments(const ShapeStats<NC, NS, N>& st, int count, int levels, float& bestModel) {
    int best = 0;
    bestModel = kNoBlock;
    for (int c = 0; c < count; ++c) {
        const float model = momentModel<NC, NS, N>(st, c, levels);
        if (model < bestModel) {
            bestModel = model;
            best = c;
        }
    }
    return best;
}

// The candidate of least modelled error (the earlier one on a tie).
template <int NS>
GLYPTORA_HD inline int bestCandidate(const ShapeFit<NS>* fits, int count, int which) {
    int best = 0;
    for (int c = 1; c < count; ++c)
        if (fits[c].model[which] < fits[best].model[which]) best = c;
    return best;
}

}  // namespace fastenc
}  // namespace GLYPTORA_SIMD_ABI
}  // namespace glyptora_bc7
