#pragma once
// Lane helpers the BC7 block encoders need beyond core/vec4.h: horizontal
// reductions, lane masks from texel bits, a 4x4 transpose and eight unsigned
// 16-bit lanes. Masks are Vec4f values whose set lanes have every bit set
// (the form select() takes).
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

// Eight unsigned 16-bit lanes. + - * wrap around (mod 65536), addSaturate
// stops at 65535 and subSaturate at 0.
struct U16x8 {
    __m128i v;
    U16x8() : v(_mm_setzero_si128()) {}
    explicit U16x8(__m128i x) : v(x) {}
    explicit U16x8(int s) : v(_mm_set1_epi16(short(s))) {}
    static U16x8 load(const uint16_t* p) { return U16x8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))); }
    void store(uint16_t* p) const { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }
    // Lanes 0..3 from a and 4..7 from b, each clamped to 0..65535.
    static U16x8 pack(Vec4i a, Vec4i b) { return U16x8(_mm_packus_epi32(a.v, b.v)); }
    // Lane I (0..3) in every lane.
    template <int I> U16x8 broadcast() const {
        const __m128i low = _mm_shufflelo_epi16(v, I * 0x55);
        return U16x8(_mm_unpacklo_epi64(low, low));
    }
};
inline U16x8 operator+(U16x8 a, U16x8 b) { return U16x8(_mm_add_epi16(a.v, b.v)); }
inline U16x8 operator-(U16x8 a, U16x8 b) { return U16x8(_mm_sub_epi16(a.v, b.v)); }
inline U16x8 operator*(U16x8 a, U16x8 b) { return U16x8(_mm_mullo_epi16(a.v, b.v)); }
inline U16x8 operator>>(U16x8 a, int n) { return U16x8(_mm_srli_epi16(a.v, n)); }
inline U16x8 addSaturate(U16x8 a, U16x8 b) { return U16x8(_mm_adds_epu16(a.v, b.v)); }
inline U16x8 subSaturate(U16x8 a, U16x8 b) { return U16x8(_mm_subs_epu16(a.v, b.v)); }
inline U16x8 min(U16x8 a, U16x8 b) { return U16x8(_mm_min_epu16(a.v, b.v)); }
inline U16x8 max(U16x8 a, U16x8 b) { return U16x8(_mm_max_epu16(a.v, b.v)); }
// Bit i set where lane i of a is below lane i of b.
inline int lessMask(U16x8 a, U16x8 b) {
    const __m128i notBelow = _mm_cmpeq_epi16(_mm_subs_epu16(b.v, a.v), _mm_setzero_si128());
    return ~_mm_movemask_epi8(_mm_packs_epi16(notBelow, notBelow)) & 0xFF;
}

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

struct U16x8 {
    uint16_t e[8];
    GLYPTORA_HD U16x8() : e{} {}
    GLYPTORA_HD explicit U16x8(int s) { for (int i = 0; i < 8; ++i) e[i] = uint16_t(s); }
    GLYPTORA_HD static U16x8 load(const uint16_t* p) { U16x8 r; for (int i = 0; i < 8; ++i) r.e[i] = p[i]; return r; }
    GLYPTORA_HD void store(uint16_t* p) const { for (int i = 0; i < 8; ++i) p[i] = e[i]; }
    GLYPTORA_HD static U16x8 pack(Vec4i a, Vec4i b) {
        U16x8 r;
        for (int i = 0; i < 8; ++i) {
            const int x = i < 4 ? a[i] : b[i - 4];
            r.e[i] = uint16_t(x < 0 ? 0 : x > 65535 ? 65535 : x);
        }
        return r;
    }
    template <int I> GLYPTORA_HD U16x8 broadcast() const { return U16x8(e[I]); }
};
#define GLYPTORA_U16X8_LANEWISE(expr) U16x8 r; for (int i = 0; i < 8; ++i) r.e[i] = uint16_t(expr); return r
GLYPTORA_HD inline U16x8 operator+(U16x8 a, U16x8 b) { GLYPTORA_U16X8_LANEWISE(uint32_t(a.e[i]) + b.e[i]); }
GLYPTORA_HD inline U16x8 operator-(U16x8 a, U16x8 b) { GLYPTORA_U16X8_LANEWISE(uint32_t(a.e[i]) - b.e[i]); }
GLYPTORA_HD inline U16x8 operator*(U16x8 a, U16x8 b) { GLYPTORA_U16X8_LANEWISE(uint32_t(a.e[i]) * b.e[i]); }
GLYPTORA_HD inline U16x8 operator>>(U16x8 a, int n) { GLYPTORA_U16X8_LANEWISE(a.e[i] >> n); }
GLYPTORA_HD inline U16x8 addSaturate(U16x8 a, U16x8 b) {
    GLYPTORA_U16X8_LANEWISE(uint32_t(a.e[i]) + b.e[i] > 65535u ? 65535u : uint32_t(a.e[i]) + b.e[i]);
}
GLYPTORA_HD inline U16x8 subSaturate(U16x8 a, U16x8 b) {
    GLYPTORA_U16X8_LANEWISE(a.e[i] > b.e[i] ? a.e[i] - b.e[i] : 0);
}
GLYPTORA_HD inline U16x8 min(U16x8 a, U16x8 b) { GLYPTORA_U16X8_LANEWISE(a.e[i] < b.e[i] ? a.e[i] : b.e[i]); }
GLYPTORA_HD inline U16x8 max(U16x8 a, U16x8 b) { GLYPTORA_U16X8_LANEWISE(a.e[i] > b.e[i] ? a.e[i] : b.e[i]); }
#undef GLYPTORA_U16X8_LANEWISE
GLYPTORA_HD inline int lessMask(U16x8 a, U16x8 b) {
    int m = 0;
    for (int i = 0; i < 8; ++i) m |= (a.e[i] < b.e[i] ? 1 : 0) << i;
    return m;
}

#endif

}  // namespace lanes
}  // namespace GLYPTORA_SIMD_ABI
}  // namespace glyptora_bc7
