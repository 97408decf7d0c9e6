#pragma once
// Interpolated single-channel blocks (BC3 alpha, BC4, each half of BC5), unsigned and signed.
//
// Block layout, 8 bytes little-endian: byte 0 `alpha0`, byte 1 `alpha1`, then sixteen
// 3-bit palette indices, pixel i's at bit 16 + 3i. alpha0 > alpha1 selects the 8-value
// palette (both endpoints and six interpolants); otherwise the 6-value palette (both
// endpoints, four interpolants, then the range's lowest and highest value).
//
// Both forms are one template over `Signed`: the signed twin differs in its value range
// ([-127, 127] for endpoints, -128 accepted as input), in its fixed 6-value entries
// (-127 and 127 instead of 0 and 255) and in never pinning endpoints to the extremes.
//
// Everything here is plain arithmetic so that the CUDA kernels compile the same code.
#include <cfloat>
#include <cmath>
#include <cstdint>

#include "core/host_device.h"

namespace glyptora_dxt {

// ---------------------------------------------------------------------------------------
// Value domains

template <bool Signed>
struct AlphaDomain;

template <>
struct AlphaDomain<false> {
    static constexpr int kLowest = 0;      // p6 of the 6-value palette, lower clamp
    static constexpr int kHighest = 255;   // p7 of the 6-value palette, upper clamp
    static constexpr int kInnerLow = 1;    // inner values exclude the fixed 6-value entries
    static constexpr int kInnerHigh = 254;
    static constexpr bool kKeepsExtremes = true;  // exact 0 and 255 stay endpoints in 8-value mode
};

template <>
struct AlphaDomain<true> {
    static constexpr int kLowest = -127;
    static constexpr int kHighest = 127;
    static constexpr int kInnerLow = -126;
    static constexpr int kInnerHigh = 126;
    static constexpr bool kKeepsExtremes = false;
};

// Range of a block's 16 values. min/max start at the domain's top/bottom (so a signed -128
// lowers min to -128 while max never drops below -127); the inner range covers only values
// strictly inside the domain and is left at (top, bottom) when there are none.
struct AlphaRange {
    int min, max, innerMin, innerMax;
};

template <bool Signed>
GLYPTORA_HD inline AlphaRange alphaRange(const int x[16]) {
    using D = AlphaDomain<Signed>;
    AlphaRange r{D::kHighest, D::kLowest, D::kHighest, D::kLowest};
    for (int i = 0; i < 16; ++i) {
        const int v = x[i];
        r.min = v < r.min ? v : r.min;
        r.max = v > r.max ? v : r.max;
        if (v >= D::kInnerLow && v <= D::kInnerHigh) {
            r.innerMin = v < r.innerMin ? v : r.innerMin;
            r.innerMax = v > r.innerMax ? v : r.innerMax;
        }
    }
    return r;
}

// ---------------------------------------------------------------------------------------
// Palette, index selection, packing

// The eight palette values of (alpha0, alpha1). C++ integer division truncates toward
// zero, which is the rounding of both the unsigned and the signed palette.
template <bool Signed>
GLYPTORA_HD inline void alphaPalette(int alpha0, int alpha1, int palette[8]) {
    palette[0] = alpha0;
    palette[1] = alpha1;
    if (alpha0 > alpha1) {
        for (int k = 2; k < 8; ++k) palette[k] = ((8 - k) * alpha0 + (k - 1) * alpha1 + 3) / 7;
    } else {
        for (int k = 2; k < 6; ++k) palette[k] = ((6 - k) * alpha0 + (k - 1) * alpha1 + 2) / 5;
        palette[6] = AlphaDomain<Signed>::kLowest;
        palette[7] = AlphaDomain<Signed>::kHighest;
    }
}

GLYPTORA_HD inline void interpolatedAlphaPalette(int alpha0, int alpha1, int palette[8]) {
    alphaPalette<false>(alpha0, alpha1, palette);
}
GLYPTORA_HD inline void signedInterpolatedAlphaPalette(int alpha0, int alpha1, int palette[8]) {
    alphaPalette<true>(alpha0, alpha1, palette);
}

// Working form of a block while it is being refined.
struct AlphaBlockState {
    int alpha0;
    int alpha1;
    uint8_t index[16];
};

// Nearest palette entry of one value (ties to the lower index) and its squared distance.
GLYPTORA_HD inline int nearestPaletteEntry(const int palette[8], int v, int* squaredDistance) {
    int best = 0;
    int bestDistance = (v - palette[0]) * (v - palette[0]);
    for (int k = 1; k < 8; ++k) {
        const int d = (v - palette[k]) * (v - palette[k]);
        if (d < bestDistance) {
            bestDistance = d;
            best = k;
        }
    }
    *squaredDistance = bestDistance;
    return best;
}

// Chooses every pixel's index for the block's endpoints; returns the summed squared error.
template <bool Signed>
GLYPTORA_HD inline int selectAlphaIndices(const int x[16], AlphaBlockState& b) {
    int palette[8];
    alphaPalette<Signed>(b.alpha0, b.alpha1, palette);
    int error = 0;
    for (int i = 0; i < 16; ++i) {
        int d;
        b.index[i] = uint8_t(nearestPaletteEntry(palette, x[i], &d));
        error += d;
    }
    return error;
}

GLYPTORA_HD inline void packAlphaBlock(const AlphaBlockState& b, uint8_t out[8]) {
    uint64_t bits = 0;
    for (int i = 0; i < 16; ++i) bits |= uint64_t(b.index[i] & 7) << (3 * i);
    out[0] = uint8_t(b.alpha0 & 0xFF);  // two's complement byte for the signed form
    out[1] = uint8_t(b.alpha1 & 0xFF);
    for (int j = 0; j < 6; ++j) out[2 + j] = uint8_t(bits >> (8 * j));
}

// ---------------------------------------------------------------------------------------
// Least-squares endpoint refinement

// A product rounded on its own before the addition that follows, so that CUDA device code
// (which would fuse the two into one multiply-add) rounds the sums as the host does.
GLYPTORA_HD inline float roundedProduct(float a, float b) {
#if defined(__CUDA_ARCH__)
    return __fmul_rn(a, b);
#else
    return a * b;
#endif
}

// Clamps a solved endpoint and truncates it; a non-finite solution becomes 0.
GLYPTORA_HD inline int clampTruncateEndpoint(float v, int lowest, int highest) {
    if (!(fabsf(v) <= FLT_MAX)) return 0;
    if (v < float(lowest)) v = float(lowest);
    if (v > float(highest)) v = float(highest);
    return int(v);
}

// Least squares for both endpoints: index k weighs w = 1 - k on alpha0 for k < 2, else
// (valueCount - k) * step, and 1 - w on alpha1; indices at or above valueCount (the fixed
// entries) are left out. Returns the determinant; the solution is not guarded against it.
GLYPTORA_HD inline float solveEndpointPair(const int x[16], const AlphaBlockState& b, int valueCount, float step,
                                           float& solved0, float& solved1) {
    float sww = 0, svv = 0, swv = 0, sxw = 0, sxv = 0;
    for (int i = 0; i < 16; ++i) {
        const int k = b.index[i];
        if (k >= valueCount) continue;
        const float w = k < 2 ? float(1 - k) : float(valueCount - k) * step;
        const float v = 1.0f - w;
        const float xf = float(x[i]);
        sww += roundedProduct(w, w);
        svv += roundedProduct(v, v);
        swv += roundedProduct(w, v);
        sxw += roundedProduct(xf, w);
        sxv += roundedProduct(xf, v);
    }
    const float det = roundedProduct(sww, svv) - roundedProduct(swv, swv);
    solved0 = (roundedProduct(svv, sxw) - roundedProduct(swv, sxv)) / det;
    solved1 = (roundedProduct(sww, sxv) - roundedProduct(swv, sxw)) / det;
    return det;
}

// 8-value least squares: index k weighs 1 - k on alpha0 for k < 2, else (8 - k)/7.
// Unsigned blocks pin alpha0 to 255 and alpha1 to 0 when the block holds those values.
// The result is kept in 8-value order: a reversed pair is swapped with its indices remapped,
// an equal pair gets every index 0.
template <bool Signed>
GLYPTORA_HD inline void solveEightValueEndpoints(const int x[16], const AlphaRange& range, AlphaBlockState& b) {
    using D = AlphaDomain<Signed>;
    float solved0, solved1;
    solveEndpointPair(x, b, 8, 0.14285715f, solved0, solved1);
    int a0 = clampTruncateEndpoint(solved0, D::kLowest, D::kHighest);
    int a1 = clampTruncateEndpoint(solved1, D::kLowest, D::kHighest);
    if (D::kKeepsExtremes && range.max == D::kHighest) a0 = D::kHighest;
    if (D::kKeepsExtremes && range.min == D::kLowest) a1 = D::kLowest;
    if (a0 < a1) {
        const int t = a0;
        a0 = a1;
        a1 = t;
        for (int i = 0; i < 16; ++i) {
            const int k = b.index[i];
            b.index[i] = uint8_t(k < 2 ? 1 - k : 9 - k);
        }
    } else if (a0 == a1) {
        for (int i = 0; i < 16; ++i) b.index[i] = 0;
    }
    b.alpha0 = a0;
    b.alpha1 = a1;
}

// 6-value least squares: pixels on the fixed entries (6, 7) are left out; index k weighs
// 1 - k on alpha0 for k < 2, else (6 - k)/5. A singular system leaves the block as it is;
// the solved endpoints are stored in the order solved.
template <bool Signed>
GLYPTORA_HD inline void solveSixValueEndpoints(const int x[16], AlphaBlockState& b) {
    using D = AlphaDomain<Signed>;
    float solved0, solved1;
    if (solveEndpointPair(x, b, 6, 0.2f, solved0, solved1) == 0.0f) return;
    b.alpha0 = clampTruncateEndpoint(solved0, D::kLowest, D::kHighest);
    b.alpha1 = clampTruncateEndpoint(solved1, D::kLowest, D::kHighest);
}

// Up to eight refinements. Each solves new endpoints and re-selects the indices; it stops
// when the endpoints stay the same or the error does not go down (keeping the block before).
template <bool Signed, bool EightValue>
GLYPTORA_HD inline int refineAlphaBlock(const int x[16], const AlphaRange& range, AlphaBlockState& b, int error) {
    for (int pass = 0; pass < 8; ++pass) {
        AlphaBlockState trial = b;
        if (EightValue)
            solveEightValueEndpoints<Signed>(x, range, trial);
        else
            solveSixValueEndpoints<Signed>(x, trial);
        if (trial.alpha0 == b.alpha0 && trial.alpha1 == b.alpha1) break;
        const int trialError = selectAlphaIndices<Signed>(x, trial);
        if (trialError >= error) break;
        b = trial;
        error = trialError;
    }
    return error;
}

// ---------------------------------------------------------------------------------------
// Fast block

// Two starts, each refined: an 8-value pair inset by 1/34 of the range from the extremes
// (unsigned blocks keep exact 0 and 255 as endpoints) and a 6-value pair inset from the
// inner range. The 6-value block wins only with a strictly smaller error.
template <bool Signed>
GLYPTORA_HD inline void fastEightValueStart(const AlphaRange& r, int* alpha0, int* alpha1) {
    using D = AlphaDomain<Signed>;
    const int inset = (r.max - r.min) / 34;
    *alpha0 = (D::kKeepsExtremes && r.max == D::kHighest) ? D::kHighest : r.max - inset;
    *alpha1 = (D::kKeepsExtremes && r.min == D::kLowest) ? D::kLowest : r.min + inset;
}

// With no inner values the inner range is reversed and so is the inset, which turns this
// start into an 8-value pair (248, 7 for unsigned blocks); the error comparison still decides.
template <bool Signed>
GLYPTORA_HD inline void fastSixValueStart(const AlphaRange& r, int* alpha0, int* alpha1) {
    const int inset = (r.innerMax - r.innerMin) / 34;
    *alpha0 = r.innerMin + inset;
    *alpha1 = r.innerMax - inset;
}

template <bool Signed>
GLYPTORA_HD inline void encodeAlphaBlockFast(const int x[16], uint8_t out[8]) {
    const AlphaRange r = alphaRange<Signed>(x);

    AlphaBlockState eight;
    fastEightValueStart<Signed>(r, &eight.alpha0, &eight.alpha1);
    int eightError = selectAlphaIndices<Signed>(x, eight);
    eightError = refineAlphaBlock<Signed, true>(x, r, eight, eightError);

    AlphaBlockState six;
    fastSixValueStart<Signed>(r, &six.alpha0, &six.alpha1);
    int sixError = selectAlphaIndices<Signed>(x, six);
    sixError = refineAlphaBlock<Signed, false>(x, r, six, sixError);

    packAlphaBlock(sixError < eightError ? six : eight, out);
}

// ---------------------------------------------------------------------------------------
// High-quality block

// Weighted error of a pair: per pixel the squared distance to the nearest palette value
// times the pixel's weight, summed in pixel order. Returns the partial sum as soon as it
// exceeds `bestError`, since such a pair can no longer win.
template <bool Signed>
GLYPTORA_HD inline float weightedAlphaError(const int x[16], const float weights[16], int alpha0, int alpha1,
                                            float bestError) {
    int palette[8];
    alphaPalette<Signed>(alpha0, alpha1, palette);
    float error = 0.0f;
    for (int i = 0; i < 16; ++i) {
        int d;
        nearestPaletteEntry(palette, x[i], &d);
        error += roundedProduct(weights[i], float(d));
        if (error > bestError) return error;
    }
    return error;
}

// Candidate pairs of the exhaustive search. 8-value pairs: alpha0 in [lo + 9, hi - 1] (outer)
// and alpha1 in [lo, alpha0 - 9] (inner), with lo/hi the range widened by 8. 6-value pairs:
// alpha1 in [lo6 + 9, hi6 - 1] (outer), alpha0 in [lo6, alpha1 - 9] (inner), with the inner
// range widened by 6. Both are clamped to the domain.
struct AlphaSearchLimits {
    int lo8, hi8, lo6, hi6;
};

template <bool Signed>
GLYPTORA_HD inline AlphaSearchLimits alphaSearchLimits(const AlphaRange& r) {
    using D = AlphaDomain<Signed>;
    AlphaSearchLimits s;
    s.lo8 = r.min - 8 < D::kLowest ? D::kLowest : r.min - 8;
    s.hi8 = r.max + 8 > D::kHighest ? D::kHighest : r.max + 8;
    s.lo6 = r.innerMin - 6 < D::kLowest ? D::kLowest : r.innerMin - 6;
    s.hi6 = r.innerMax + 6 > D::kHighest ? D::kHighest : r.innerMax + 6;
    return s;
}

// The straightforward search: every candidate pair in order, weighted error with early-out,
// a pair replacing the best only when strictly better. The search starts from the block
// (max, min) and its error, so (max, min) stays when nothing beats it.
template <bool Signed>
GLYPTORA_HD inline void searchAlphaPairsWeighted(const int x[16], const float weights[16], const AlphaRange& r,
                                                 int* bestAlpha0, int* bestAlpha1) {
    const AlphaSearchLimits s = alphaSearchLimits<Signed>(r);
    int best0 = r.max, best1 = r.min;
    float bestError = weightedAlphaError<Signed>(x, weights, best0, best1, FLT_MAX);
    for (int a0 = s.lo8 + 9; a0 <= s.hi8 - 1; ++a0)
        for (int a1 = s.lo8; a1 <= a0 - 9; ++a1) {
            const float e = weightedAlphaError<Signed>(x, weights, a0, a1, bestError);
            if (e < bestError) {
                bestError = e;
                best0 = a0;
                best1 = a1;
            }
        }
    for (int a1 = s.lo6 + 9; a1 <= s.hi6 - 1; ++a1)
        for (int a0 = s.lo6; a0 <= a1 - 9; ++a0) {
            const float e = weightedAlphaError<Signed>(x, weights, a0, a1, bestError);
            if (e < bestError) {
                bestError = e;
                best0 = a0;
                best1 = a1;
            }
        }
    *bestAlpha0 = best0;
    *bestAlpha1 = best1;
}

// Narrow ranges skip the search: below 8 the range itself is the pair (8-value, or for a
// flat block a 6-value pair of equal endpoints); an inner range below 6 becomes a 6-value
// pair whose fixed entries take the extremes. Returns false when the block needs the search.
template <bool Signed>
GLYPTORA_HD inline bool alphaPairWithoutSearch(const AlphaRange& r, int* alpha0, int* alpha1) {
    if (r.max - r.min < 8) {
        *alpha0 = r.max;
        *alpha1 = r.min;
        return true;
    }
    if (r.innerMax - r.innerMin < 6) {
        *alpha0 = r.innerMin;
        *alpha1 = r.innerMax;
        return true;
    }
    return false;
}

// After the search, an unsigned 8-value pair is pinned to exact 0 and 255 where the block
// holds them; the signed twin stores the pair as found. Then the final indices are chosen.
template <bool Signed>
GLYPTORA_HD inline void finishSearchedAlphaBlock(const int x[16], const AlphaRange& r, int alpha0, int alpha1,
                                                 uint8_t out[8]) {
    using D = AlphaDomain<Signed>;
    if (D::kKeepsExtremes && alpha0 > alpha1) {
        if (r.min == D::kLowest) alpha1 = D::kLowest;
        if (r.max == D::kHighest) alpha0 = D::kHighest;
    }
    AlphaBlockState b;
    b.alpha0 = alpha0;
    b.alpha1 = alpha1;
    selectAlphaIndices<Signed>(x, b);
    packAlphaBlock(b, out);
}

template <bool Signed>
GLYPTORA_HD inline void writeAlphaPair(const int x[16], int alpha0, int alpha1, uint8_t out[8]) {
    AlphaBlockState b;
    b.alpha0 = alpha0;
    b.alpha1 = alpha1;
    selectAlphaIndices<Signed>(x, b);
    packAlphaBlock(b, out);
}

// High-quality block with the straightforward search for any weights.
template <bool Signed>
GLYPTORA_HD inline void encodeAlphaBlockHighQualityReference(const int x[16], const float weights[16],
                                                             uint8_t out[8]) {
    const AlphaRange r = alphaRange<Signed>(x);
    int a0, a1;
    if (alphaPairWithoutSearch<Signed>(r, &a0, &a1)) {
        writeAlphaPair<Signed>(x, a0, a1, out);
        return;
    }
    searchAlphaPairsWeighted<Signed>(x, weights, r, &a0, &a1);
    finishSearchedAlphaBlock<Signed>(x, r, a0, a1, out);
}

}  // namespace glyptora_dxt
