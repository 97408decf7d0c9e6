#pragma once
// Four-lane float and int vectors. Hot loops are written against these types so
// that they read like scalar code; the SSE backend is used on x86 hosts and the
// scalar backend everywhere else (CUDA device code, GLYPTORA_SIMD_SCALAR builds).
#include <cstdint>
#include <cmath>
#include "core/host_device.h"

#if !defined(GLYPTORA_SIMD_SCALAR) && !defined(__CUDACC__) && (defined(__SSE4_1__))
#define GLYPTORA_SIMD_SSE 1
#include <smmintrin.h>
#endif

// Code written against the vector types that is compiled with either backend (library
// and CUDA-emulating tests) goes in `inline namespace GLYPTORA_SIMD_ABI` so that the two
// instantiations never share a symbol.
#if defined(GLYPTORA_SIMD_SSE)
#define GLYPTORA_SIMD_ABI simd_sse
#else
#define GLYPTORA_SIMD_ABI simd_scalar
#endif

namespace glyptora_simd {

#if defined(GLYPTORA_SIMD_SSE)
// Each backend lives in its own inline namespace so that objects built with different
// backends never share a symbol for types of different layout.
inline namespace sse_backend {

struct Vec4i;

struct Vec4f {
    __m128 v;
    Vec4f() : v(_mm_setzero_ps()) {}
    explicit Vec4f(__m128 x) : v(x) {}
    explicit Vec4f(float s) : v(_mm_set1_ps(s)) {}
    Vec4f(float x, float y, float z, float w) : v(_mm_setr_ps(x, y, z, w)) {}
    static Vec4f load(const float* p) { return Vec4f(_mm_loadu_ps(p)); }
    void store(float* p) const { _mm_storeu_ps(p, v); }
    float x() const { return _mm_cvtss_f32(v); }
    float y() const { return _mm_cvtss_f32(_mm_shuffle_ps(v, v, 0x55)); }
    float z() const { return _mm_cvtss_f32(_mm_shuffle_ps(v, v, 0xAA)); }
    float w() const { return _mm_cvtss_f32(_mm_shuffle_ps(v, v, 0xFF)); }
    float operator[](int i) const { alignas(16) float t[4]; _mm_store_ps(t, v); return t[i]; }
    template <int I> Vec4f splat() const { return Vec4f(_mm_shuffle_ps(v, v, I * 0x55)); }
    Vec4f& operator+=(Vec4f o) { v = _mm_add_ps(v, o.v); return *this; }
    Vec4f& operator-=(Vec4f o) { v = _mm_sub_ps(v, o.v); return *this; }
    Vec4f& operator*=(Vec4f o) { v = _mm_mul_ps(v, o.v); return *this; }
};
inline Vec4f operator+(Vec4f a, Vec4f b) { return Vec4f(_mm_add_ps(a.v, b.v)); }
inline Vec4f operator-(Vec4f a, Vec4f b) { return Vec4f(_mm_sub_ps(a.v, b.v)); }
inline Vec4f operator*(Vec4f a, Vec4f b) { return Vec4f(_mm_mul_ps(a.v, b.v)); }
inline Vec4f operator/(Vec4f a, Vec4f b) { return Vec4f(_mm_div_ps(a.v, b.v)); }
inline Vec4f operator-(Vec4f a) { return Vec4f(_mm_sub_ps(_mm_setzero_ps(), a.v)); }
inline Vec4f min(Vec4f a, Vec4f b) { return Vec4f(_mm_min_ps(a.v, b.v)); }
inline Vec4f max(Vec4f a, Vec4f b) { return Vec4f(_mm_max_ps(a.v, b.v)); }
inline Vec4f clamp(Vec4f a, Vec4f lo, Vec4f hi) { return min(max(a, lo), hi); }
inline Vec4f abs(Vec4f a) { return Vec4f(_mm_andnot_ps(_mm_set1_ps(-0.0f), a.v)); }
inline Vec4f floor(Vec4f a) { return Vec4f(_mm_floor_ps(a.v)); }
inline Vec4f truncate(Vec4f a) { return Vec4f(_mm_round_ps(a.v, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC)); }
inline Vec4f sqrt(Vec4f a) { return Vec4f(_mm_sqrt_ps(a.v)); }
inline Vec4f mulAdd(Vec4f a, Vec4f b, Vec4f c) { return a * b + c; }
inline Vec4f negMulSub(Vec4f a, Vec4f b, Vec4f c) { return c - a * b; }
// Reciprocal estimate (about 12 bits), as the hardware gives it.
inline Vec4f reciprocalEstimate(Vec4f a) { return Vec4f(_mm_rcp_ps(a.v)); }
inline Vec4f select(Vec4f mask, Vec4f a, Vec4f b) { return Vec4f(_mm_blendv_ps(b.v, a.v, mask.v)); }
inline Vec4f cmpLess(Vec4f a, Vec4f b) { return Vec4f(_mm_cmplt_ps(a.v, b.v)); }
inline Vec4f cmpLessEqual(Vec4f a, Vec4f b) { return Vec4f(_mm_cmple_ps(a.v, b.v)); }
inline Vec4f cmpGreater(Vec4f a, Vec4f b) { return Vec4f(_mm_cmpgt_ps(a.v, b.v)); }
inline Vec4f cmpEqual(Vec4f a, Vec4f b) { return Vec4f(_mm_cmpeq_ps(a.v, b.v)); }
// (first, a0, a1, a2): the lanes moved up by one.
inline Vec4f shiftUp(Vec4f a, float first) {
    return Vec4f(_mm_move_ss(_mm_shuffle_ps(a.v, a.v, _MM_SHUFFLE(2, 1, 0, 0)), _mm_set_ss(first)));
}
inline int moveMask(Vec4f a) { return _mm_movemask_ps(a.v); }
inline bool anyLess(Vec4f a, Vec4f b) { return _mm_movemask_ps(_mm_cmplt_ps(a.v, b.v)) != 0; }
inline float dot3(Vec4f a, Vec4f b) { return _mm_cvtss_f32(_mm_dp_ps(a.v, b.v, 0x71)); }
inline float dot4(Vec4f a, Vec4f b) { return _mm_cvtss_f32(_mm_dp_ps(a.v, b.v, 0xF1)); }
inline float horizontalSum(Vec4f a) { return dot4(a, Vec4f(1.0f)); }

struct Vec4i {
    __m128i v;
    Vec4i() : v(_mm_setzero_si128()) {}
    explicit Vec4i(__m128i x) : v(x) {}
    explicit Vec4i(int s) : v(_mm_set1_epi32(s)) {}
    Vec4i(int x, int y, int z, int w) : v(_mm_setr_epi32(x, y, z, w)) {}
    static Vec4i load(const int* p) { return Vec4i(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))); }
    void store(int* p) const { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }
    int operator[](int i) const { alignas(16) int t[4]; _mm_store_si128(reinterpret_cast<__m128i*>(t), v); return t[i]; }
};
inline Vec4i operator+(Vec4i a, Vec4i b) { return Vec4i(_mm_add_epi32(a.v, b.v)); }
inline Vec4i operator-(Vec4i a, Vec4i b) { return Vec4i(_mm_sub_epi32(a.v, b.v)); }
inline Vec4i operator*(Vec4i a, Vec4i b) { return Vec4i(_mm_mullo_epi32(a.v, b.v)); }
inline Vec4i operator&(Vec4i a, Vec4i b) { return Vec4i(_mm_and_si128(a.v, b.v)); }
inline Vec4i operator|(Vec4i a, Vec4i b) { return Vec4i(_mm_or_si128(a.v, b.v)); }
inline Vec4i operator<<(Vec4i a, int n) { return Vec4i(_mm_slli_epi32(a.v, n)); }
inline Vec4i operator>>(Vec4i a, int n) { return Vec4i(_mm_srai_epi32(a.v, n)); }
inline Vec4i min(Vec4i a, Vec4i b) { return Vec4i(_mm_min_epi32(a.v, b.v)); }
inline Vec4i max(Vec4i a, Vec4i b) { return Vec4i(_mm_max_epi32(a.v, b.v)); }
inline Vec4i cmpLess(Vec4i a, Vec4i b) { return Vec4i(_mm_cmplt_epi32(a.v, b.v)); }
inline Vec4i cmpGreater(Vec4i a, Vec4i b) { return Vec4i(_mm_cmpgt_epi32(a.v, b.v)); }
inline Vec4i select(Vec4i mask, Vec4i a, Vec4i b) { return Vec4i(_mm_blendv_epi8(b.v, a.v, mask.v)); }
inline Vec4f toFloat(Vec4i a) { return Vec4f(_mm_cvtepi32_ps(a.v)); }
inline Vec4i truncateToInt(Vec4f a) { return Vec4i(_mm_cvttps_epi32(a.v)); }
inline Vec4f asFloat(Vec4i a) { return Vec4f(_mm_castsi128_ps(a.v)); }
inline Vec4i asInt(Vec4f a) { return Vec4i(_mm_castps_si128(a.v)); }
// Rows to columns: afterwards a holds the first lanes of the four, b the second, and so on.
inline void transpose4(Vec4f& a, Vec4f& b, Vec4f& c, Vec4f& d) { _MM_TRANSPOSE4_PS(a.v, b.v, c.v, d.v); }

}  // namespace sse_backend

#else  // scalar backend
inline namespace scalar_backend {

struct Vec4f {
    float e[4];
    GLYPTORA_HD Vec4f() : e{0, 0, 0, 0} {}
    GLYPTORA_HD explicit Vec4f(float s) : e{s, s, s, s} {}
    GLYPTORA_HD Vec4f(float x, float y, float z, float w) : e{x, y, z, w} {}
    GLYPTORA_HD static Vec4f load(const float* p) { return Vec4f(p[0], p[1], p[2], p[3]); }
    GLYPTORA_HD void store(float* p) const { for (int i = 0; i < 4; ++i) p[i] = e[i]; }
    GLYPTORA_HD float x() const { return e[0]; }
    GLYPTORA_HD float y() const { return e[1]; }
    GLYPTORA_HD float z() const { return e[2]; }
    GLYPTORA_HD float w() const { return e[3]; }
    GLYPTORA_HD float operator[](int i) const { return e[i]; }
    template <int I> GLYPTORA_HD Vec4f splat() const { return Vec4f(e[I]); }
    GLYPTORA_HD Vec4f& operator+=(Vec4f o) { for (int i = 0; i < 4; ++i) e[i] += o.e[i]; return *this; }
    GLYPTORA_HD Vec4f& operator-=(Vec4f o) { for (int i = 0; i < 4; ++i) e[i] -= o.e[i]; return *this; }
    GLYPTORA_HD Vec4f& operator*=(Vec4f o) { for (int i = 0; i < 4; ++i) e[i] *= o.e[i]; return *this; }
};
#define GLYPTORA_VEC4_LANEWISE(expr) Vec4f r; for (int i = 0; i < 4; ++i) r.e[i] = (expr); return r
GLYPTORA_HD inline Vec4f operator+(Vec4f a, Vec4f b) { GLYPTORA_VEC4_LANEWISE(a.e[i] + b.e[i]); }
GLYPTORA_HD inline Vec4f operator-(Vec4f a, Vec4f b) { GLYPTORA_VEC4_LANEWISE(a.e[i] - b.e[i]); }
GLYPTORA_HD inline Vec4f operator*(Vec4f a, Vec4f b) { GLYPTORA_VEC4_LANEWISE(a.e[i] * b.e[i]); }
GLYPTORA_HD inline Vec4f operator/(Vec4f a, Vec4f b) { GLYPTORA_VEC4_LANEWISE(a.e[i] / b.e[i]); }
GLYPTORA_HD inline Vec4f operator-(Vec4f a) { GLYPTORA_VEC4_LANEWISE(0.0f - a.e[i]); }
// min/max follow the SSE rule (second operand when unordered) so both backends agree.
GLYPTORA_HD inline Vec4f min(Vec4f a, Vec4f b) { GLYPTORA_VEC4_LANEWISE(a.e[i] < b.e[i] ? a.e[i] : b.e[i]); }
GLYPTORA_HD inline Vec4f max(Vec4f a, Vec4f b) { GLYPTORA_VEC4_LANEWISE(a.e[i] > b.e[i] ? a.e[i] : b.e[i]); }
GLYPTORA_HD inline Vec4f clamp(Vec4f a, Vec4f lo, Vec4f hi) { return min(max(a, lo), hi); }
GLYPTORA_HD inline Vec4f abs(Vec4f a) { GLYPTORA_VEC4_LANEWISE(fabsf(a.e[i])); }
GLYPTORA_HD inline Vec4f floor(Vec4f a) { GLYPTORA_VEC4_LANEWISE(floorf(a.e[i])); }
GLYPTORA_HD inline Vec4f truncate(Vec4f a) { GLYPTORA_VEC4_LANEWISE(truncf(a.e[i])); }
GLYPTORA_HD inline Vec4f sqrt(Vec4f a) { GLYPTORA_VEC4_LANEWISE(sqrtf(a.e[i])); }
GLYPTORA_HD inline Vec4f mulAdd(Vec4f a, Vec4f b, Vec4f c) { return a * b + c; }
GLYPTORA_HD inline Vec4f negMulSub(Vec4f a, Vec4f b, Vec4f c) { return c - a * b; }
GLYPTORA_HD inline Vec4f reciprocalEstimate(Vec4f a) { GLYPTORA_VEC4_LANEWISE(1.0f / a.e[i]); }
GLYPTORA_HD inline float laneMask(bool b) { union { unsigned u; float f; } c; c.u = b ? 0xFFFFFFFFu : 0u; return c.f; }
GLYPTORA_HD inline bool laneSet(float f) { union { unsigned u; float f; } c; c.f = f; return (c.u >> 31) != 0; }
GLYPTORA_HD inline Vec4f select(Vec4f mask, Vec4f a, Vec4f b) { GLYPTORA_VEC4_LANEWISE(laneSet(mask.e[i]) ? a.e[i] : b.e[i]); }
GLYPTORA_HD inline Vec4f cmpLess(Vec4f a, Vec4f b) { GLYPTORA_VEC4_LANEWISE(laneMask(a.e[i] < b.e[i])); }
GLYPTORA_HD inline Vec4f cmpLessEqual(Vec4f a, Vec4f b) { GLYPTORA_VEC4_LANEWISE(laneMask(a.e[i] <= b.e[i])); }
GLYPTORA_HD inline Vec4f cmpGreater(Vec4f a, Vec4f b) { GLYPTORA_VEC4_LANEWISE(laneMask(a.e[i] > b.e[i])); }
GLYPTORA_HD inline Vec4f cmpEqual(Vec4f a, Vec4f b) { GLYPTORA_VEC4_LANEWISE(laneMask(a.e[i] == b.e[i])); }
GLYPTORA_HD inline Vec4f shiftUp(Vec4f a, float first) { return Vec4f(first, a.e[0], a.e[1], a.e[2]); }
GLYPTORA_HD inline int moveMask(Vec4f a) { int m = 0; for (int i = 0; i < 4; ++i) m |= laneSet(a.e[i]) << i; return m; }
GLYPTORA_HD inline bool anyLess(Vec4f a, Vec4f b) { return a.e[0] < b.e[0] || a.e[1] < b.e[1] || a.e[2] < b.e[2] || a.e[3] < b.e[3]; }
GLYPTORA_HD inline float dot3(Vec4f a, Vec4f b) { return a.e[0] * b.e[0] + a.e[1] * b.e[1] + a.e[2] * b.e[2]; }
// Summed in pairs, as the SSE dot product adds its lanes, so that both backends agree bit for bit.
GLYPTORA_HD inline float dot4(Vec4f a, Vec4f b) { return (a.e[0] * b.e[0] + a.e[1] * b.e[1]) + (a.e[2] * b.e[2] + a.e[3] * b.e[3]); }
GLYPTORA_HD inline float horizontalSum(Vec4f a) { return dot4(a, Vec4f(1.0f)); }
#undef GLYPTORA_VEC4_LANEWISE

struct Vec4i {
    int e[4];
    GLYPTORA_HD Vec4i() : e{0, 0, 0, 0} {}
    GLYPTORA_HD explicit Vec4i(int s) : e{s, s, s, s} {}
    GLYPTORA_HD Vec4i(int x, int y, int z, int w) : e{x, y, z, w} {}
    GLYPTORA_HD static Vec4i load(const int* p) { return Vec4i(p[0], p[1], p[2], p[3]); }
    GLYPTORA_HD void store(int* p) const { for (int i = 0; i < 4; ++i) p[i] = e[i]; }
    GLYPTORA_HD int operator[](int i) const { return e[i]; }
};
#define GLYPTORA_VEC4I_LANEWISE(expr) Vec4i r; for (int i = 0; i < 4; ++i) r.e[i] = (expr); return r
GLYPTORA_HD inline Vec4i operator+(Vec4i a, Vec4i b) { GLYPTORA_VEC4I_LANEWISE(a.e[i] + b.e[i]); }
GLYPTORA_HD inline Vec4i operator-(Vec4i a, Vec4i b) { GLYPTORA_VEC4I_LANEWISE(a.e[i] - b.e[i]); }
GLYPTORA_HD inline Vec4i operator*(Vec4i a, Vec4i b) { GLYPTORA_VEC4I_LANEWISE(a.e[i] * b.e[i]); }
GLYPTORA_HD inline Vec4i operator&(Vec4i a, Vec4i b) { GLYPTORA_VEC4I_LANEWISE(a.e[i] & b.e[i]); }
GLYPTORA_HD inline Vec4i operator|(Vec4i a, Vec4i b) { GLYPTORA_VEC4I_LANEWISE(a.e[i] | b.e[i]); }
GLYPTORA_HD inline Vec4i operator<<(Vec4i a, int n) { GLYPTORA_VEC4I_LANEWISE(int(unsigned(a.e[i]) << n)); }
GLYPTORA_HD inline Vec4i operator>>(Vec4i a, int n) { GLYPTORA_VEC4I_LANEWISE(a.e[i] >> n); }
GLYPTORA_HD inline Vec4i min(Vec4i a, Vec4i b) { GLYPTORA_VEC4I_LANEWISE(a.e[i] < b.e[i] ? a.e[i] : b.e[i]); }
GLYPTORA_HD inline Vec4i max(Vec4i a, Vec4i b) { GLYPTORA_VEC4I_LANEWISE(a.e[i] > b.e[i] ? a.e[i] : b.e[i]); }
GLYPTORA_HD inline Vec4i cmpLess(Vec4i a, Vec4i b) { GLYPTORA_VEC4I_LANEWISE(a.e[i] < b.e[i] ? -1 : 0); }
GLYPTORA_HD inline Vec4i cmpGreater(Vec4i a, Vec4i b) { GLYPTORA_VEC4I_LANEWISE(a.e[i] > b.e[i] ? -1 : 0); }
GLYPTORA_HD inline Vec4i select(Vec4i mask, Vec4i a, Vec4i b) { GLYPTORA_VEC4I_LANEWISE(mask.e[i] ? a.e[i] : b.e[i]); }
GLYPTORA_HD inline Vec4i truncateToInt(Vec4f a) { GLYPTORA_VEC4I_LANEWISE(int(a.e[i])); }
#undef GLYPTORA_VEC4I_LANEWISE
GLYPTORA_HD inline Vec4f toFloat(Vec4i a) { return Vec4f(float(a.e[0]), float(a.e[1]), float(a.e[2]), float(a.e[3])); }
// Rows to columns: afterwards a holds the first lanes of the four, b the second, and so on.
GLYPTORA_HD inline void transpose4(Vec4f& a, Vec4f& b, Vec4f& c, Vec4f& d) {
    Vec4f* rows[4] = {&a, &b, &c, &d};
    for (int i = 0; i < 4; ++i)
        for (int j = i + 1; j < 4; ++j) {
            const float t = rows[i]->e[j];
            rows[i]->e[j] = rows[j]->e[i];
            rows[j]->e[i] = t;
        }
}

}  // namespace scalar_backend

#endif

}  // namespace glyptora_simd
