#include "bc7/modes_fit.h"

#include <cfloat>
#include <cmath>

#include "core/assert.h"
#include "core/vec4.h"

namespace BC7Modes {

namespace {

constexpr int kMaxSweeps = 32;

// One Jacobi rotation in the (p, q) plane that zeroes a[p][q]; v collects the
// rotations. n is the matrix size (a template parameter so that the loops unroll).
template <int n>
void s_Rotate(double a[4][4], double v[4][4], int p, int q) {
    const double theta = (a[q][q] - a[p][p]) / (2.0 * a[p][q]);
    double t;
    if (std::fabs(theta) > 1e150)
        t = 0.5 / theta;  // theta squared would overflow
    else
        t = (theta >= 0.0 ? 1.0 : -1.0) / (std::fabs(theta) + std::sqrt(theta * theta + 1.0));
    const double c = 1.0 / std::sqrt(t * t + 1.0);
    const double s = t * c;
    for (int k = 0; k < n; ++k) {  // columns p and q
        const double akp = a[k][p], akq = a[k][q];
        a[k][p] = c * akp - s * akq;
        a[k][q] = s * akp + c * akq;
    }
    for (int k = 0; k < n; ++k) {  // rows p and q
        const double apk = a[p][k], aqk = a[q][k];
        a[p][k] = c * apk - s * aqk;
        a[q][k] = s * apk + c * aqk;
    }
    for (int k = 0; k < n; ++k) {
        const double vkp = v[k][p], vkq = v[k][q];
        v[k][p] = c * vkp - s * vkq;
        v[k][q] = s * vkp + c * vkq;
    }
    a[p][q] = a[q][p] = 0.0;
}

template <int n>
bool dominant_eigenvector_n(const float matrix[4][4], float axis[4]) {
    double a[4][4], v[4][4];
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            a[i][j] = matrix[i][j];
            v[i][j] = i == j ? 1.0 : 0.0;
        }
    bool converged = false;
    for (int sweep = 0; sweep < kMaxSweeps && !converged; ++sweep) {
        // An off-diagonal term negligible beside its two diagonal terms counts as 0;
        // the matrix is diagonal when every one of them is.
        converged = true;
        for (int p = 0; p < n; ++p)
            for (int q = p + 1; q < n; ++q) {
                if (a[p][q] == 0.0) continue;
                if (std::fabs(a[p][q]) <= 1e-12 * (std::fabs(a[p][p]) + std::fabs(a[q][q]))) {
                    a[p][q] = a[q][p] = 0.0;
                    continue;
                }
                converged = false;
                s_Rotate<n>(a, v, p, q);
            }
    }
    if (!converged) return false;
    int best = 0;
    for (int k = 1; k < n; ++k)
        if (a[k][k] > a[best][best]) best = k;
    for (int i = 0; i < n; ++i) axis[i] = float(v[i][best]);
    return true;
}

}  // namespace

float clamp255(float v) { return clamp_to(v, 0.0f, 255.0f); }

bool constant_channel(const float pixels[][4], int np, int ch, float& mean) {
    float sum = 0.0f;
    for (int i = 0; i < np; ++i) sum += pixels[i][ch];
    mean = np > 2 ? sum * (1.0f / float(np)) : pixels[0][ch];
    for (int i = 0; i < np; ++i)
        if (pixels[i][ch] != mean) return false;
    return true;
}

bool dominant_eigenvector(const float matrix[4][4], int n, float axis[4]) {
    switch (n) {
    case 1: return dominant_eigenvector_n<1>(matrix, axis);
    case 2: return dominant_eigenvector_n<2>(matrix, axis);
    case 3: return dominant_eigenvector_n<3>(matrix, axis);
    case 4: return dominant_eigenvector_n<4>(matrix, axis);
    default: return n <= 0;  // no term to rotate: diagonal at once, `axis` left alone
    }
}

bool fit_region(const float pixels[][4], int np, int firstChannel, int endChannel, FltEndpts& endpts, float clampLow,
                float clampHigh) {
    const auto clamp = [&](float v) { return clamp_to(v, clampLow, clampHigh); };
    const int n = endChannel - firstChannel;
    if (np == 0) {
        for (int c = firstChannel; c < endChannel; ++c) endpts.A[c] = endpts.B[c] = 0.0f;
        return true;
    }
    if (np == 1 || np == 2) {
        for (int c = firstChannel; c < endChannel; ++c) {
            endpts.A[c] = clamp(pixels[0][c]);
            endpts.B[c] = clamp(pixels[np - 1][c]);
        }
        return true;
    }

    // The fitted channels of every pixel in lanes 0..n-1 (0 elsewhere); the
    // sums below take the very operations, in the very order, of one channel
    // at a time.
    using glyptora_simd::Vec4f;
    GLYPTORA_ASSERT(np <= 16);
    const int count = np < 16 ? np : 16;
    alignas(16) float value[16][4] = {};
    for (int i = 0; i < count; ++i)
        for (int c = 0; c < n; ++c) value[i][c] = pixels[i][firstChannel + c];
    Vec4f sum(0.0f);
    for (int i = 0; i < count; ++i) sum = sum + Vec4f::load(value[i]);
    const float inverse = 1.0f / float(np);
    alignas(16) float mean[4];
    (sum * Vec4f(inverse)).store(mean);

    float covariance[4][4] = {};
    Vec4f row[4];
    for (int i = 0; i < count; ++i) {
        alignas(16) float d[4];
        (Vec4f::load(value[i]) - Vec4f::load(mean)).store(d);
        for (int r = 0; r < n; ++r) row[r] = row[r] + Vec4f(d[r]) * Vec4f::load(d);
    }
    for (int r = 0; r < n; ++r) {
        alignas(16) float out[4];
        (row[r] * Vec4f(inverse)).store(out);
        for (int c = 0; c < n; ++c) covariance[r][c] = out[c];
    }

    bool flat = true;
    for (int c = 0; c < n; ++c) flat = flat && covariance[c][c] == 0.0f;
    if (flat) {
        for (int c = 0; c < n; ++c) endpts.A[firstChannel + c] = endpts.B[firstChannel + c] = clamp(mean[c]);
        return true;
    }

    float axis[4];
    const bool settled = dominant_eigenvector(covariance, n, axis);
    if (!settled) {
        // Not settled within the sweeps: fall back on the grey diagonal.
        for (int c = 0; c < n; ++c) axis[c] = 1.0f / std::sqrt(float(n));
    }

    // Projections four pixels at a time (a pixel per lane, the channels
    // added in order), then the extremes in pixel order.
    alignas(16) float projection[16];
    for (int i = 0; i < count; i += 4) {
        Vec4f lane[4] = {Vec4f::load(value[i]), Vec4f::load(value[i + 1]), Vec4f::load(value[i + 2]),
                         Vec4f::load(value[i + 3])};
        glyptora_simd::transpose4(lane[0], lane[1], lane[2], lane[3]);
        Vec4f p(0.0f);
        for (int c = 0; c < n; ++c) p = p + (lane[c] - Vec4f(mean[c])) * Vec4f(axis[c]);
        p.store(projection + i);
    }
    float lowest = FLT_MAX, highest = -FLT_MAX;
    for (int i = 0; i < count; ++i) {
        if (projection[i] < lowest) lowest = projection[i];
        if (projection[i] > highest) highest = projection[i];
    }
    for (int c = 0; c < n; ++c) {
        endpts.A[firstChannel + c] = clamp(mean[c] + axis[c] * lowest);
        endpts.B[firstChannel + c] = clamp(mean[c] + axis[c] * highest);
    }
    return settled;
}

}  // namespace BC7Modes
