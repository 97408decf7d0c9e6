#include "bc7/modes_whole.h"

#include <algorithm>
#include <cfloat>

#include "bc7/bc7_simd.h"
#include "bc7/modes_palette.h"
#include "core/vec4.h"

namespace BC7Modes {

namespace {

using glyptora_simd::Vec4f;
using namespace palette_detail;

// The channels other than ch.
constexpr int kOthers[4][3] = {{1, 2, 3}, {0, 2, 3}, {0, 1, 3}, {0, 1, 2}};

// Whether palette column c differs from `key` (a bit per group of four entries).
int column_differs(const ScanPalette& pal, int c, const float key[16]) {
    int differs = 0;
    for (int q = 0; q < pal.entries; q += 4)
        differs |= glyptora_simd::moveMask(
                       glyptora_simd::cmpEqual(Vec4f::load(&pal.value[c][q]), Vec4f::load(&key[q]))) ^ 0xF;
    return differs;
}

// Lanes of eight candidates (as a bit mask) whose lower bound stays below
// their beat; a and b hold the decoded values of channel ch. A texel's error
// is that of some entry, so at least the least error over the entries. With
// more than four entries only J - 1, J and J + 1 are looked at: elsewhere the
// error is at least the distance in the other channels alone, the least of
// which is `rest`. The bounds are whole numbers like the errors, and in
// 16-bit lanes that stop at 65535 they only get smaller, so every beat must
// be at most 65535 (a beat that is not a whole number is rounded up: an error
// at least that is at least the beat).
//
// With `Ranges` each lane stands for every candidate whose decoded values lie
// in a..aHigh and b..bHigh: the entries, which never fall as a or b grows, lie
// between those of the two corners, and each texel's distance is taken to
// that span.
template <int Entries, bool Ranges>
int bound_whole16(const ChannelScan::WholeForm& form, int scanned, const int a[8], const int b[8], const int aHigh[8],
                  const int bHigh[8], const float beat[8]) {
    using glyptora_bc7::lanes::U16x8;
    using glyptora_simd::Vec4i;
    constexpr int set = Entries == 4 ? 0 : Entries == 8 ? 1 : 2;
    // Channel ch of every entry (Utils::lerp's integer interpolation; every step fits in 16 bits).
    const auto entries = [&](const int* x, const int* y, U16x8 out[Entries]) {
        const U16x8 va = U16x8::pack(Vec4i::load(x), Vec4i::load(x + 4));
        const U16x8 vb = U16x8::pack(Vec4i::load(y), Vec4i::load(y + 4));
        for (int j = 0; j < Entries; ++j)
            out[j] = (U16x8(kLerp.a[set][j]) * va + U16x8(kLerp.b[set][j]) * vb + U16x8(32)) >> 6;
    };
    U16x8 value[Entries], high[Entries];
    entries(a, b, value);
    if (Ranges) entries(aHigh, bHigh, high);
    const auto roundedUp = [&](int at) {
        return glyptora_simd::truncateToInt(-glyptora_simd::floor(-Vec4f::load(beat + at)));
    };
    const U16x8 beats = U16x8::pack(roundedUp(0), roundedUp(4));
    U16x8 bound;
    for (int n = 0; n < scanned; ++n) {
        const U16x8 p = U16x8::load(form.value16[n]);
        // (p - v)^2 wraps around, but it is below 65536.
        const auto term = [&](int slot, int j) {
            const U16x8 d = Ranges ? max(subSaturate(value[j], p), subSaturate(p, high[j])) : p - value[j];
            return addSaturate(U16x8::load(form.near[n][slot]), d * d);
        };
        U16x8 least;
        if (Entries == 4)
            least = min(min(term(0, 0), term(1, 1)), min(term(2, 2), term(3, 3)));
        else
            least = min(min(term(0, form.below[n]), term(1, form.nearest[n])),
                        min(term(2, form.above[n]), U16x8::load(form.near[n][3])));
        bound = addSaturate(bound, least);
        // Looked at every other texel (a sum that reached its beat stays there).
        if ((n & 1) && lessMask(bound, beats) == 0) return 0;
    }
    return lessMask(bound, beats);
}

// bound_whole16 in float lanes, for beats above 65535.
template <int Entries>
int bound_whole(const ChannelScan::WholeForm& form, int scanned, const int a[8], const int b[8], const float beat[8]) {
    using glyptora_simd::cmpLess;
    using glyptora_simd::min;
    using glyptora_simd::moveMask;
    constexpr int set = Entries == 4 ? 0 : Entries == 8 ? 1 : 2;
    int live = 0;
    for (int h = 0; h < 2; ++h) {
        const Vec4f va = glyptora_simd::toFloat(glyptora_simd::Vec4i::load(a + 4 * h));
        const Vec4f vb = glyptora_simd::toFloat(glyptora_simd::Vec4i::load(b + 4 * h));
        Vec4f value[Entries];
        for (int j = 0; j < Entries; ++j) value[j] = lerp4lanes(set, j, va, vb);
        const Vec4f beats = Vec4f::load(beat + 4 * h);
        Vec4f bound(0.0f);
        for (int n = 0; n < scanned && moveMask(cmpLess(bound, beats)) != 0; ++n) {
            const Vec4f p = Vec4f::load(form.value[n]);
            const auto term = [&](int j) {
                const Vec4f d = p - value[j];
                return Vec4f(form.other[n][j]) + d * d;
            };
            Vec4f least;
            if (Entries == 4) {
                least = min(min(term(0), term(1)), min(term(2), term(3)));
            } else {
                const int j = form.nearest[n];
                least = min(term(j), Vec4f(form.rest[n]));
                if (j > 0) least = min(least, term(j - 1));
                if (j + 1 < Entries) least = min(least, term(j + 1));
            }
            bound = bound + least;
        }
        live |= moveMask(cmpLess(bound, beats)) << 4 * h;
    }
    return live;
}

// One candidate's error on the whole-number form, its entries four to a
// vector: the walk of map_colors (with every error finite it stops at the
// first error above the one before it, its best being the error before
// that; a best of 0 can only be followed by errors of 0 or more), abandoned
// with FLT_MAX once the sum exceeds `beat`.
template <int Entries>
float scan_one_whole(const ChannelScan::WholeForm& form, int scanned, const float v[16], float beat) {
    float toterr = 0.0f;
    for (int n = 0; n < scanned; ++n) {
        const Vec4f p = Vec4f::load(form.value[n]);
        // Every entry's error, and where each is above the one before it
        // (entry 0 never is); bit Entries stands for the end of the palette.
        alignas(16) float err[Entries];
        int rising = 1 << Entries;
        float before = ChannelScan::kOutside;
        for (int q = 0; q < Entries; q += 4) {
            const Vec4f d = p - Vec4f::load(v + q);
            const Vec4f e = Vec4f::load(&form.other[n][q]) + d * d;
            e.store(err + q);
            rising |= glyptora_simd::moveMask(glyptora_simd::cmpGreater(e, glyptora_simd::shiftUp(e, before))) << q;
            before = err[q + 3];
        }
        toterr += err[__builtin_ctz(unsigned(rising)) - 1];
        if (toterr > beat) return FLT_MAX;
    }
    return toterr;
}

// bound_whole16 of single candidates.
template <int Entries>
int bound_whole16_points(const ChannelScan::WholeForm& form, int scanned, const int a[8], const int b[8],
                         const float beat[8]) {
    return bound_whole16<Entries, false>(form, scanned, a, b, a, b, beat);
}

using BoundWhole = int (*)(const ChannelScan::WholeForm&, int, const int[8], const int[8], const float[8]);
using BoundWholeRanges = int (*)(const ChannelScan::WholeForm&, int, const int[8], const int[8], const int[8],
                                 const int[8], const float[8]);
constexpr BoundWhole kBoundWhole16[3] = {bound_whole16_points<4>, bound_whole16_points<8>, bound_whole16_points<16>};
constexpr BoundWholeRanges kBoundWholeRanges[3] = {bound_whole16<4, true>, bound_whole16<8, true>,
                                                   bound_whole16<16, true>};
constexpr BoundWhole kBoundWhole[3] = {bound_whole<4>, bound_whole<8>, bound_whole<16>};
using ScanOneWhole = float (*)(const ChannelScan::WholeForm&, int, const float[16], float);
constexpr ScanOneWhole kScanOneWhole[3] = {scan_one_whole<4>, scan_one_whole<8>, scan_one_whole<16>};

}  // namespace

void prepare_whole(const ScanPalette& pal, int ch, ChannelScan& scan) {
    using glyptora_bc7::lanes::U16x8;
    using glyptora_simd::cmpEqual;
    using glyptora_simd::moveMask;
    ChannelScan::WholeForm& form = scan.form[ch];
    const int* others = kOthers[ch];
    const int entries = pal.entries, groups = entries / 4;
    if (form.known) {  // still right while the other channels' palette values are those it was made from
        int differs = 0;
        for (int i = 0; i < 3; ++i) differs |= column_differs(pal, others[i], form.key[others[i]]);
        if (!differs) return;
    }
    // Each other channel's squared differences, unless its palette values are those of last time.
    for (int i = 0; i < 3; ++i) {
        const int c = others[i];
        if (scan.squareKnown[c] && !column_differs(pal, c, scan.squareOf[c])) continue;
        for (int q = 0; q < entries; q += 4) Vec4f::load(&pal.value[c][q]).store(&scan.squareOf[c][q]);
        for (int n = 0; n < scan.scanned; ++n) {
            const Vec4f pixel = Vec4f::load(scan.form[c].value[n]);
            for (int q = 0; q < entries; q += 4) {
                const Vec4f d = pixel - Vec4f::load(&pal.value[c][q]);
                (d * d).store(&scan.square[c][n][q]);
            }
        }
        scan.squareKnown[c] = true;
    }
    for (int i = 0; i < 3; ++i)
        for (int q = 0; q < entries; q += 4) Vec4f::load(&pal.value[others[i]][q]).store(&form.key[others[i]][q]);
    form.known = true;
    form.floor = 0.0f;
    const auto clamped = [](float v) { return U16x8(int(std::min(v, 65535.0f))); };
    const Vec4f outside(ChannelScan::kOutside);
    for (int n = 0; n < scan.scanned; ++n) {
        Vec4f sum[4];
        Vec4f least = outside;
        for (int g = 0; g < groups; ++g) {
            const int q = 4 * g;
            const Vec4f e = Vec4f::load(&scan.square[others[0]][n][q]) + Vec4f::load(&scan.square[others[1]][n][q]) +
                            Vec4f::load(&scan.square[others[2]][n][q]);
            e.store(&form.other[n][q]);
            sum[g] = e;
            least = glyptora_simd::min(least, e);
        }
        const float* other = form.other[n];
        const float smallestOther = glyptora_bc7::lanes::hmin(least);
        form.floor += smallestOther;
        if (entries == 4) {
            const glyptora_simd::Vec4i whole = glyptora_simd::truncateToInt(sum[0]);  // below 2^18
            const U16x8 packed = U16x8::pack(whole, whole);
            packed.broadcast<0>().store(form.near[n][0]);
            packed.broadcast<1>().store(form.near[n][1]);
            packed.broadcast<2>().store(form.near[n][2]);
            packed.broadcast<3>().store(form.near[n][3]);
            continue;
        }
        const Vec4f smallest(smallestOther);
        int equal = 0;
        for (int g = 0; g < groups; ++g) equal |= moveMask(cmpEqual(sum[g], smallest)) << 4 * g;
        const int nearest = __builtin_ctz(unsigned(equal));
        // The least of the entries outside nearest - 1 .. nearest + 1.
        Vec4f restLeast = outside;
        const Vec4f from(float(nearest - 1)), to(float(nearest + 1));
        for (int g = 0; g < groups; ++g) {
            const Vec4f index(float(4 * g), float(4 * g + 1), float(4 * g + 2), float(4 * g + 3));
            const Vec4f inside = glyptora_bc7::lanes::maskAnd(glyptora_simd::cmpLessEqual(from, index),
                                                               glyptora_simd::cmpLessEqual(index, to));
            restLeast = glyptora_simd::min(restLeast, glyptora_simd::select(inside, outside, sum[g]));
        }
        form.nearest[n] = nearest;
        form.below[n] = nearest > 0 ? nearest - 1 : 0;
        form.above[n] = nearest + 1 < entries ? nearest + 1 : entries - 1;
        form.rest[n] = glyptora_bc7::lanes::hmin(restLeast);
        clamped(nearest > 0 ? other[nearest - 1] : 65535.0f).store(form.near[n][0]);
        clamped(other[nearest]).store(form.near[n][1]);
        clamped(nearest + 1 < entries ? other[nearest + 1] : 65535.0f).store(form.near[n][2]);
        clamped(form.rest[n]).store(form.near[n][3]);
    }
}

void set_whole_values(const Segment& seg, ChannelScan& scan) {
    for (int c = 0; c < 4; ++c)
        for (int n = 0; n < scan.scanned; ++n) {
            const float v = seg.pixel[scan.texel[n]][c];
            Vec4f(v).store(scan.form[c].value[n]);
            glyptora_bc7::lanes::U16x8(int(v)).store(scan.form[c].value16[n]);
        }
}

int bound_whole_ranges(const ChannelScan& scan, int indexBits, const int a[8], const int aHigh[8], const int b[8],
                       const int bHigh[8], const float beat[8]) {
    const float highest = glyptora_bc7::lanes::hmax(glyptora_simd::max(Vec4f::load(beat), Vec4f::load(beat + 4)));
    if (highest > 65535.0f) return 0xFF;  // nothing ruled out
    return kBoundWholeRanges[indexBits - 2](scan.form[scan.ch], scan.scanned, a, b, aHigh, bHigh, beat);
}

int bound_whole_lanes(const ChannelScan& scan, int indexBits, const int a[8], const int b[8], const float beat[8]) {
    const float highest = glyptora_bc7::lanes::hmax(glyptora_simd::max(Vec4f::load(beat), Vec4f::load(beat + 4)));
    const int set = indexBits - 2;
    return (highest <= 65535.0f ? kBoundWhole16[set] : kBoundWhole[set])(scan.form[scan.ch], scan.scanned, a, b, beat);
}

float scan_whole(const ChannelScan& scan, int indexBits, const float v[16], float beat) {
    return kScanOneWhole[indexBits - 2](scan.form[scan.ch], scan.scanned, v, beat);
}

}  // namespace BC7Modes
