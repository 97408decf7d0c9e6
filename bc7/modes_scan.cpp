#include "bc7/modes_scan.h"

#include <cfloat>
#include <cstdint>

#include "bc7/bc7_simd.h"
#include "bc7/modes_palette.h"
#include "bc7/modes_whole.h"
#include "bc7/utils.h"
#include "core/vec4.h"

namespace BC7Modes {

namespace {

constexpr int kTexels = Tile::TILE_TOTAL;

// Records texel k's index and adds its error to the running sum; once the sum exceeds
// `beat` the scan is abandoned and the remaining texels are marked -1 (false).
inline bool keepTexel(const Segment& seg, int k, int bestindex, float besterr, float beat, float& toterr,
                      int indices[kTexels]) {
    indices[seg.texel[k]] = bestindex;
    toterr += besterr;
    if (!(toterr > beat)) return true;
    for (int rest = k + 1; rest < seg.count; ++rest) indices[seg.texel[rest]] = -1;
    return false;
}

using glyptora_simd::Vec4f;
using namespace palette_detail;
namespace lanes = glyptora_bc7::lanes;

// decode_endpoint of a given stored value and p-bit: the table for the
// precisions it covers, Utils::unquantize (with its checks) otherwise.
int decode_value(const Segment& seg, int value, int pbit, int ch) {
    int prec = seg.prec[ch];
    if (seg.hasPBits) {
        value = (value << 1) | pbit;
        ++prec;
    }
    if (prec >= 4 && prec <= 8 && value >= 0 && value < (1 << prec)) return kUnquant.value[prec][value];
    return Utils::unquantize(value, prec);
}

bool fast_index_bits(const Segment& seg) { return seg.indexBits >= 2 && seg.indexBits <= 4; }

// Channel c of every entry: the integer interpolation of Utils::lerp (the
// decoded values are small whole numbers, for which lerp4 is exact).
void set_channel(const Segment& seg, int c, int a, int b, ScanPalette& pal) {
    const int set = seg.indexBits - 2;
    const Vec4f va{float(a)}, vb{float(b)};
    for (int q = 0; q < pal.entries; q += 4) lerp4(set, q, va, vb).store(&pal.value[c][q]);
}

// The palette scan on plain squared error (no weight flags, no
// premultiplication): per texel and entry the very expression of
// Utils::pixel_error times the weight, four entries computed at a time, and
// the walk of map_colors over them. While the walk goes on the errors do not
// grow, so its best is the last error walked and its index the first entry
// with that error; it stops at the first error above the one before it (the
// stop at a best of 0 changes nothing: nothing after it is taken). That holds
// while every error is below FLT_MAX, the walk's starting best; a texel with a
// larger error takes the walk entry by entry. Every entry is computed, so
// that the texel takes no branch on its errors.
// Without `Indices` only the error is wanted (and nothing is beaten).
template <bool Indices>
float scan_plain(const Segment& seg, const ScanPalette& pal, float beat, int indices[kTexels]) {
    using glyptora_simd::moveMask;
    float toterr = 0.0f;
    const Vec4f below(FLT_MAX);
    const int entries = pal.entries;
    for (int k = 0; k < seg.count; ++k) {
        const Vec4f r(seg.pixel[k][0]), g(seg.pixel[k][1]), b(seg.pixel[k][2]), a(seg.pixel[k][3]);
        const Vec4f w(seg.weight[k]);
        // Every entry's error, whether all lie below FLT_MAX, and where each
        // is above the one before it (bit `entries` stands for the end).
        alignas(16) float err[16];
        int allBelow = 1, rising = 1 << entries;
        float lastErr = FLT_MAX;  // the error of the entry before the group
        int q = 0;
        do {
            const Vec4f dr = r - Vec4f::load(&pal.value[0][q]);
            const Vec4f dg = g - Vec4f::load(&pal.value[1][q]);
            const Vec4f db = b - Vec4f::load(&pal.value[2][q]);
            const Vec4f da = a - Vec4f::load(&pal.value[3][q]);
            const Vec4f e = (dr * dr + dg * dg + db * db + da * da) * w;
            e.store(err + q);
            allBelow &= moveMask(glyptora_simd::cmpLess(e, below)) == 0xF;
            rising |= moveMask(glyptora_simd::cmpGreater(e, glyptora_simd::shiftUp(e, lastErr))) << q;
            lastErr = err[q + 3];
            q += 4;
        } while (q < entries);
        float besterr = FLT_MAX;
        int bestindex = -1;
        if (allBelow) {
            besterr = err[__builtin_ctz(unsigned(rising)) - 1];
            if (!Indices) {
                toterr += besterr;
                continue;
            }
            int same = 0;
            for (int at = 0; at < entries; at += 4)
                same |= moveMask(glyptora_simd::cmpEqual(Vec4f::load(err + at), Vec4f(besterr))) << at;
            bestindex = __builtin_ctz(unsigned(same));
        } else {
            // Entry by entry, as map_colors walks.
            for (int j = 0; j < entries; ++j) {
                if (err[j] > besterr) break;
                if (err[j] < besterr) besterr = err[j], bestindex = j;
                if (besterr == 0.0f) break;
            }
        }
        if (!Indices) {
            toterr += besterr;
            continue;
        }
        if (!keepTexel(seg, k, bestindex, besterr, beat, toterr, indices)) return FLT_MAX;
    }
    // Partial sums never fall: the sum exceeds `beat` where one of them did.
    return !Indices && toterr > beat ? FLT_MAX : toterr;
}

// The palette scan as documented, for any error measure.
float map_colors_generic(const Segment& seg, const float palette[16][4], float beat, int indices[kTexels]) {
    const int entries = 1 << seg.indexBits;
    // The alpha-carrying scans compare premultiplied colours while flag_premult is set.
    const bool premultiplied = seg.alphaWithColour && flag_premult;
    float toterr = 0.0f;
    for (int k = 0; k < seg.count; ++k) {
        float pixel[4];
        for (int c = 0; c < 4; ++c) pixel[c] = seg.pixel[k][c];
        if (premultiplied) Utils::premult(pixel);
        float besterr = FLT_MAX;
        int bestindex = -1;
        for (int j = 0; j < entries; ++j) {
            float entry[4];
            for (int c = 0; c < 4; ++c) entry[c] = palette[j][c];
            if (premultiplied) Utils::premult(entry);
            const float err = Utils::pixel_error(pixel, entry) * seg.weight[k];
            if (err > besterr) break;  // entries lie along the segment: the rest are further away
            if (err < besterr) {
                besterr = err;
                bestindex = j;
            }
            if (besterr == 0.0f) break;
        }
        if (!keepTexel(seg, k, bestindex, besterr, beat, toterr, indices)) return FLT_MAX;
    }
    return toterr;
}

// Values within 1e15 and weights in [0, 1e6] keep every error in [0, FLT_MAX).
bool bounded(const Segment& seg) {
    const Vec4f bound(1e15f);
    for (int k = 0; k < seg.count; ++k) {
        const Vec4f pixel = Vec4f::load(seg.pixel[k]);  // NaN fails the comparison
        if (glyptora_simd::moveMask(glyptora_simd::cmpLessEqual(glyptora_simd::abs(pixel), bound)) != 0xF) return false;
        if (!(seg.weight[k] >= 0.0f && seg.weight[k] <= 1e6f)) return false;
    }
    return true;
}

// The lanes' sums of texel errors (see score_candidates), stopping once
// every lane is beyond its beat.
template <int Terms, int Entries, bool Weighted>
Vec4f sum_lanes(const Segment& seg, const ChannelScan& scan, const float value[16][4], Vec4f beat) {
    using glyptora_simd::cmpGreater;
    using glyptora_simd::moveMask;
    using glyptora_simd::select;
    const Vec4f zero(0.0f);
    Vec4f toterr(0.0f);
    for (int n = 0; n < scan.scanned; ++n) {
        const int k = scan.texel[n];
        const Vec4f p(seg.pixel[k][scan.ch]);
        Vec4f besterr, last, walking = glyptora_simd::cmpLessEqual(zero, zero);
        for (int j = 0; j < Entries; ++j) {
            const Vec4f d = p - Vec4f::load(value[j]);
            Vec4f e = d * d;
            if (Terms > 0) e = Vec4f::load(scan.term[k][j][0]) + e;
            if (Terms > 1) e = e + Vec4f::load(scan.term[k][j][1]);
            if (Terms > 2) e = e + Vec4f::load(scan.term[k][j][2]);
            if (Weighted) e = e * Vec4f(seg.weight[k]);
            if (j > 0) walking = select(cmpGreater(e, last), zero, walking);
            besterr = select(walking, e, besterr);
            last = e;
            if ((j & 3) == 3 && j + 1 < Entries && moveMask(walking) == 0) break;
        }
        toterr = toterr + besterr;
        if (moveMask(cmpGreater(toterr, beat)) == 0xF) break;
    }
    return toterr;
}

using SumLanes = Vec4f (*)(const Segment&, const ChannelScan&, const float[16][4], Vec4f);

template <int Terms, bool Weighted>
constexpr SumLanes kSumsByEntries[3] = {sum_lanes<Terms, 4, Weighted>, sum_lanes<Terms, 8, Weighted>,
                                        sum_lanes<Terms, 16, Weighted>};

// The kernel for the terms kept, the index size and the weights.
SumLanes sum_lanes_for(const ChannelScan& scan, int indexBits) {
    const int set = indexBits - 2;
    if (scan.unitWeights) {
        switch (scan.terms) {
        case 0: return kSumsByEntries<0, false>[set];
        case 1: return kSumsByEntries<1, false>[set];
        case 2: return kSumsByEntries<2, false>[set];
        default: return kSumsByEntries<3, false>[set];
        }
    }
    switch (scan.terms) {
    case 0: return kSumsByEntries<0, true>[set];
    case 1: return kSumsByEntries<1, true>[set];
    case 2: return kSumsByEntries<2, true>[set];
    default: return kSumsByEntries<3, true>[set];
    }
}

// What prepare_channel_scan works out once per segment.
void know_segment(const Segment& seg, ChannelScan& scan) {
    scan.boundedTexels = bounded(seg);
    bool unit = true;
    for (int k = 0; k < seg.count; ++k) unit &= seg.weight[k] == 0.0f || seg.weight[k] == 1.0f;
    scan.unitWeights = unit;
    scan.scanned = 0;
    for (int k = 0; k < seg.count; ++k) {
        scan.texel[scan.scanned] = k;
        scan.scanned += !unit || seg.weight[k] != 0.0f;
    }
    // Whole-number texels against whole-number palettes (the channels not
    // carried compare with `fixed`).
    bool whole = seg.wholeTexels && unit;
    for (int c = 0; c < 4; ++c)
        if (c < seg.firstChannel || c >= seg.endChannel)
            whole = whole && seg.fixed[c] >= 0.0f && seg.fixed[c] <= 255.0f && seg.fixed[c] == float(int(seg.fixed[c]));
    scan.wholeTexels = whole;
    if (whole) set_whole_values(seg, scan);
    scan.segmentKnown = true;
}

}  // namespace

void to_scan_palette(const Segment& seg, const float palette[16][4], ScanPalette& pal) {
    pal.entries = 1 << seg.indexBits;
    for (int i = 0; i < pal.entries; ++i)
        for (int c = 0; c < 4; ++c) pal.value[c][i] = palette[i][c];
}

namespace {

// Palettes of index sizes the channel layout does not compute: build_palette, laid out.
template <typename Endpoints>
bool built_entry_by_entry(const Segment& seg, const Endpoints& endpts, ScanPalette& pal) {
    if (fast_index_bits(seg)) return false;
    float palette[16][4];
    build_palette(seg, endpts, palette);
    to_scan_palette(seg, palette, pal);
    return true;
}

// Carried channel c of the palette of integer endpoints.
void set_carried_channel(const Segment& seg, const IntEndpts& endpts, int c, ScanPalette& pal) {
    const int a = decode_value(seg, endpts.A[c], endpts.pbitA, c), b = decode_value(seg, endpts.B[c], endpts.pbitB, c);
    set_channel(seg, c, a, b, pal);
}

}  // namespace

// build_palette of integer endpoints, channel by channel.
void build_scan_palette(const Segment& seg, const IntEndpts& endpts, ScanPalette& pal) {
    if (built_entry_by_entry(seg, endpts, pal)) return;
    pal.entries = 1 << seg.indexBits;
    for (int c = 0; c < 4; ++c) {
        if (c >= seg.firstChannel && c < seg.endChannel)
            set_carried_channel(seg, endpts, c, pal);
        else
            for (int q = 0; q < pal.entries; q += 4) Vec4f(seg.fixed[c]).store(&pal.value[c][q]);
    }
}

// build_palette of float endpoints (Utils::lerp_palette's operations), channel by channel.
void build_scan_palette(const Segment& seg, const FltEndpts& endpts, ScanPalette& pal) {
    if (built_entry_by_entry(seg, endpts, pal)) return;
    const int set = seg.indexBits - 2;
    pal.entries = 1 << seg.indexBits;
    for (int c = 0; c < 4; ++c) {
        const bool carried = c >= seg.firstChannel && c < seg.endChannel;
        const Vec4f a(carried ? endpts.A[c] : seg.fixed[c]), b(carried ? endpts.B[c] : seg.fixed[c]);
        for (int q = 0; q < pal.entries; q += 4)
            ((Vec4f::load(&kLerpFloats.a[set][q]) * a + Vec4f::load(&kLerpFloats.b[set][q]) * b) * Vec4f(0.015625f))
                .store(&pal.value[c][q]);
    }
}

const ScanPalette& palette_of(const Segment& seg, const IntEndpts& endpts, ChannelScan& scan) {
    ScanPalette& pal = scan.palette;
    const IntEndpts& was = scan.paletteOf;
    if (!scan.paletteKnown || !fast_index_bits(seg) || endpts.pbitA != was.pbitA || endpts.pbitB != was.pbitB) {
        build_scan_palette(seg, endpts, pal);
    } else {
        for (int c = seg.firstChannel; c < seg.endChannel; ++c)
            if (endpts.A[c] != was.A[c] || endpts.B[c] != was.B[c]) set_carried_channel(seg, endpts, c, pal);
    }
    scan.paletteOf = endpts;
    scan.paletteKnown = true;
    return pal;
}

// Channel ch of the palette after endpoint values a and b of that channel.
void update_channel(const Segment& seg, const IntEndpts& endpts, int ch, int a, int b, ScanPalette& pal) {
    if (!fast_index_bits(seg)) {
        IntEndpts e = endpts;
        e.A[ch] = a;
        e.B[ch] = b;
        build_scan_palette(seg, e, pal);
        return;
    }
    set_channel(seg, ch, decode_value(seg, a, endpts.pbitA, ch), decode_value(seg, b, endpts.pbitB, ch), pal);
}

// map_colors of a channel-major palette: the plain scan whenever the error
// measure is plain squared error, the general scan otherwise.
float scan_palette(const Segment& seg, const ScanPalette& pal, float beat, int indices[kTexels]) {
    const bool plain = !flag_luma_weights && !flag_alt_luma_weights && !(seg.alphaWithColour && flag_premult);
    if (plain && pal.entries % 4 == 0) return scan_plain<true>(seg, pal, beat, indices);
    float palette[16][4];
    for (int i = 0; i < pal.entries; ++i)
        for (int c = 0; c < 4; ++c) palette[i][c] = pal.value[c][i];
    return map_colors_generic(seg, palette, beat, indices);
}

float scan_error(const Segment& seg, const ScanPalette& pal) {
    const bool plain = !flag_luma_weights && !flag_alt_luma_weights && !(seg.alphaWithColour && flag_premult);
    if (plain && pal.entries % 4 == 0) return scan_plain<false>(seg, pal, FLT_MAX, nullptr);
    int indices[kTexels];
    return scan_palette(seg, pal, FLT_MAX, indices);
}

// The terms of every texel and entry, unless the lanes cannot be used
// (another error measure, other index sizes or precisions, unbounded texels).
void prepare_channel_scan(const Segment& seg, const ScanPalette& pal, int ch, ChannelScan& scan) {
    scan.ch = ch;
    if (!scan.segmentKnown) know_segment(seg, scan);
    const int decodedPrec = seg.prec[ch] + (seg.hasPBits ? 1 : 0);
    const bool plain = !flag_luma_weights && !flag_alt_luma_weights && !(seg.alphaWithColour && flag_premult);
    scan.usable = plain && fast_index_bits(seg) && decodedPrec >= 4 && decodedPrec <= 8 && scan.boundedTexels;
    if (!scan.usable) return;
    scan.whole = scan.wholeTexels;
    if (scan.whole) {
        prepare_whole(pal, ch, scan);
        return;
    }

    // The terms in pixel_error's order of addition, and whether each is 0 throughout.
    const int allTerms = ch < 2 ? 3 : ch == 2 ? 2 : 1;
    int nonZero[3] = {};
    // Four entries at a time; each entry's terms are then spread over the lanes.
    for (int n = 0; n < scan.scanned; ++n) {
        const int k = scan.texel[n];
        for (int q = 0; q < pal.entries; q += 4) {
            Vec4f sq[4];
            for (int c = 0; c < 4; ++c) {
                const Vec4f d = Vec4f(seg.pixel[k][c]) - Vec4f::load(&pal.value[c][q]);
                sq[c] = d * d;
            }
            Vec4f t[3];
            switch (ch) {
            case 0: t[0] = sq[1], t[1] = sq[2], t[2] = sq[3]; break;
            case 1: t[0] = sq[0], t[1] = sq[2], t[2] = sq[3]; break;
            case 2: t[0] = sq[0] + sq[1], t[1] = sq[3]; break;
            default: t[0] = sq[0] + sq[1] + sq[2]; break;
            }
            for (int i = 0; i < allTerms; ++i) {
                nonZero[i] |= glyptora_simd::moveMask(glyptora_simd::cmpGreater(t[i], Vec4f(0.0f)));
                t[i].splat<0>().store(scan.term[k][q][i]);
                t[i].splat<1>().store(scan.term[k][q + 1][i]);
                t[i].splat<2>().store(scan.term[k][q + 2][i]);
                t[i].splat<3>().store(scan.term[k][q + 3][i]);
            }
        }
    }
    // Keep the terms that are not 0 everywhere, in their order.
    scan.terms = 0;
    for (int i = 0; i < allTerms; ++i) {
        if (!nonZero[i]) continue;
        if (scan.terms != i)
            for (int n = 0; n < scan.scanned; ++n)
                for (int j = 0; j < pal.entries; ++j)
                    Vec4f::load(scan.term[scan.texel[n]][j][i]).store(scan.term[scan.texel[n]][j][scan.terms]);
        ++scan.terms;
    }
}

namespace {

// Up to four candidates for the values of channel ch.
struct Candidates {
    int count = 0;
    int a[4] = {}, b[4] = {};  // stored values of channel ch of endpoints A and B
    void add(int va, int vb) { a[count] = va, b[count] = vb, ++count; }
};

// Scores the candidates against `pal` (built from `endpts`; its channel ch is
// replaced by each candidate's): err[l] is map_colors' error of candidate l
// when that is at most beat[l], FLT_MAX otherwise. `scan` was prepared from
// `pal` for the channel and is not whole-number.
//
// Scoring candidates side by side gives the decisions of scoring them one
// after the other: a candidate counts only when its error is below the best
// so far, and a scan abandoned beyond a larger beat is abandoned beyond a
// smaller one too (partial sums of non-negative errors never decrease).
// So each lane gets map_colors' error when it is at most beat[l], FLT_MAX
// otherwise.
//
// The lanes need the walk's error, not its entry. With every error in
// [0, FLT_MAX) (ChannelScan::usable), the walk goes on while errors do not
// grow, its running best being the last error seen; a best of 0 can only be
// followed by 0 or a larger error, so that stop changes nothing. Otherwise
// the candidates take the plain scans one by one.
void score_candidates(const Segment& seg, const IntEndpts& endpts, const ScanPalette& pal, const ChannelScan& scan,
                      const Candidates& cand, const float beat[4], float err[4]) {
    const int ch = scan.ch;
    if (!scan.usable) {
        int temp[kTexels];
        for (int l = 0; l < cand.count; ++l) {
            ScanPalette one = pal;
            update_channel(seg, endpts, ch, cand.a[l], cand.b[l], one);
            err[l] = scan_palette(seg, one, beat[l], temp);
        }
        return;
    }
    // Channel ch of each lane (unused lanes repeat lane 0): Utils::lerp's
    // integer interpolation of the decoded values, lane by lane.
    using glyptora_simd::Vec4i;
    const int set = seg.indexBits - 2;
    // decode_value by the table (the precision was checked by prepare_channel_scan).
    const int shift = seg.hasPBits ? 1 : 0;
    const uint8_t* decode = kUnquant.value[seg.prec[ch] + shift];
    const int pbitA = shift ? endpts.pbitA : 0, pbitB = shift ? endpts.pbitB : 0;
    const auto decodedA = [&](int l) { return int(decode[(cand.a[l < cand.count ? l : 0] << shift) | pbitA]); };
    const auto decodedB = [&](int l) { return int(decode[(cand.b[l < cand.count ? l : 0] << shift) | pbitB]); };
    const auto beatOf = [&](int l) { return beat[l < cand.count ? l : 0]; };
    // Built in registers: lanes written one by one through memory would stall the vector loads.
    const Vec4i a(decodedA(0), decodedA(1), decodedA(2), decodedA(3));
    const Vec4i b(decodedB(0), decodedB(1), decodedB(2), decodedB(3));
    const Vec4i half(32);
    alignas(16) float value[16][4];
    for (int j = 0; j < pal.entries; ++j)
        glyptora_simd::toFloat((Vec4i(kLerp.a[set][j]) * a + Vec4i(kLerp.b[set][j]) * b + half) >> 6).store(value[j]);

    const Vec4f beats(beatOf(0), beatOf(1), beatOf(2), beatOf(3));
    const Vec4f toterr = sum_lanes_for(scan, seg.indexBits)(seg, scan, value, beats);
    alignas(16) float sums[4];
    toterr.store(sums);
    for (int l = 0; l < cand.count; ++l) err[l] = sums[l] > beat[l] ? FLT_MAX : sums[l];
}

}  // namespace

// The whole-number form bounds eight candidates at a time (places beyond
// `end` get a beat of 0, which every bound reaches at once); lower[l] is 0
// where the bound stays below beat[l] and FLT_MAX where it does not (the
// error is then at least beat[l]). Otherwise the candidates are scored four
// at a time.
void evaluate_candidates(const Segment& seg, const IntEndpts& endpts, const ChannelScan& scan, CandidateBatch& batch,
                         int begin, int end) {
    batch.exact = !bounds_cheap(scan);
    batch.live = 0;
    if (batch.exact) {
        ScanPalette pal;
        build_scan_palette(seg, endpts, pal);
        for (int g = begin; g < end; g += 4) {
            Candidates cand;
            for (int l = g; l < end && l < g + 4; ++l) cand.add(batch.a[l], batch.b[l]);
            score_candidates(seg, endpts, pal, scan, cand, &batch.beat[g], &batch.lower[g]);
        }
        for (int l = begin; l < end; ++l)
            if (batch.lower[l] < batch.beat[l]) batch.live |= uint64_t(1) << l;
        return;
    }
    const ChannelDecode decode(seg, endpts, scan.ch);
    const Vec4f zero(0.0f), ruledOut(FLT_MAX);
    // Places of a group beyond `end` are decoded too (the batch was closed).
    for (int g = begin; g < end; g += 8) {
        alignas(16) int a[8], b[8];
        for (int h = 0; h < 8; h += 4) {
            decode.a4(glyptora_simd::Vec4i::load(&batch.a[g + h])).store(a + h);
            decode.b4(glyptora_simd::Vec4i::load(&batch.b[g + h])).store(b + h);
        }
        const int filled = (1 << (end - g < 8 ? end - g : 8)) - 1;
        alignas(16) float beats[8];
        lanes::keep(lanes::laneMask(filled), Vec4f::load(&batch.beat[g])).store(beats);
        lanes::keep(lanes::laneMask(filled >> 4), Vec4f::load(&batch.beat[g + 4])).store(beats + 4);
        const int live = bound_whole_lanes(scan, seg.indexBits, a, b, beats);
        batch.live |= uint64_t(live) << g;
        glyptora_simd::select(lanes::laneMask(live), zero, ruledOut).store(&batch.lower[g]);
        glyptora_simd::select(lanes::laneMask(live >> 4), zero, ruledOut).store(&batch.lower[g + 4]);
    }
}

float resolve_candidate(const Segment& seg, const IntEndpts& endpts, const ChannelScan& scan,
                        const CandidateBatch& batch, int l, float beat) {
    if (batch.exact) return batch.lower[l] > beat ? FLT_MAX : batch.lower[l];
    const ChannelDecode decode(seg, endpts, scan.ch);
    const int set = seg.indexBits - 2;
    const Vec4f a(float(decode.a(batch.a[l]))), b(float(decode.b(batch.b[l])));
    alignas(16) float v[16];
    for (int q = 0; q < (4 << set); q += 4) lerp4(set, q, a, b).store(v + q);
    return scan_whole(scan, seg.indexBits, v, beat);
}

}  // namespace BC7Modes
