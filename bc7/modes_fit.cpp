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

// dominant_eigenvector_n of 2 * K matrices side by side: each takes the very
// steps it takes alone (a matrix that has converged is diagonal, so further
// sweeps leave it alone). With SSE two matrices share every instruction
// (matrix 2k in the low lane, 2k + 1 in the high lane) and the K pairs
// interleave, so that the chains of divisions and square roots run together;
// a lane that does not rotate keeps its values.
template <int n, int K>
void dominant_eigenvectors_n(const float* const matrix[2 * K], float* const axis[2 * K], bool settled[2 * K]) {
#if defined(GLYPTORA_SIMD_SSE)
    __m128d a[K][4][4], v[K][4][4];
    for (int k = 0; k < K; ++k)
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) {
                a[k][i][j] = _mm_set_pd(matrix[2 * k + 1][4 * i + j], matrix[2 * k][4 * i + j]);
                v[k][i][j] = _mm_set1_pd(i == j ? 1.0 : 0.0);
            }
    const __m128d zero = _mm_setzero_pd(), one = _mm_set1_pd(1.0);
    const __m128d signBit = _mm_set1_pd(-0.0);
    const auto fabs2 = [&](__m128d x) { return _mm_andnot_pd(signBit, x); };
    const auto blend = [](__m128d mask, __m128d yes, __m128d no) {
        return _mm_or_pd(_mm_and_pd(mask, yes), _mm_andnot_pd(mask, no));
    };
    int rotated[K];  // lanes of each pair that rotated in the last sweep
    int any = 1;
    for (int k = 0; k < K; ++k) rotated[k] = 3;
    for (int sweep = 0; sweep < kMaxSweeps && any; ++sweep) {
        for (int k = 0; k < K; ++k) rotated[k] = 0;
        for (int p = 0; p < n; ++p)
            for (int q = p + 1; q < n; ++q)
                for (int k = 0; k < K; ++k) {
                    const __m128d apq = a[k][p][q];
                    // An off-diagonal term negligible beside its two diagonal terms counts as 0.
                    const __m128d negligible = _mm_cmple_pd(
                        fabs2(apq),
                        _mm_mul_pd(_mm_set1_pd(1e-12), _mm_add_pd(fabs2(a[k][p][p]), fabs2(a[k][q][q]))));
                    const __m128d rotate = _mm_andnot_pd(_mm_or_pd(_mm_cmpeq_pd(apq, zero), negligible),
                                                         _mm_cmpeq_pd(zero, zero));
                    const int lanes = _mm_movemask_pd(rotate);
                    if (lanes) {
                        rotated[k] |= lanes;
                        const __m128d theta =
                            _mm_div_pd(_mm_sub_pd(a[k][q][q], a[k][p][p]), _mm_mul_pd(_mm_set1_pd(2.0), apq));
                        const __m128d sign = blend(_mm_cmpge_pd(theta, zero), one, _mm_set1_pd(-1.0));
                        const __m128d near = _mm_div_pd(
                            sign, _mm_add_pd(fabs2(theta), _mm_sqrt_pd(_mm_add_pd(_mm_mul_pd(theta, theta), one))));
                        // Where theta squared would overflow: 0.5 / theta.
                        const __m128d huge = _mm_cmpgt_pd(fabs2(theta), _mm_set1_pd(1e150));
                        const __m128d t = _mm_movemask_pd(huge)
                                              ? blend(huge, _mm_div_pd(_mm_set1_pd(0.5), theta), near)
                                              : near;
                        const __m128d c = _mm_div_pd(one, _mm_sqrt_pd(_mm_add_pd(_mm_mul_pd(t, t), one)));
                        const __m128d s = _mm_mul_pd(t, c);
                        const auto turn = [&](__m128d& x, __m128d& y) {
                            const __m128d xo = x, yo = y;
                            x = blend(rotate, _mm_sub_pd(_mm_mul_pd(c, xo), _mm_mul_pd(s, yo)), xo);
                            y = blend(rotate, _mm_add_pd(_mm_mul_pd(s, xo), _mm_mul_pd(c, yo)), yo);
                        };
                        for (int r = 0; r < n; ++r) turn(a[k][r][p], a[k][r][q]);  // columns p and q
                        for (int r = 0; r < n; ++r) turn(a[k][p][r], a[k][q][r]);  // rows p and q
                        for (int r = 0; r < n; ++r) turn(v[k][r][p], v[k][r][q]);
                    }
                    // Rotated, negligible or 0: the term is 0 now in both lanes.
                    a[k][p][q] = a[k][q][p] = zero;
                }
        any = 0;
        for (int k = 0; k < K; ++k) any |= rotated[k];
    }
    for (int m = 0; m < 2 * K; ++m) {
        const int k = m / 2;
        settled[m] = !(rotated[k] >> (m & 1) & 1);
        if (!settled[m]) continue;
        const auto lane = [&](__m128d x) { return m & 1 ? _mm_cvtsd_f64(_mm_unpackhi_pd(x, x)) : _mm_cvtsd_f64(x); };
        int best = 0;
        for (int r = 1; r < n; ++r)
            if (lane(a[k][r][r]) > lane(a[k][best][best])) best = r;
        for (int i = 0; i < n; ++i) axis[m][i] = float(lane(v[k][i][best]));
    }
#else
    for (int m = 0; m < 2 * K; ++m) {
        float square[4][4];
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j) square[i][j] = matrix[m][4 * i + j];
        settled[m] = dominant_eigenvector(square, n, axis[m]);
    }
#endif
}

// The mean and covariance of a region's fitted channels (fit_region's first half).
struct Moments {
    int n = 0, count = 0;
    alignas(16) float value[16][4] = {};
    alignas(16) float mean[4] = {};
    float covariance[4][4] = {};
    bool flat = true;
};

void moments(const float pixels[][4], int np, int firstChannel, int endChannel, Moments& out) {
    // The fitted channels of every pixel in lanes 0..n-1 (0 elsewhere); the
    // sums below take the very operations, in the very order, of one channel
    // at a time.
    using glyptora_simd::Vec4f;
    GLYPTORA_ASSERT(np <= 16);
    const int n = endChannel - firstChannel;
    const int count = np < 16 ? np : 16;
    out.n = n;
    out.count = count;
    for (int i = 0; i < count; ++i)
        for (int c = 0; c < n; ++c) out.value[i][c] = pixels[i][firstChannel + c];
    Vec4f sum(0.0f);
    for (int i = 0; i < count; ++i) sum = sum + Vec4f::load(out.value[i]);
    const float inverse = 1.0f / float(np);
    (sum * Vec4f(inverse)).store(out.mean);

    Vec4f row[4];
    for (int i = 0; i < count; ++i) {
        alignas(16) float d[4];
        (Vec4f::load(out.value[i]) - Vec4f::load(out.mean)).store(d);
        for (int r = 0; r < n; ++r) row[r] = row[r] + Vec4f(d[r]) * Vec4f::load(d);
    }
    for (int r = 0; r < n; ++r) {
        alignas(16) float o[4];
        (row[r] * Vec4f(inverse)).store(o);
        for (int c = 0; c < n; ++c) out.covariance[r][c] = o[c];
    }
    out.flat = true;
    for (int c = 0; c < n; ++c) out.flat = out.flat && out.covariance[c][c] == 0.0f;
}

// fit_region's second half: the endpoints from the axis (or the mean of a flat region).
void place_endpoints(const Moments& m, float axis[4], bool settled, int firstChannel, FltEndpts& endpts,
                     float clampLow, float clampHigh) {
    using glyptora_simd::Vec4f;
    const auto clamp = [&](float v) { return clamp_to(v, clampLow, clampHigh); };
    const int n = m.n;
    if (m.flat) {
        for (int c = 0; c < n; ++c) endpts.A[firstChannel + c] = endpts.B[firstChannel + c] = clamp(m.mean[c]);
        return;
    }
    if (!settled) {
        // Not settled within the sweeps: fall back on the grey diagonal.
        for (int c = 0; c < n; ++c) axis[c] = 1.0f / std::sqrt(float(n));
    }

    // Projections four pixels at a time (a pixel per lane, the channels
    // added in order), then the extremes in pixel order.
    alignas(16) float projection[16];
    for (int i = 0; i < m.count; i += 4) {
        Vec4f lane[4] = {Vec4f::load(m.value[i]), Vec4f::load(m.value[i + 1]), Vec4f::load(m.value[i + 2]),
                         Vec4f::load(m.value[i + 3])};
        glyptora_simd::transpose4(lane[0], lane[1], lane[2], lane[3]);
        Vec4f p(0.0f);
        for (int c = 0; c < n; ++c) p = p + (lane[c] - Vec4f(m.mean[c])) * Vec4f(axis[c]);
        p.store(projection + i);
    }
    float lowest = FLT_MAX, highest = -FLT_MAX;
    for (int i = 0; i < m.count; ++i) {
        if (projection[i] < lowest) lowest = projection[i];
        if (projection[i] > highest) highest = projection[i];
    }
    for (int c = 0; c < n; ++c) {
        endpts.A[firstChannel + c] = clamp(m.mean[c] + axis[c] * lowest);
        endpts.B[firstChannel + c] = clamp(m.mean[c] + axis[c] * highest);
    }
}

// The endpoints of 0, 1 or 2 pixels (no fit needed).
bool few_pixels(const float pixels[][4], int np, int firstChannel, int endChannel, FltEndpts& endpts,
                float clampLow, float clampHigh) {
    if (np == 0) {
        for (int c = firstChannel; c < endChannel; ++c) endpts.A[c] = endpts.B[c] = 0.0f;
        return true;
    }
    for (int c = firstChannel; c < endChannel; ++c) {
        endpts.A[c] = clamp_to(pixels[0][c], clampLow, clampHigh);
        endpts.B[c] = clamp_to(pixels[np - 1][c], clampLow, clampHigh);
    }
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
    if (np <= 2) return few_pixels(pixels, np, firstChannel, endChannel, endpts, clampLow, clampHigh);
    Moments m;
    moments(pixels, np, firstChannel, endChannel, m);
    float axis[4] = {};
    const bool settled = m.flat || dominant_eigenvector(m.covariance, m.n, axis);
    place_endpoints(m, axis, settled, firstChannel, endpts, clampLow, clampHigh);
    return settled;
}

void fit_regions(const float (*const pixels[])[4], const int np[], int count, int channels, FltEndpts* const endpts[],
                 bool settled[]) {
    GLYPTORA_ASSERT(count <= 4);
    Moments m[4];
    float axis[4][4] = {};
    // The regions that need the eigen-solver, and a zero matrix for the lanes left over.
    const float* matrix[4];
    float* out[4];
    int solving[4], solved = 0;
    static constexpr float kZero[16] = {};
    float spare[4][4];
    for (int k = 0; k < count; ++k) {
        if (np[k] <= 2) continue;
        moments(pixels[k], np[k], 0, channels, m[k]);
        if (m[k].flat) continue;
        matrix[solved] = &m[k].covariance[0][0];
        out[solved] = axis[k];
        solving[solved++] = k;
    }
    bool result[4];
    if (channels == 3 && solved > 1) {
        for (int l = solved; l < 4; ++l) matrix[l] = kZero, out[l] = spare[l];
        if (solved == 2)
            dominant_eigenvectors_n<3, 1>(matrix, out, result);
        else
            dominant_eigenvectors_n<3, 2>(matrix, out, result);
    } else {
        for (int l = 0; l < solved; ++l) result[l] = dominant_eigenvector(m[solving[l]].covariance, channels, out[l]);
    }
    for (int k = 0; k < count; ++k) {
        if (np[k] <= 2) {
            settled[k] = few_pixels(pixels[k], np[k], 0, channels, *endpts[k], 0.0f, 255.0f);
            continue;
        }
        settled[k] = true;
        for (int l = 0; l < solved; ++l)
            if (solving[l] == k) settled[k] = result[l];
        place_endpoints(m[k], axis[k], settled[k], 0, *endpts[k], 0.0f, 255.0f);
    }
}

}  // namespace BC7Modes
