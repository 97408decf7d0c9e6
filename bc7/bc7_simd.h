#pragma once
// Lane helpers the BC7 block encoder needs beyond core/vec4.h: horizontal
// reductions, lane masks from texel bits and a 4x4 transpose. Masks are
// Vec4f values whose set lanes have every bit set (the form select() takes).
#include <cstdint>

#include "core/host_device.h"
#include "core/vec4.h"

namespace glyptora_bc7 {
inline namespace GLYPTORA_SIMD_ABI {
namespace lanes {

using glyptora_simd::Vec4f;
using glyptora_simd::Vec4i;

#if defined(GLYPTORA_SIMD_SSE)

inline float hmin(Vec4f a) {
    __m128 m = _mm_min_ps(a.v, _mm_shuffle_ps(a.v, a.v, _MM_SHUFFLE(2, 3, 0, 1)));
    m = _mm_min_ps(m, _mm_shuffle_ps(m, m, _MM_SHUFFLE(1, 0, 3, 2)));
    return _mm_cvtss_f32(m);
}
inline float hmax(Vec4f a) {
    __m128 m = _mm_max_ps(a.v, _mm_shuffle_ps(a.v, a.v, _MM_SHUFFLE(2, 3, 0, 1)));
    m = _mm_max_ps(m, _mm_shuffle_ps(m, m, _MM_SHUFFLE(1, 0, 3, 2)));
    return _mm_cvtss_f32(m);
}
inline float hsum(Vec4f a) {
    __m128 s = _mm_add_ps(a.v, _mm_movehl_ps(a.v, a.v));
    s = _mm_add_ss(s, _mm_shuffle_ps(s, s, 1));
    return _mm_cvtss_f32(s);
}
inline void transpose(Vec4f& a, Vec4f& b, Vec4f& c, Vec4f& d) { _MM_TRANSPOSE4_PS(a.v, b.v, c.v, d.v); }
// Lanes of `x` where `mask` is set, zero elsewhere.
inline Vec4f keep(Vec4f mask, Vec4f x) { return Vec4f(_mm_and_ps(mask.v, x.v)); }
inline Vec4f maskAnd(Vec4f a, Vec4f b) { return Vec4f(_mm_and_ps(a.v, b.v)); }
inline Vec4f maskAndNot(Vec4f a, Vec4f b) { return Vec4f(_mm_andnot_ps(b.v, a.v)); }  // a and not b
// Set lanes for the bits 0..3 of `nibble`.
inline Vec4f laneMask(int nibble) {
    const __m128i bits = _mm_setr_epi32(1, 2, 4, 8);
    const __m128i n = _mm_and_si128(_mm_set1_epi32(nibble), bits);
    return Vec4f(_mm_castsi128_ps(_mm_cmpeq_epi32(n, bits)));
}
inline Vec4f roundHalfUp(Vec4f a) { return glyptora_simd::floor(a + Vec4f(0.5f)); }
// Set lanes where bit `i` (0..31) of the lane's integer is set.
inline Vec4f bitLane(Vec4i bits, int i) { return Vec4f(_mm_castsi128_ps(_mm_slli_epi32(bits.v, 31 - i))); }

#else

GLYPTORA_HD inline float hmin(Vec4f a) {
    float m = a[0];
    for (int i = 1; i < 4; ++i) m = a[i] < m ? a[i] : m;
    return m;
}
GLYPTORA_HD inline float hmax(Vec4f a) {
    float m = a[0];
    for (int i = 1; i < 4; ++i) m = a[i] > m ? a[i] : m;
    return m;
}
GLYPTORA_HD inline float hsum(Vec4f a) { return (a[0] + a[2]) + (a[1] + a[3]); }
GLYPTORA_HD inline void transpose(Vec4f& a, Vec4f& b, Vec4f& c, Vec4f& d) {
    Vec4f ra(a[0], b[0], c[0], d[0]), rb(a[1], b[1], c[1], d[1]), rc(a[2], b[2], c[2], d[2]),
        rd(a[3], b[3], c[3], d[3]);
    a = ra;
    b = rb;
    c = rc;
    d = rd;
}
GLYPTORA_HD inline Vec4f keep(Vec4f mask, Vec4f x) { return glyptora_simd::select(mask, x, Vec4f(0.0f)); }
GLYPTORA_HD inline Vec4f maskAnd(Vec4f a, Vec4f b) { return glyptora_simd::select(a, b, Vec4f(0.0f)); }
GLYPTORA_HD inline Vec4f maskAndNot(Vec4f a, Vec4f b) { return glyptora_simd::select(b, Vec4f(0.0f), a); }
GLYPTORA_HD inline Vec4f laneMask(int nibble) {
    return glyptora_simd::cmpGreater(glyptora_simd::toFloat(Vec4i(nibble) & Vec4i(1, 2, 4, 8)), Vec4f(0.0f));
}
GLYPTORA_HD inline Vec4f roundHalfUp(Vec4f a) { return glyptora_simd::floor(a + Vec4f(0.5f)); }
GLYPTORA_HD inline Vec4f bitLane(Vec4i bits, int i) {
    return glyptora_simd::cmpGreater(glyptora_simd::toFloat((bits >> i) & Vec4i(1)), Vec4f(0.0f));
}

#endif

}  // namespace lanes
}  // namespace GLYPTORA_SIMD_ABI
}  // namespace glyptora_bc7
