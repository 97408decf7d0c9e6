#pragma once
// Mode 6 of the fast BC7 encoder: its own fixed fit (principal axis, alpha
// snapping, blend refit), p-bit choice, indices, error and block bits. It
// uses none of the other modes' fitting, only the block and the settings.
#include <cmath>
#include <cstdint>

#include "bc7/bc7_simd.h"
#include "bc7/bits.h"
#include "bc7/fast_block_load.h"
#include "bc7/fast_settings.h"
#include "core/assert.h"
#include "core/host_device.h"
#include "core/vec4.h"

namespace glyptora_bc7 {
inline namespace GLYPTORA_SIMD_ABI {
namespace fastenc {

// ---------------------------------------------------------------------------
// Mode 6: one subset, RGBA endpoints of 7 bits plus one p-bit each, 4-bit indices.

GLYPTORA_HD inline float dot4f(const float (&a)[4], const float (&b)[4]) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2] + a[3] * b[3];
}

// Principal eigenvector of a symmetric 4x4 matrix by power iteration from the
// column of its largest diagonal entry (unit length); the zero vector for a
// matrix without a positive diagonal entry.
GLYPTORA_HD inline void principalAxis4(const float (&cov)[4][4], float (&axis)[4]) {
    int k = 0;
    for (int j = 1; j < 4; ++j)
        if (cov[j][j] > cov[k][k]) k = j;
    for (int j = 0; j < 4; ++j) axis[j] = 0.0f;
    if (!(cov[k][k] > 0.0f)) return;
    // Scaled by the trace the largest eigenvalue lies in [1/4, 1]: no overflow or underflow.
    const float inv = 1.0f / (cov[0][0] + cov[1][1] + cov[2][2] + cov[3][3]);
    const Vec4f c0 = Vec4f(cov[0][0], cov[0][1], cov[0][2], cov[0][3]) * Vec4f(inv);
    const Vec4f c1 = Vec4f(cov[1][0], cov[1][1], cov[1][2], cov[1][3]) * Vec4f(inv);
    const Vec4f c2 = Vec4f(cov[2][0], cov[2][1], cov[2][2], cov[2][3]) * Vec4f(inv);
    const Vec4f c3 = Vec4f(cov[3][0], cov[3][1], cov[3][2], cov[3][3]) * Vec4f(inv);
    Vec4f v = k == 0 ? c0 : (k == 1 ? c1 : (k == 2 ? c2 : c3));
    for (int it = 0; it < 8; ++it) v = c0 * v.splat<0>() + c1 * v.splat<1>() + c2 * v.splat<2>() + c3 * v.splat<3>();
    const float len2 = glyptora_simd::dot4(v, v);
    if (!(len2 > 0.0f)) return;
    v = v * Vec4f(1.0f / sqrtf(len2));
    v.store(axis);
}

// Nearest 4-bit index to t for four lanes: the guess of the 65-entry table at
// round(t * 64) (the table is (15k + 26) >> 6), then its neighbours; the guess
// wins ties and the lower neighbour wins a tie between the neighbours.
GLYPTORA_HD inline Vec4f nearestIndex16(Vec4f t) {
    const Vec4f k =
        glyptora_simd::min(glyptora_simd::max(lanes::roundHalfUp(t * Vec4f(64.0f)), Vec4f(0.0f)), Vec4f(64.0f));
    const Vec4f guess = glyptora_simd::floor((k * Vec4f(15.0f) + Vec4f(26.0f)) * Vec4f(0.015625f));
    const Vec4f w = Vec4f(64.0f / 15.0f);
    const Vec4f inv64(0.015625f);
    const Vec4f dg = glyptora_simd::abs(t - lanes::roundHalfUp(guess * w) * inv64);
    const Vec4f lower = guess - Vec4f(1.0f), upper = guess + Vec4f(1.0f);
    const Vec4f dl = glyptora_simd::abs(t - lanes::roundHalfUp(lower * w) * inv64);
    const Vec4f du = glyptora_simd::abs(t - lanes::roundHalfUp(upper * w) * inv64);
    const Vec4f takeLower =
        lanes::maskAnd(glyptora_simd::cmpGreater(guess, Vec4f(0.0f)), glyptora_simd::cmpLess(dl, dg));
    Vec4f best = glyptora_simd::select(takeLower, lower, guess);
    const Vec4f bestDist = glyptora_simd::select(takeLower, dl, dg);
    const Vec4f takeUpper =
        lanes::maskAnd(glyptora_simd::cmpLess(guess, Vec4f(15.0f)), glyptora_simd::cmpLess(du, bestDist));
    return glyptora_simd::select(takeUpper, upper, best);
}

// Weight of a 4-bit index / 64.
GLYPTORA_HD inline Vec4f weight16(Vec4f index) {
    return lanes::roundHalfUp(index * Vec4f(64.0f / 15.0f)) * Vec4f(0.015625f);
}

// Blend factors of the mode 6 refit: least squares of the texels' parameters
// against the 16-entry palette of the segment [s0, s1], two rounds.
GLYPTORA_HD inline void blendFactors(const Vec4f (&t)[4], const Vec4f (&valid)[4], float& s0, float& s1) {
    s0 = 0.0f;
    s1 = 1.0f;
    for (int round = 0; round < kBlendRounds; ++round) {
        const float range = s1 - s0;
        if (!(range > 1e-6f || range < -1e-6f)) return;
        const Vec4f inv(1.0f / range), lo(s0);
        Vec4f A(0.0f), B(0.0f), C(0.0f), X(0.0f), Y(0.0f);
        for (int g = 0; g < 4; ++g) {
            const Vec4f w = lanes::keep(valid[g], weight16(nearestIndex16((t[g] - lo) * inv)));
            const Vec4f a = lanes::keep(valid[g], Vec4f(1.0f) - w);
            A = A + a * a;
            B = B + a * w;
            C = C + w * w;
            X = X + a * t[g];
            Y = Y + w * t[g];
        }
        const float a = lanes::hsum(A), b = lanes::hsum(B), c = lanes::hsum(C), x = lanes::hsum(X), y = lanes::hsum(Y);
        const float det = a * c - b * b;
        if (!(det > 1e-4f * a * c) || !(det > 1e-12f)) return;
        s0 = (c * x - b * y) / det;
        s1 = (a * y - b * x) / det;
    }
}

// The channel quantiser of this encoder: x in [0, 1], b bits.
GLYPTORA_HD inline int quantizeUnit(float x, int bits) {
    const int u = int(saturate(x) * 255.0f + 0.5f);
    return (u * ((1 << bits) - 1) + 127) / 255;
}

// Writes the block when it beats `best`; returns its error.
GLYPTORA_HD inline float encodeMode6(const Block& b, float& best, uint8_t out[16]) {
    // 1. Moments over the valid texels (the unit-scale texels).
    const Vec4f(&u)[4][4] = b.uch;
    float sum[4], outer[4][4];
    for (int j = 0; j < 4; ++j) {
        Vec4f s(0.0f);
        for (int g = 0; g < 4; ++g) s = s + lanes::keep(b.valid[g], u[j][g]);
        sum[j] = lanes::hsum(s);
        for (int k = j; k < 4; ++k) {
            Vec4f o(0.0f);
            for (int g = 0; g < 4; ++g) o = o + lanes::keep(b.valid[g], u[j][g] * u[k][g]);
            outer[j][k] = outer[k][j] = lanes::hsum(o);
        }
    }
    bool anyZeroAlpha = false, anyOpaqueAlpha = false;
    for (int g = 0; g < 4; ++g) {
        if (glyptora_simd::moveMask(lanes::maskAnd(b.valid[g], glyptora_simd::cmpLessEqual(u[3][g], Vec4f(0.0f)))))
            anyZeroAlpha = true;
        if (glyptora_simd::moveMask(lanes::maskAnd(b.valid[g], glyptora_simd::cmpGreater(u[3][g], Vec4f(0.998f)))))
            anyOpaqueAlpha = true;
    }
    // 2. Mean and covariance.
    const float invn = 1.0f / float(b.validCount);
    float mean[4], cov[4][4];
    for (int j = 0; j < 4; ++j) mean[j] = sum[j] * invn;
    for (int j = 0; j < 4; ++j)
        for (int k = 0; k < 4; ++k) cov[j][k] = outer[j][k] * invn - mean[j] * mean[k];
    // 3. Principal axis, or the grey diagonal for a flat block.
    float axis[4];
    principalAxis4(cov, axis);
    float len2 = dot4f(axis, axis);
    if (!(len2 > 0.0f)) {
        const float a = cov[3][3] > 0.00001f ? 1.0f : 0.0f;
        axis[0] = axis[1] = axis[2] = 1.0f;
        axis[3] = a;
        len2 = a * a + 3.0f;
    }
    // 4. Extent of the projections.
    Vec4f tminv(kNoBlock), tmaxv(-kNoBlock);
    const Vec4f invLen2(1.0f / len2);
    for (int g = 0; g < 4; ++g) {
        Vec4f t = (u[0][g] - Vec4f(mean[0])) * Vec4f(axis[0]);
        for (int c = 1; c < 4; ++c) t = t + (u[c][g] - Vec4f(mean[c])) * Vec4f(axis[c]);
        t = t * invLen2;
        tminv = glyptora_simd::min(tminv, glyptora_simd::select(b.valid[g], t, Vec4f(kNoBlock)));
        tmaxv = glyptora_simd::max(tmaxv, glyptora_simd::select(b.valid[g], t, Vec4f(-kNoBlock)));
    }
    float tmin = lanes::hmin(tminv), tmax = lanes::hmax(tmaxv);
    if (tmin == tmax) {
        tmin -= 0.007874016f;
        tmax += 0.007874016f;
    }
    // 5. Endpoints.
    float e0[4], e1[4];
    for (int j = 0; j < 4; ++j) {
        e0[j] = clampf(mean[j] + axis[j] * tmin, 0.0f, 1.0f);
        e1[j] = clampf(mean[j] + axis[j] * tmax, 0.0f, 1.0f);
    }
    // 6. Alpha snapping.
    if (anyZeroAlpha) {
        if (e1[3] >= e0[3])
            e0[3] = 0.0f;
        else
            e1[3] = 0.0f;
    }
    if (anyOpaqueAlpha) {
        if (e1[3] >= e0[3])
            e1[3] = 1.0f;
        else
            e0[3] = 1.0f;
    }
    // 7. Refit along the segment (texels outside the valid region sit at 0.5).
    float d[4];
    for (int j = 0; j < 4; ++j) d[j] = e1[j] - e0[j];
    const float dd = dot4f(d, d);
    float s0 = 0.0f, s1 = 1.0f;
    if (dd > 0.0f) {
        Vec4f t[4];
        const Vec4f invdd(1.0f / dd);
        for (int g = 0; g < 4; ++g) {
            Vec4f p = (u[0][g] - Vec4f(e0[0])) * Vec4f(d[0]);
            for (int c = 1; c < 4; ++c) p = p + (u[c][g] - Vec4f(e0[c])) * Vec4f(d[c]);
            t[g] = glyptora_simd::select(b.valid[g], p * invdd, Vec4f(0.5f));
        }
        blendFactors(t, b.valid, s0, s1);
    }
    float ne[2][4];
    for (int j = 0; j < 4; ++j) {
        ne[0][j] = (1.0f - s0) * e0[j] + s0 * e1[j];  // clamped by the quantiser
        ne[1][j] = (1.0f - s1) * e0[j] + s1 * e1[j];
    }
    const float oldAlpha[2] = {e0[3], e1[3]};
    for (int e = 0; e < 2; ++e) {
        if (oldAlpha[e] == 0.0f) ne[e][3] = 0.0f;
        if (oldAlpha[e] > 0.998f) ne[e][3] = 1.0f;
    }
    // 8. Quantisation with p-bits: 8-bit values whose lowest bit is the p-bit.
    int v[2][4], pbit[2];
    for (int e = 0; e < 2; ++e) {
        int q[4];
        for (int j = 0; j < 4; ++j) q[j] = quantizeUnit(ne[e][j], 8);
        if (ne[e][3] == 0.0f)
            pbit[e] = 0;
        else if (ne[e][3] > 0.998f)
            pbit[e] = 1;
        else
            pbit[e] = ((q[0] & 1) + (q[1] & 1) + (q[2] & 1)) >= 2 ? 1 : 0;
        for (int j = 0; j < 4; ++j) v[e][j] = (q[j] & ~1) | pbit[e];
    }
    // 9. Indices by projection onto the decoded segment.
    float D0[4], Dd[4];
    for (int j = 0; j < 4; ++j) {
        D0[j] = float(v[0][j]) / 255.0f;
        Dd[j] = float(v[1][j]) / 255.0f - D0[j];
    }
    const float ddq = dot4f(Dd, Dd);
    const bool zero0 = v[0][3] == 0, zero1 = v[1][3] == 0;
    const bool high0 = float(v[0][3]) / 255.0f >= 0.998f, high1 = float(v[1][3]) / 255.0f >= 0.998f;
    const Vec4f invddq(ddq > 0.0f ? 1.0f / ddq : 0.0f);
    Vec4f err(0.0f);
    Vec4f idxv[4];
    for (int g = 0; g < 4; ++g) {
        Vec4f p = (u[0][g] - Vec4f(D0[0])) * Vec4f(Dd[0]);
        for (int c = 1; c < 4; ++c) p = p + (u[c][g] - Vec4f(D0[c])) * Vec4f(Dd[c]);
        Vec4f t = p * invddq;
        if (zero0 != zero1)
            t = glyptora_simd::select(glyptora_simd::cmpLessEqual(u[3][g], Vec4f(0.0f)), Vec4f(zero0 ? 0.0f : 1.0f), t);
        if (high0 != high1)
            t = glyptora_simd::select(glyptora_simd::cmpLessEqual(Vec4f(0.998f), u[3][g]), Vec4f(high0 ? 0.0f : 1.0f),
                                      t);
        t = glyptora_simd::select(b.valid[g], t, Vec4f(0.5f));
        const Vec4f index = nearestIndex16(t);
        idxv[g] = index;
        // 10. Error over the valid texels.
        const Vec4f w = lanes::roundHalfUp(index * Vec4f(64.0f / 15.0f));
        Vec4f e(0.0f);
        for (int c = 0; c < 4; ++c) {
            const float a = float(v[0][c]), bb = float(v[1][c]);
            const Vec4f value = glyptora_simd::floor((Vec4f(a * 64.0f + 32.0f) + Vec4f(bb - a) * w) * Vec4f(0.015625f));
            const Vec4f diff = b.ch[c][g] - value;
            e = e + diff * diff;
        }
        err = err + lanes::keep(b.valid[g], e);
    }
    const float total = lanes::hsum(err);
    if (!(total < best)) return total;
    best = total;
    int idx[16];
    for (int g = 0; g < 4; ++g) glyptora_simd::truncateToInt(idxv[g]).store(&idx[4 * g]);
    if (idx[0] & 8) {
        for (int j = 0; j < 4; ++j) {
            const int tv = v[0][j];
            v[0][j] = v[1][j];
            v[1][j] = tv;
        }
        const int tp = pbit[0];
        pbit[0] = pbit[1];
        pbit[1] = tp;
        for (int i = 0; i < 16; ++i) idx[i] = 15 - idx[i];
    }
    BC7Modes::Bits w(out, BC7Modes::BITSIZE);
    w.write(64, 7);
    for (int j = 0; j < 4; ++j) {
        w.write(v[0][j] >> 1, 7);
        w.write(v[1][j] >> 1, 7);
    }
    w.write(pbit[0], 1);
    w.write(pbit[1], 1);
    GLYPTORA_ASSERT(w.getptr() == 65);
    GLYPTORA_ASSERT((idx[0] & 8) == 0);
    w.write(idx[0], 3);
    for (int i = 1; i < 16; ++i) w.write(idx[i], 4);
    GLYPTORA_ASSERT(w.getptr() == BC7Modes::BITSIZE);
    return total;
}

}  // namespace fastenc
}  // namespace GLYPTORA_SIMD_ABI
}  // namespace glyptora_bc7
