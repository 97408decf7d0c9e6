#pragma once
// The exhaustive endpoint search of the high-quality interpolated block, pruned.
//
// With every pixel weight 1.0 the weighted error of a pair is an exact integer (at most
// 16 * 255^2 < 2^24, so the float sums of the straightforward search are exact too). The
// search returns the first pair, in candidate order, of the smallest error below the start
// error; any pair whose error cannot be strictly below the best so far may be skipped
// without changing that answer. A pair's error is at least the squared distance of the
// values from the palette's span (plus, in 6-value mode, the fixed extremes), and that bound
// splits into an upper-end part and a lower-end part:
//   8-value (alpha0 > alpha1): above8(alpha0) + below8(alpha1),
//       above8(t) = sum over x > t of (x - t)^2, below8(t) = sum over x < t of (t - x)^2;
//   6-value (alpha0 < alpha1): above6(alpha1) + below6(alpha0), where a value beyond the
//       span may instead be near the fixed lowest/highest entry:
//       above6(t) = sum over x > t of min(x - t, |highest - x|)^2,
//       below6(t) = sum over x < t of min(t - x, |x - lowest|)^2.
// The inner loops walk the lower-end endpoint upward, along which the lower-end part never
// decreases, so once the bound reaches the best error the rest of the inner loop is skipped.
#include "bc/alpha_block.h"

namespace glyptora_dxt {

// Exact unit-weight errors and bounds, one pixel at a time (device code, non-SSE hosts).
template <bool Signed>
struct PortableAlphaEvaluator {
    const int* x;

    GLYPTORA_HD int pairError(int alpha0, int alpha1) const {
        int palette[8];
        alphaPalette<Signed>(alpha0, alpha1, palette);
        int error = 0;
        for (int i = 0; i < 16; ++i) {
            int d;
            nearestPaletteEntry(palette, x[i], &d);
            error += d;
        }
        return error;
    }
    GLYPTORA_HD int aboveEight(int t) const { return boundSum(t, false, false); }
    GLYPTORA_HD int belowEight(int t) const { return boundSum(t, true, false); }
    GLYPTORA_HD int aboveSix(int t) const { return boundSum(t, false, true); }
    GLYPTORA_HD int belowSix(int t) const { return boundSum(t, true, true); }

private:
    GLYPTORA_HD int boundSum(int t, bool below, bool fixedEntries) const {
        int sum = 0;
        for (int i = 0; i < 16; ++i) {
            int d = below ? t - x[i] : x[i] - t;
            if (d <= 0) continue;
            if (fixedEntries) {
                int c = below ? x[i] - AlphaDomain<Signed>::kLowest : AlphaDomain<Signed>::kHighest - x[i];
                c = c < 0 ? -c : c;
                d = c < d ? c : d;
            }
            sum += d * d;
        }
        return sum;
    }
};

// The candidate order and strict-improvement rule of searchAlphaPairsWeighted, skipping the
// pairs whose bound already reaches the best error. `Evaluator` supplies pairError and the
// four bound parts.
template <bool Signed, typename Evaluator>
GLYPTORA_HD inline void searchAlphaPairsPruned(const Evaluator& ev, const AlphaRange& r, int* bestAlpha0,
                                               int* bestAlpha1) {
    constexpr int kTableBase = Signed ? -128 : 0;
    const AlphaSearchLimits s = alphaSearchLimits<Signed>(r);
    int best0 = r.max, best1 = r.min;
    int bestError = ev.pairError(best0, best1);

    // Lower-end bounds, filled on first use: the inner loops only ever move upward from lo.
    int lowerBound[256];
    int filledUpTo = s.lo8;  // first threshold not yet in the table
    for (int a0 = s.lo8 + 9; a0 <= s.hi8 - 1; ++a0) {
        const int upper = ev.aboveEight(a0);
        if (upper >= bestError) continue;
        for (int a1 = s.lo8; a1 <= a0 - 9; ++a1) {
            for (; filledUpTo <= a1; ++filledUpTo) lowerBound[filledUpTo - kTableBase] = ev.belowEight(filledUpTo);
            if (upper + lowerBound[a1 - kTableBase] >= bestError) break;
            const int e = ev.pairError(a0, a1);
            if (e < bestError) {
                bestError = e;
                best0 = a0;
                best1 = a1;
            }
        }
    }

    filledUpTo = s.lo6;
    for (int a1 = s.lo6 + 9; a1 <= s.hi6 - 1; ++a1) {
        const int upper = ev.aboveSix(a1);
        if (upper >= bestError) continue;
        for (int a0 = s.lo6; a0 <= a1 - 9; ++a0) {
            for (; filledUpTo <= a0; ++filledUpTo) lowerBound[filledUpTo - kTableBase] = ev.belowSix(filledUpTo);
            if (upper + lowerBound[a0 - kTableBase] >= bestError) break;
            const int e = ev.pairError(a0, a1);
            if (e < bestError) {
                bestError = e;
                best0 = a0;
                best1 = a1;
            }
        }
    }
    *bestAlpha0 = best0;
    *bestAlpha1 = best1;
}

// Host search with unit weights: the same pruned search with SSE pair errors where the
// library is built for SSE4.1 (alpha_block_search.cpp). Instantiated for both signs.
template <bool Signed>
void searchAlphaPairsUnitWeights(const int x[16], const AlphaRange& r, int* bestAlpha0, int* bestAlpha1);

// High-quality block: the range shortcuts, else the exhaustive search (pruned for unit
// weights, straightforward otherwise), then pinning and final indices.
template <bool Signed>
GLYPTORA_HD inline void encodeAlphaBlockHighQuality(const int x[16], const float weights[16], uint8_t out[8]) {
    const AlphaRange r = alphaRange<Signed>(x);
    int a0, a1;
    if (alphaPairWithoutSearch<Signed>(r, &a0, &a1)) {
        writeAlphaPair<Signed>(x, a0, a1, out);
        return;
    }
    bool unitWeights = true;
    for (int i = 0; i < 16; ++i) unitWeights = unitWeights && weights[i] == 1.0f;
    if (unitWeights) {
#if defined(__CUDA_ARCH__)
        PortableAlphaEvaluator<Signed> ev{x};
        searchAlphaPairsPruned<Signed>(ev, r, &a0, &a1);
#else
        searchAlphaPairsUnitWeights<Signed>(x, r, &a0, &a1);
#endif
    } else {
        searchAlphaPairsWeighted<Signed>(x, weights, r, &a0, &a1);
    }
    finishSearchedAlphaBlock<Signed>(x, r, a0, a1, out);
}

}  // namespace glyptora_dxt
