#pragma once
// Endpoint fitting of the fast BC6H encoder, in the domain of the integer values of the
// texels' half bit patterns (the domain the format interpolates in): a region's mean and
// principal axis, endpoints at the extremes of the projections onto it, and least-squares
// endpoints for the indices the current endpoints give.
//
// A region is a set of lane masks over the block (texel 4g + lane is lane `lane` of group g).
#include "bc6h/fast_texels.h"
#include "core/host_device.h"
#include "core/vec4.h"

namespace glyptora_bc6h {
inline namespace GLYPTORA_SIMD_ABI {
namespace fast {

// Two endpoints of one region, three channels each, in the half-value domain.
struct Line {
    float e[2][3];
};

// Mean and covariance (00, 01, 02, 11, 12, 22) of the texels selected by `sel`; the count.
GLYPTORA_HD inline float regionMoments(const Block& b, const Vec4f (&sel)[4], float (&mean)[3], float (&cov)[6]) {
    Vec4f n(0.0f), s[3];
    for (int g = 0; g < 4; ++g) {
        n = n + lanes::keep(sel[g], Vec4f(1.0f));
        for (int c = 0; c < 3; ++c) s[c] = s[c] + lanes::keep(sel[g], b.ch[c][g]);
    }
    const float count = lanes::hsum(n);
    const float inv = count > 0.0f ? 1.0f / count : 0.0f;
    for (int c = 0; c < 3; ++c) mean[c] = lanes::hsum(s[c]) * inv;
    Vec4f m[6];
    for (int g = 0; g < 4; ++g) {
        Vec4f d[3];
        for (int c = 0; c < 3; ++c) d[c] = lanes::keep(sel[g], b.ch[c][g] - Vec4f(mean[c]));
        m[0] = m[0] + d[0] * d[0];
        m[1] = m[1] + d[0] * d[1];
        m[2] = m[2] + d[0] * d[2];
        m[3] = m[3] + d[1] * d[1];
        m[4] = m[4] + d[1] * d[2];
        m[5] = m[5] + d[2] * d[2];
    }
    for (int k = 0; k < 6; ++k) cov[k] = lanes::hsum(m[k]);
    return count;
}

// Unit principal axis of a covariance by power iteration from its column of largest
// diagonal entry; zero when the covariance is zero.
GLYPTORA_HD inline void principalAxis(const float (&cov)[6], float (&axis)[3]) {
    const float C[3][3] = {{cov[0], cov[1], cov[2]}, {cov[1], cov[3], cov[4]}, {cov[2], cov[4], cov[5]}};
    int k = 0;
    if (C[1][1] > C[k][k]) k = 1;
    if (C[2][2] > C[k][k]) k = 2;
    float v[3] = {C[0][k], C[1][k], C[2][k]};
    for (int it = 0; it < 4; ++it) {
        float w[3];
        for (int r = 0; r < 3; ++r) w[r] = C[r][0] * v[0] + C[r][1] * v[1] + C[r][2] * v[2];
        // Rescale by the largest component so that the iteration cannot overflow.
        float big = 0.0f;
        for (int r = 0; r < 3; ++r) big = fabsf(w[r]) > big ? fabsf(w[r]) : big;
        if (!(big > 0.0f)) break;
        for (int r = 0; r < 3; ++r) v[r] = w[r] / big;
    }
    const float len2 = v[0] * v[0] + v[1] * v[1] + v[2] * v[2];
    const float inv = len2 > 0.0f ? 1.0f / sqrtf(len2) : 0.0f;
    for (int r = 0; r < 3; ++r) axis[r] = v[r] * inv;
}

// Endpoints at the smallest and largest projection of the region's texels onto the line
// through `mean` along `axis` (both at the mean for an empty region or a zero axis).
GLYPTORA_HD inline Line extremesAlong(const Block& b, const Vec4f (&sel)[4], const float (&mean)[3],
                                      const float (&axis)[3]) {
    constexpr float kBig = 1.0e30f;
    Vec4f tmin(kBig), tmax(-kBig);
    for (int g = 0; g < 4; ++g) {
        Vec4f t = (b.ch[0][g] - Vec4f(mean[0])) * Vec4f(axis[0]);
        for (int c = 1; c < 3; ++c) t = t + (b.ch[c][g] - Vec4f(mean[c])) * Vec4f(axis[c]);
        tmin = glyptora_simd::min(tmin, glyptora_simd::select(sel[g], t, Vec4f(kBig)));
        tmax = glyptora_simd::max(tmax, glyptora_simd::select(sel[g], t, Vec4f(-kBig)));
    }
    float lo = lanes::hmin(tmin), hi = lanes::hmax(tmax);
    if (lo > hi) lo = hi = 0.0f;
    Line line;
    for (int c = 0; c < 3; ++c) {
        line.e[0][c] = mean[c] + axis[c] * lo;
        line.e[1][c] = mean[c] + axis[c] * hi;
    }
    return line;
}

// Endpoints clamped to the range of texel values (0 .. 31743, or -31743 .. 31743 signed).
GLYPTORA_HD inline void clampLine(Line& line, bool isSigned) {
    const float lo = isSigned ? -31743.0f : 0.0f;
    for (int e = 0; e < 2; ++e)
        for (int c = 0; c < 3; ++c) {
            const float v = line.e[e][c];
            line.e[e][c] = v > lo ? (v < 31743.0f ? v : 31743.0f) : lo;  // NaN reads as lo
        }
}

// One least-squares round with `levels` (8 or 16) palette entries: every texel of the
// region takes the entry nearest its projection onto the current endpoints (the format's
// weights are round(64 k / (levels - 1))), then each channel's endpoints are solved for.
// The squares are weighted so that a texel's weighted integer-domain error equals its error
// in the block's measure at the current palette value (the secant of the float value over
// the integer value, times the texel's weight; the slope at the texel when the two nearly
// coincide). Near-black texels thus count little while the palette stays near them and
// fully once it has moved off by octaves. The endpoints are first clamped to the texel
// range, and stay as they are when all texels share one weight.
template <int LEVELS>
GLYPTORA_HD inline void refitLine(const Texels& tx, const Vec4f (&sel)[4], bool isSigned, Line& line) {
    clampLine(line, isSigned);
    float d[3], dd = 0.0f;
    for (int c = 0; c < 3; ++c) {
        d[c] = line.e[1][c] - line.e[0][c];
        dd += d[c] * d[c];
    }
    if (!(dd > 0.0f)) return;
    const float scale = float(LEVELS - 1) / dd;
    Vec4f D[3];
    float offset = 0.0f;
    for (int c = 0; c < 3; ++c) {
        D[c] = Vec4f(d[c] * scale);
        offset -= line.e[0][c] * d[c] * scale;
    }
    const Vec4f weightStep(64.0f / float(LEVELS - 1)), top(float(LEVELS - 1));
    Vec4f A[3], B[3], C[3], X0[3], X1[3];
    for (int g = 0; g < 4; ++g) {
        Vec4f t(offset);
        for (int c = 0; c < 3; ++c) t = t + tx.fit.ch[c][g] * D[c];
        const Vec4f k = glyptora_simd::clamp(lanes::roundHalfUp(t), Vec4f(0.0f), top);
        const Vec4f beta = lanes::keep(sel[g], lanes::roundHalfUp(k * weightStep) * Vec4f(1.0f / 64.0f));
        const Vec4f alpha = lanes::keep(sel[g], Vec4f(1.0f) - beta);
        for (int c = 0; c < 3; ++c) {
            const Vec4f h = tx.fit.ch[c][g];
            const Vec4f p = Vec4f(line.e[0][c]) + beta * Vec4f(d[c]);
            const Vec4f dh = p - h;
            const Vec4f far = glyptora_simd::cmpGreater(glyptora_simd::abs(dh), Vec4f(1.0f));
            const Vec4f slope = glyptora_simd::select(
                far, (halfValueToFloat(p, isSigned) - tx.fitValue[c][g]) / glyptora_simd::select(far, dh, Vec4f(1.0f)),
                tx.fitSlope[c][g]);
            const Vec4f s = slope * tx.weight[c][g];
            const Vec4f w = s * s;
            A[c] = A[c] + w * alpha * alpha;
            B[c] = B[c] + w * alpha * beta;
            C[c] = C[c] + w * beta * beta;
            X0[c] = X0[c] + w * alpha * h;
            X1[c] = X1[c] + w * beta * h;
        }
    }
    for (int c = 0; c < 3; ++c) {
        const float a = lanes::hsum(A[c]), bb = lanes::hsum(B[c]), cc = lanes::hsum(C[c]);
        const float det = a * cc - bb * bb;
        // Near-singular when (almost) every texel has the same weight.
        if (!(det > 1e-3f * (a * cc))) continue;
        const float inv = 1.0f / det;
        const float x0 = lanes::hsum(X0[c]), x1 = lanes::hsum(X1[c]);
        line.e[0][c] = (cc * x0 - bb * x1) * inv;
        line.e[1][c] = (a * x1 - bb * x0) * inv;
    }
}

}  // namespace fast
}  // namespace GLYPTORA_SIMD_ABI
}  // namespace glyptora_bc6h
