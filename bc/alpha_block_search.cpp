// Host side of the pruned high-quality search: pair errors and bounds over all 16 pixels
// at once in SSE byte lanes. Values (signed ones offset by 128) sit in one register; the
// distance to a palette entry is |value - entry| in unsigned bytes, the per-pixel minimum
// over the eight entries stays a byte, and its squares are summed in 32-bit lanes.
#include "bc/alpha_block_search.h"

#if defined(__SSE4_1__)
#include <smmintrin.h>
#endif

namespace glyptora_dxt {

#if defined(__SSE4_1__)
namespace {

inline int s_SumOfSquares(__m128i bytes) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i lo = _mm_unpacklo_epi8(bytes, zero);
    const __m128i hi = _mm_unpackhi_epi8(bytes, zero);
    __m128i s = _mm_add_epi32(_mm_madd_epi16(lo, lo), _mm_madd_epi16(hi, hi));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, 0x4E));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, 0xB1));
    return _mm_cvtsi128_si32(s);
}

inline __m128i s_AbsDiff(__m128i a, __m128i b) { return _mm_or_si128(_mm_subs_epu8(a, b), _mm_subs_epu8(b, a)); }

template <bool Signed>
class SseAlphaEvaluator {
public:
    static constexpr int kOffset = Signed ? 128 : 0;
    using D = AlphaDomain<Signed>;

    explicit SseAlphaEvaluator(const int x[16]) {
        alignas(16) uint8_t bytes[16];
        for (int i = 0; i < 16; ++i) bytes[i] = uint8_t(x[i] + kOffset);
        m_values = _mm_load_si128(reinterpret_cast<const __m128i*>(bytes));
        m_lowestDistance = s_AbsDiff(m_values, _mm_set1_epi8(char(D::kLowest + kOffset)));
        m_highestDistance = s_AbsDiff(m_values, _mm_set1_epi8(char(D::kHighest + kOffset)));
    }

    // Palette in 16-bit lanes as numerator / divisor: every lane, the endpoints and the
    // fixed entries included, is a truncating division of c0*alpha0 + c1*alpha1 + bias by
    // 7 (8-value) or 5 (6-value). The division is a high multiply, exact for these ranges
    // (|numerator| <= 1788), applied to the magnitude so that it truncates toward zero.
    int pairError(int alpha0, int alpha1) const {
        const __m128i e0 = _mm_set1_epi16(short(alpha0));
        const __m128i e1 = _mm_set1_epi16(short(alpha1));
        __m128i numerator, reciprocal;
        if (alpha0 > alpha1) {
            numerator = _mm_add_epi16(_mm_add_epi16(_mm_mullo_epi16(e0, _mm_setr_epi16(7, 0, 6, 5, 4, 3, 2, 1)),
                                                    _mm_mullo_epi16(e1, _mm_setr_epi16(0, 7, 1, 2, 3, 4, 5, 6))),
                                      _mm_setr_epi16(0, 0, 3, 3, 3, 3, 3, 3));
            reciprocal = _mm_set1_epi16(short(9363));  // ceil(2^16 / 7)
        } else {
            numerator = _mm_add_epi16(_mm_add_epi16(_mm_mullo_epi16(e0, _mm_setr_epi16(5, 0, 4, 3, 2, 1, 0, 0)),
                                                    _mm_mullo_epi16(e1, _mm_setr_epi16(0, 5, 1, 2, 3, 4, 0, 0))),
                                      _mm_setr_epi16(0, 0, 2, 2, 2, 2, short(5 * D::kLowest), short(5 * D::kHighest)));
            reciprocal = _mm_set1_epi16(short(13108));  // ceil(2^16 / 5)
        }
        __m128i palette;
        if (Signed) {
            const __m128i quotient = _mm_mulhi_epu16(_mm_abs_epi16(numerator), reciprocal);
            palette = _mm_add_epi16(_mm_sign_epi16(quotient, numerator), _mm_set1_epi16(kOffset));
        } else {
            palette = _mm_mulhi_epu16(numerator, reciprocal);
        }
        palette = _mm_packus_epi16(palette, palette);

        __m128i nearest = _mm_set1_epi8(char(0xFF));
        nearest = _mm_min_epu8(nearest, s_AbsDiff(m_values, _mm_shuffle_epi8(palette, _mm_set1_epi8(0))));
        nearest = _mm_min_epu8(nearest, s_AbsDiff(m_values, _mm_shuffle_epi8(palette, _mm_set1_epi8(1))));
        nearest = _mm_min_epu8(nearest, s_AbsDiff(m_values, _mm_shuffle_epi8(palette, _mm_set1_epi8(2))));
        nearest = _mm_min_epu8(nearest, s_AbsDiff(m_values, _mm_shuffle_epi8(palette, _mm_set1_epi8(3))));
        nearest = _mm_min_epu8(nearest, s_AbsDiff(m_values, _mm_shuffle_epi8(palette, _mm_set1_epi8(4))));
        nearest = _mm_min_epu8(nearest, s_AbsDiff(m_values, _mm_shuffle_epi8(palette, _mm_set1_epi8(5))));
        nearest = _mm_min_epu8(nearest, s_AbsDiff(m_values, _mm_shuffle_epi8(palette, _mm_set1_epi8(6))));
        nearest = _mm_min_epu8(nearest, s_AbsDiff(m_values, _mm_shuffle_epi8(palette, _mm_set1_epi8(7))));
        return s_SumOfSquares(nearest);
    }

    int aboveEight(int t) const { return s_SumOfSquares(_mm_subs_epu8(m_values, threshold(t))); }
    int belowEight(int t) const { return s_SumOfSquares(_mm_subs_epu8(threshold(t), m_values)); }
    int aboveSix(int t) const {
        return s_SumOfSquares(_mm_min_epu8(_mm_subs_epu8(m_values, threshold(t)), m_highestDistance));
    }
    int belowSix(int t) const {
        return s_SumOfSquares(_mm_min_epu8(_mm_subs_epu8(threshold(t), m_values), m_lowestDistance));
    }

private:
    static __m128i threshold(int t) { return _mm_set1_epi8(char(t + kOffset)); }

    __m128i m_values;
    __m128i m_lowestDistance;   // |value - lowest|, the fixed p6 entry
    __m128i m_highestDistance;  // |highest - value|, the fixed p7 entry
};

}  // namespace
#endif

template <bool Signed>
void searchAlphaPairsUnitWeights(const int x[16], const AlphaRange& r, int* bestAlpha0, int* bestAlpha1) {
#if defined(__SSE4_1__)
    const SseAlphaEvaluator<Signed> ev(x);
#else
    const PortableAlphaEvaluator<Signed> ev{x};
#endif
    searchAlphaPairsPruned<Signed>(ev, r, bestAlpha0, bestAlpha1);
}

template void searchAlphaPairsUnitWeights<false>(const int*, const AlphaRange&, int*, int*);
template void searchAlphaPairsUnitWeights<true>(const int*, const AlphaRange&, int*, int*);

}  // namespace glyptora_dxt
