#pragma once
// Endpoint fitting of modes 4 and 5 of the fast BC7 encoder: the texels as
// each of the four rotations sees them (rotation r in lane r), and the fit,
// quantisation and index choice of the colour and separate-channel endpoints.
#include "bc7/bc7_simd.h"
#include "bc7/fast_block_load.h"
#include "bc7/fast_endpoint_fit.h"
#include "bc7/fast_settings.h"
#include "core/host_device.h"
#include "core/vec4.h"

namespace glyptora_bc7 {
inline namespace GLYPTORA_SIMD_ABI {
namespace fastenc {

// ---------------------------------------------------------------------------
// Modes 4 and 5: colour and alpha endpoints with separate indices, with one
// colour channel optionally exchanged with alpha (the rotation). The four
// rotations are fitted together: rotation r in lane r.

// Texel values as each rotation sees them: three colour channels (alpha in
// place of the exchanged channel) and the separate channel, plus starting
// endpoints (colour extremes along the principal axis, the separate channel's
// extremes).
struct RotationLanes {
    Vec4f colour[16][3];
    Vec4f scalar[16][1];
    Vec4f colourStart[2][3];
    Vec4f scalarStart[2][1];
};

// Lane j takes rotation rotation[j] (0: none, r: channel r - 1 exchanged with alpha); the
// encoder fits all four in turn (0, 1, 2, 3), the GPU stages one in every lane.
GLYPTORA_HD inline void buildRotationLanes(const Block& b, RotationLanes& rl, const int (&rotation)[4]) {
    Vec4f swapped[3];
    for (int k = 0; k < 3; ++k)
        swapped[k] = lanes::laneMask((rotation[0] == k + 1 ? 1 : 0) | (rotation[1] == k + 1 ? 2 : 0) |
                                     (rotation[2] == k + 1 ? 4 : 0) | (rotation[3] == k + 1 ? 8 : 0));
    int separate[4];
    for (int j = 0; j < 4; ++j) separate[j] = rotation[j] == 0 ? 3 : rotation[j] - 1;
    Vec4f sum[3] = {Vec4f(0.0f), Vec4f(0.0f), Vec4f(0.0f)};
    Vec4f smin(kBig), smax(-kBig);
    for (int i = 0; i < 16; ++i) {
        const Vec4f a(b.px[i][3]);
        for (int k = 0; k < 3; ++k) rl.colour[i][k] = glyptora_simd::select(swapped[k], a, Vec4f(b.px[i][k]));
        rl.scalar[i][0] =
            Vec4f(b.px[i][separate[0]], b.px[i][separate[1]], b.px[i][separate[2]], b.px[i][separate[3]]);
        if (!(b.validMask & (1u << i))) continue;
        for (int k = 0; k < 3; ++k) sum[k] = sum[k] + rl.colour[i][k];
        smin = glyptora_simd::min(smin, rl.scalar[i][0]);
        smax = glyptora_simd::max(smax, rl.scalar[i][0]);
    }
    rl.scalarStart[0][0] = smin;
    rl.scalarStart[1][0] = smax;
    const Vec4f invn(1.0f / float(b.validCount));
    Vec4f mean[3];
    for (int k = 0; k < 3; ++k) mean[k] = sum[k] * invn;
    Vec4f c00(0.0f), c01(0.0f), c02(0.0f), c11(0.0f), c12(0.0f), c22(0.0f);
    for (int i = 0; i < 16; ++i) {
        if (!(b.validMask & (1u << i))) continue;
        const Vec4f d0 = rl.colour[i][0] - mean[0], d1 = rl.colour[i][1] - mean[1], d2 = rl.colour[i][2] - mean[2];
        c00 = c00 + d0 * d0;
        c01 = c01 + d0 * d1;
        c02 = c02 + d0 * d2;
        c11 = c11 + d1 * d1;
        c12 = c12 + d1 * d2;
        c22 = c22 + d2 * d2;
    }
    // Power iteration (scaled by the trace) from the column of the largest diagonal entry.
    const Vec4f invT = Vec4f(1.0f) / glyptora_simd::max(c00 + c11 + c22, Vec4f(1e-6f));
    c00 = c00 * invT;
    c01 = c01 * invT;
    c02 = c02 * invT;
    c11 = c11 * invT;
    c12 = c12 * invT;
    c22 = c22 * invT;
    Vec4f v0 = c00, v1 = c01, v2 = c02, diag = c00;
    Vec4f larger = glyptora_simd::cmpGreater(c11, diag);
    diag = glyptora_simd::select(larger, c11, diag);
    v0 = glyptora_simd::select(larger, c01, v0);
    v1 = glyptora_simd::select(larger, c11, v1);
    v2 = glyptora_simd::select(larger, c12, v2);
    larger = glyptora_simd::cmpGreater(c22, diag);
    v0 = glyptora_simd::select(larger, c02, v0);
    v1 = glyptora_simd::select(larger, c12, v1);
    v2 = glyptora_simd::select(larger, c22, v2);
    for (int it = 0; it < 4; ++it) {
        const Vec4f w0 = c00 * v0 + c01 * v1 + c02 * v2;
        const Vec4f w1 = c01 * v0 + c11 * v1 + c12 * v2;
        const Vec4f w2 = c02 * v0 + c12 * v1 + c22 * v2;
        v0 = w0;
        v1 = w1;
        v2 = w2;
    }
    const Vec4f len2 = v0 * v0 + v1 * v1 + v2 * v2;
    const Vec4f hasAxis = glyptora_simd::cmpGreater(len2, Vec4f(1e-30f));
    const Vec4f invLen = Vec4f(1.0f) / glyptora_simd::sqrt(glyptora_simd::max(len2, Vec4f(1e-30f)));
    const Vec4f axis[3] = {lanes::keep(hasAxis, v0 * invLen), lanes::keep(hasAxis, v1 * invLen),
                           lanes::keep(hasAxis, v2 * invLen)};
    Vec4f tmin(kBig), tmax(-kBig);
    for (int i = 0; i < 16; ++i) {
        if (!(b.validMask & (1u << i))) continue;
        const Vec4f t = (rl.colour[i][0] - mean[0]) * axis[0] + (rl.colour[i][1] - mean[1]) * axis[1] +
                        (rl.colour[i][2] - mean[2]) * axis[2];
        tmin = glyptora_simd::min(tmin, t);
        tmax = glyptora_simd::max(tmax, t);
    }
    for (int k = 0; k < 3; ++k) {
        rl.colourStart[0][k] = glyptora_simd::clamp(mean[k] + axis[k] * tmin, Vec4f(0.0f), Vec4f(255.0f));
        rl.colourStart[1][k] = glyptora_simd::clamp(mean[k] + axis[k] * tmax, Vec4f(0.0f), Vec4f(255.0f));
    }
}

// The four rotations, rotation r in lane r.
GLYPTORA_HD inline void buildRotationLanes(const Block& b, RotationLanes& rl) {
    const int all[4] = {0, 1, 2, 3};
    buildRotationLanes(b, rl, all);
}

// Endpoints, indices and error of one part (colour or the separate channel) of the four rotations.
template <int NC>
struct LaneFit {
    Vec4f f[2][NC];    // float endpoints
    Vec4f q[2][NC];    // codes
    Vec4f dec[2][NC];  // decoded values
    Vec4f err;
    Vec4f idx[16];
};

// Bit replication of `bits`-bit codes to 8 bits.
GLYPTORA_HD inline Vec4f expandLanes(Vec4f q, int bits) {
    return q * Vec4f(float(1 << (8 - bits))) + glyptora_simd::floor(q * Vec4f(1.0f / float(1 << (2 * bits - 8))));
}

template <int NC>
GLYPTORA_HD inline void quantizeLanes(LaneFit<NC>& fit, int bits) {
    const float maxq = float((1 << bits) - 1);
    for (int e = 0; e < 2; ++e)
        for (int k = 0; k < NC; ++k) {
            fit.q[e][k] = quantizeChannels(fit.f[e][k], Vec4f(maxq));
            fit.dec[e][k] = expandLanes(fit.q[e][k], bits);
        }
}

// Indices (the palette entry nearest to the projection) and error.
template <int NC>
GLYPTORA_HD inline void evaluateLanes(const Block& b, const Vec4f (*vals)[NC], int levels, LaneFit<NC>& fit) {
    Vec4f D[NC], base[NC], delta[NC];
    Vec4f dd(0.0f);
    for (int k = 0; k < NC; ++k) {
        delta[k] = fit.dec[1][k] - fit.dec[0][k];
        dd = dd + delta[k] * delta[k];
        base[k] = fit.dec[0][k] * Vec4f(64.0f) + Vec4f(32.0f);
    }
    const Vec4f scale = lanes::keep(glyptora_simd::cmpGreater(dd, Vec4f(0.0f)),
                                    Vec4f(float(levels - 1)) / glyptora_simd::max(dd, Vec4f(1e-30f)));
    Vec4f O(0.0f);
    for (int k = 0; k < NC; ++k) {
        D[k] = delta[k] * scale;
        O = O - fit.dec[0][k] * D[k];
    }
    const float stepW = 64.0f / float(levels - 1);
    const Vec4f top(float(levels - 1));
    Vec4f err(0.0f);
    for (int i = 0; i < 16; ++i) {
        if (!(b.validMask & (1u << i))) {
            fit.idx[i] = Vec4f(0.0f);
            continue;
        }
        Vec4f t = O;
        for (int k = 0; k < NC; ++k) t = t + vals[i][k] * D[k];
        const Vec4f r = glyptora_simd::min(glyptora_simd::max(lanes::roundHalfUp(t), Vec4f(0.0f)), top);
        const Vec4f wr = lanes::roundHalfUp(r * Vec4f(stepW));
        Vec4f e(0.0f);
        for (int k = 0; k < NC; ++k) {
            const Vec4f d = vals[i][k] - glyptora_simd::floor((base[k] + delta[k] * wr) * Vec4f(0.015625f));
            e = e + d * d;
        }
        err = err + e;
        fit.idx[i] = r;
    }
    fit.err = err;
}

// Least-squares endpoints for the current indices (lanes whose indices do not
// determine two endpoints keep theirs).
template <int NC>
GLYPTORA_HD inline void leastSquaresLanes(const Block& b, const Vec4f (*vals)[NC], int levels, const Vec4f (&idx)[16],
                                          Vec4f (&f)[2][NC]) {
    const Vec4f stepW(64.0f / float(levels - 1));
    Vec4f A(0.0f), B(0.0f), C(0.0f), X[NC], Y[NC];
    for (int k = 0; k < NC; ++k) X[k] = Y[k] = Vec4f(0.0f);
    for (int i = 0; i < 16; ++i) {
        if (!(b.validMask & (1u << i))) continue;
        const Vec4f w = lanes::roundHalfUp(idx[i] * stepW) * Vec4f(0.015625f);
        const Vec4f a = Vec4f(1.0f) - w;
        A = A + a * a;
        B = B + a * w;
        C = C + w * w;
        for (int k = 0; k < NC; ++k) {
            X[k] = X[k] + a * vals[i][k];
            Y[k] = Y[k] + w * vals[i][k];
        }
    }
    const Vec4f det = A * C - B * B;
    const Vec4f ok = lanes::maskAnd(glyptora_simd::cmpGreater(det, Vec4f(1e-3f) * A * C),
                                    glyptora_simd::cmpGreater(det, Vec4f(1e-8f)));
    const Vec4f inv = Vec4f(1.0f) / glyptora_simd::select(ok, det, Vec4f(1.0f));
    for (int k = 0; k < NC; ++k) {
        const Vec4f e0 = glyptora_simd::clamp((C * X[k] - B * Y[k]) * inv, Vec4f(0.0f), Vec4f(255.0f));
        const Vec4f e1 = glyptora_simd::clamp((A * Y[k] - B * X[k]) * inv, Vec4f(0.0f), Vec4f(255.0f));
        f[0][k] = glyptora_simd::select(ok, e0, f[0][k]);
        f[1][k] = glyptora_simd::select(ok, e1, f[1][k]);
    }
}

template <int NC>
GLYPTORA_HD inline void fitLanes(const Block& b, const Vec4f (*vals)[NC], const Vec4f (&start)[2][NC], int bits,
                                 int levels, int iterations, LaneFit<NC>& fit) {
    for (int e = 0; e < 2; ++e)
        for (int k = 0; k < NC; ++k) fit.f[e][k] = start[e][k];
    quantizeLanes<NC>(fit, bits);
    evaluateLanes<NC>(b, vals, levels, fit);
    for (int it = 0; it < iterations; ++it) {
        LaneFit<NC> trial;
        for (int e = 0; e < 2; ++e)
            for (int k = 0; k < NC; ++k) trial.f[e][k] = fit.f[e][k];
        leastSquaresLanes<NC>(b, vals, levels, fit.idx, trial.f);
        quantizeLanes<NC>(trial, bits);
        evaluateLanes<NC>(b, vals, levels, trial);
        const Vec4f better = glyptora_simd::cmpLess(trial.err, fit.err);
        if (!glyptora_simd::moveMask(better)) break;
        fit.err = glyptora_simd::select(better, trial.err, fit.err);
        for (int e = 0; e < 2; ++e)
            for (int k = 0; k < NC; ++k) {
                fit.f[e][k] = glyptora_simd::select(better, trial.f[e][k], fit.f[e][k]);
                fit.q[e][k] = glyptora_simd::select(better, trial.q[e][k], fit.q[e][k]);
                fit.dec[e][k] = glyptora_simd::select(better, trial.dec[e][k], fit.dec[e][k]);
            }
        for (int i = 0; i < 16; ++i) fit.idx[i] = glyptora_simd::select(better, trial.idx[i], fit.idx[i]);
    }
}

// One rotation candidate of mode 5 (indexMode ignored) or mode 4.
struct RotationVariant {
    int mode;
    int indexMode;
    int colourBits, colourLevels;
    int alphaBits, alphaLevels;
};

GLYPTORA_HD inline RotationVariant rotationVariant(int mode, int indexMode) {
    if (mode == 5) return {5, 0, 7, 4, 8, 4};
    if (indexMode == 0) return {4, 0, 5, 4, 6, 8};
    return {4, 1, 5, 8, 6, 4};
}

}  // namespace fastenc
}  // namespace GLYPTORA_SIMD_ABI
}  // namespace glyptora_bc7
