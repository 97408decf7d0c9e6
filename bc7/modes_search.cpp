#include "bc7/modes_search.h"

#include <cfloat>
#include <cmath>
#include <cstdint>

#include "bc7/modes_assert.h"
#include "bc7/modes_palette.h"
#include "bc7/modes_scan.h"
#include "bc7/modes_whole.h"
#include "bc7/utils.h"
#include "core/vec4.h"

namespace BC7Modes {

namespace {

constexpr int kTexels = Tile::TILE_TOTAL;

// One logarithmic search of perturb_one: which endpoint it moves, the
// endpoints (updated) and the best error.
struct Perturbation {
    int which;
    IntEndpts* endpts;
    float best;
};

// Runs one or two searches on channel ch side by side (the searches are
// independent; each keeps its own order). Each round hands over the
// candidates of the next step of each search, or, where candidates are
// cheap to rule out, of every remaining step from the search's current
// value: a search that moves drops the rest of its round (tried again from
// the new value next round), and no decision changes, as a candidate ruled
// out against an earlier best is ruled out against a smaller one.
// `scan` is prepared here unless `prepared`: it depends on the channels other
// than ch only, which the searches leave alone.
void perturb(const Segment& seg, int ch, Perturbation runs[], int count, ChannelScan& scan, bool prepared) {
    const int prec = seg.prec[ch];
    const int top = (1 << prec) - 1;
    if (!prepared) prepare_channel_scan(seg, palette_of(seg, *runs[0].endpts, scan), ch, scan);
    bool hopeless = true;  // no candidate of any search can beat its best
    for (int r = 0; r < count; ++r) hopeless = hopeless && channel_cannot_beat(scan, runs[r].best);
    if (hopeless) return;
    const bool ahead = bounds_cheap(scan);
    int next[2] = {prec - 1, count > 1 ? prec - 1 : -1};  // each search's next step is 1 << next (done below 0)
    while (next[0] >= 0 || next[1] >= 0) {
        // value - step, then value + step (within the range) of each step of
        // the round; a value outside the range is written but not counted.
        CandidateBatch batch;
        int first[3], last[2];
        uint8_t stepOf[CandidateBatch::kMax];
        for (int r = 0; r < count; ++r) {
            const IntEndpts& e = *runs[r].endpts;
            const int start = runs[r].which ? e.B[ch] : e.A[ch];
            first[r] = batch.count;
            last[r] = ahead || next[r] < 0 ? 0 : next[r];
            for (int x = next[r]; x >= last[r]; --x)
                for (int sign = -1; sign <= 1; sign += 2) {
                    const int candidate = start + sign * (1 << x), l = batch.count;
                    stepOf[l] = uint8_t(x);
                    batch.a[l] = runs[r].which ? e.A[ch] : candidate;
                    batch.b[l] = runs[r].which ? candidate : e.B[ch];
                    batch.beat[l] = runs[r].best;
                    batch.count += candidate >= 0 && candidate <= top;
                }
        }
        first[count] = batch.count;
        batch.close();
        if (batch.count > 0) evaluate_candidates(seg, *runs[0].endpts, scan, batch, 0, batch.count);
        for (int r = 0; r < count; ++r) {
            if (next[r] < 0) continue;
            const int end = first[r + 1];
            next[r] = last[r] - 1;
            // Steps without a live candidate keep the value; the first step that moves it ends the round.
            uint64_t live = batch.live >> first[r] << first[r];
            while (live && __builtin_ctzll(live) < end) {
                const int x = stepOf[__builtin_ctzll(live)];
                int taken = -1;
                for (int l = __builtin_ctzll(live); l < end && stepOf[l] == x; ++l) {
                    live &= ~(uint64_t(1) << l);
                    if (!(batch.live >> l & 1) || !(batch.lower[l] < runs[r].best)) continue;
                    const float err = resolve_candidate(seg, *runs[0].endpts, scan, batch, l, runs[r].best);
                    if (err < runs[r].best) runs[r].best = err, taken = l;
                }
                if (taken < 0) continue;
                IntEndpts& e = *runs[r].endpts;
                (runs[r].which ? e.B[ch] : e.A[ch]) = runs[r].which ? batch.b[taken] : batch.a[taken];
                next[r] = x - 1;
                break;
            }
        }
    }
}

// Logarithmic search on channel ch of endpoint A (which == 0) or B (which == 1):
// steps of 1 << (prec - 1) down to 1, trying value - step, then value + step,
// each scored against the best error so far; after both, the endpoint moves by
// the better successful step, if any. Returns the best error (`beat` when
// nothing beat it). `scan` as for perturb.
float perturb_one(const Segment& seg, int ch, int which, float beat, IntEndpts& endpts, ChannelScan& scan,
                  bool prepared) {
    Perturbation run{which, &endpts, beat};
    perturb(seg, ch, &run, 1, scan, prepared);
    return run.best;
}

// Tries every pair within 3 steps of the current values of channel ch, never
// reversing the order of A and B; the upper bound of B is exclusive, that of A
// inclusive. Keeps the best pair when it beats `err` strictly. `scan` serves
// the segment (it is prepared here).
void exhaustive_search(const Segment& seg, int ch, IntEndpts& endpts, float& err, ChannelScan& scan) {
    if (err == 0.0f) return;
    const int a0 = endpts.A[ch], b0 = endpts.B[ch];
    const int topA = (1 << seg.prec[ch]) - 1, topB = (1 << seg.prec[ch]) - 1;
    const int amin = a0 - 3 > 0 ? a0 - 3 : 0;
    const int amax = a0 + 3 < topA ? a0 + 3 : topA;
    const int bmin = b0 - 3 > 0 ? b0 - 3 : 0;
    const int bmax = b0 + 3 < topB ? b0 + 3 : topB;

    float best = err;
    int bestA = a0, bestB = b0;
    prepare_channel_scan(seg, palette_of(seg, endpts, scan), ch, scan);
    if (channel_cannot_beat(scan, best)) return;
    // The search runs row by row: one value of the outer endpoint, a run of
    // values of the inner one. Where candidates are cheap to rule out, rows
    // whose every candidate is ruled out at once are left out.
    const bool aOuter = a0 <= b0;
    const int outerFirst = aOuter ? amin : bmin, outerEnd = aOuter ? amax + 1 : bmax;
    const int rows = outerEnd - outerFirst;
    int innerFrom[7], innerCount[7];
    for (int r = 0; r < rows; ++r) {
        const int outer = outerFirst + r;
        innerFrom[r] = aOuter ? (outer > bmin ? outer : bmin) : (outer > amin ? outer : amin);
        const int innerEnd = aOuter ? bmax : amax + 1;
        innerCount[r] = innerEnd > innerFrom[r] ? innerEnd - innerFrom[r] : 0;
    }
    int keptRows = (1 << rows) - 1;
    if (bounds_cheap(scan) && rows > 0) {
        const palette_detail::ChannelDecode decode(seg, endpts, ch);
        alignas(16) int lowA[8] = {}, highA[8] = {}, lowB[8] = {}, highB[8] = {};
        alignas(16) float beats[8] = {};
        for (int r = 0; r < rows; ++r) {
            if (innerCount[r] == 0) continue;
            const int outer = outerFirst + r, last = innerFrom[r] + innerCount[r] - 1;
            lowA[r] = decode.a(aOuter ? outer : innerFrom[r]);
            highA[r] = decode.a(aOuter ? outer : last);
            lowB[r] = decode.b(aOuter ? innerFrom[r] : outer);
            highB[r] = decode.b(aOuter ? last : outer);
            beats[r] = best;
        }
        keptRows = bound_whole_ranges(scan, seg.indexBits, lowA, highA, lowB, highB, beats);
    }
    // Every pair in the order of the search (a row writes up to 7 values
    // ahead and counts those within the bounds).
    CandidateBatch batch;
    for (int r = 0; r < rows; ++r) {
        if (!(keptRows >> r & 1)) continue;
        const int outer = outerFirst + r;
        for (int k = 0; k < 7; ++k) {
            batch.a[batch.count + k] = aOuter ? outer : innerFrom[r] + k;
            batch.b[batch.count + k] = aOuter ? innerFrom[r] + k : outer;
        }
        batch.count += innerCount[r];
    }
    batch.close();
    // Scored all at once where candidates are cheap to rule out, four at a
    // time otherwise, each against the best before it; taken in order.
    const int chunk = bounds_cheap(scan) ? CandidateBatch::kMax : 4;
    for (int begin = 0; begin < batch.count; begin += chunk) {
        const int end = begin + chunk < batch.count ? begin + chunk : batch.count;
        for (int l = begin; l < end; ++l) batch.beat[l] = best;
        evaluate_candidates(seg, endpts, scan, batch, begin, end);
        for (uint64_t live = batch.live; live; live &= live - 1) {
            const int l = __builtin_ctzll(live);
            if (!(batch.lower[l] < best)) continue;
            const float e = resolve_candidate(seg, endpts, scan, batch, l, best);
            if (e < best) best = e, bestA = batch.a[l], bestB = batch.b[l];
        }
    }
    if (best < err) {
        endpts.A[ch] = bestA;
        endpts.B[ch] = bestB;
        err = best;
    }
}

}  // namespace

void make_segment(const Tile& tile, uint16_t mask, Segment& seg) {
    int count = 0;
    for (unsigned bits = mask; bits; bits &= bits - 1, ++count) {
        const int i = __builtin_ctz(bits);
        seg.texel[count] = i;
        glyptora_simd::Vec4f::load(tile.data[i]).store(seg.pixel[count]);
        seg.weight[count] = tile.importance_map[i];
    }
    seg.count = count;
    seg.wholeTexels = tile.whole;
}

int decode_endpoint(const Segment& seg, const IntEndpts& endpts, int which, int ch) {
    int value = which ? endpts.B[ch] : endpts.A[ch];
    int prec = seg.prec[ch];
    if (seg.hasPBits) {
        value = (value << 1) | (which ? endpts.pbitB : endpts.pbitA);
        ++prec;
    }
    return Utils::unquantize(value, prec);
}

void build_palette(const Segment& seg, const IntEndpts& endpts, float palette[16][4]) {
    const int denom = (1 << seg.indexBits) - 1;
    int a[4] = {}, b[4] = {};
    for (int c = seg.firstChannel; c < seg.endChannel; ++c) {
        a[c] = decode_endpoint(seg, endpts, 0, c);
        b[c] = decode_endpoint(seg, endpts, 1, c);
    }
    for (int i = 0; i <= denom; ++i)
        for (int c = 0; c < 4; ++c)
            palette[i][c] = c >= seg.firstChannel && c < seg.endChannel ? float(Utils::lerp(a[c], b[c], i, 1, denom))
                                                                        : seg.fixed[c];
}

void build_palette(const Segment& seg, const FltEndpts& endpts, float palette[16][4]) {
    const int denom = (1 << seg.indexBits) - 1;
    float a[4], b[4];
    for (int c = 0; c < 4; ++c) {
        const bool carried = c >= seg.firstChannel && c < seg.endChannel;
        a[c] = carried ? endpts.A[c] : seg.fixed[c];
        b[c] = carried ? endpts.B[c] : seg.fixed[c];
    }
    Utils::lerp_palette(palette, a, b, denom);
}

float map_colors(const Segment& seg, const float palette[16][4], float beat, int indices[kTexels]) {
    ScanPalette pal;
    to_scan_palette(seg, palette, pal);
    return scan_palette(seg, pal, beat, indices);
}

float map_colors(const Segment& seg, const IntEndpts& endpts, float beat, int indices[kTexels]) {
    ScanPalette pal;
    build_scan_palette(seg, endpts, pal);
    return scan_palette(seg, pal, beat, indices);
}

void assign_indices(const Segment segs[], const IntEndpts endpts[], int count, int indices[kTexels],
                    float errors[]) {
    for (int s = 0; s < count; ++s) errors[s] = map_colors(segs[s], endpts[s], FLT_MAX, indices);
}

float error_lower_bound(const Segment& seg) {
    if (!seg.wholeTexels) return 0.0f;
    int n = 0, sum[3] = {}, product[6] = {};
    for (int k = 0; k < seg.count; ++k) {
        if (seg.weight[k] == 0.0f) continue;
        if (seg.weight[k] != 1.0f) return 0.0f;
        const int r = int(seg.pixel[k][0]), g = int(seg.pixel[k][1]), b = int(seg.pixel[k][2]);
        ++n;
        sum[0] += r, sum[1] += g, sum[2] += b;
        product[0] += r * r, product[1] += g * g, product[2] += b * b;
        product[3] += r * g, product[4] += r * b, product[5] += g * b;
    }
    return error_lower_bound(n, sum, product);
}

float error_lower_bound(int n, const int sum[3], const int product[6]) {
    if (n < 3) return 0.0f;
    // N times the scatter matrix: N^2 times the covariances, whole numbers
    // of at most 16^2 * 255^2 / 4 < 2^22 each, so that their squares and the
    // sum of those are exact in double.
    const auto scatter = [&](int at, int c, int d) { return double(n * product[at] - sum[c] * sum[d]); };
    const double rr = scatter(0, 0, 0), gg = scatter(1, 1, 1), bb = scatter(2, 2, 2);
    const double rg = scatter(3, 0, 1), rb = scatter(4, 0, 2), gb = scatter(5, 1, 2);
    const double squares = rr * rr + gg * gg + bb * bb + 2.0 * (rg * rg + rb * rb + gb * gb);
    // N R, and nothing to bound unless R > 3 N / 4.
    const double scaled = rr + gg + bb - std::sqrt(squares);
    if (!(scaled > 0.75 * double(n) * double(n))) return 0.0f;
    const double spread = std::sqrt(scaled / double(n)) - 0.5 * std::sqrt(3.0 * double(n));
    if (spread <= 0.0) return 0.0f;
    return float(std::ceil(spread * spread - 0.5));
}

bool cannot_beat(const float opt_err[], const float lower[], const bool done[], int count, float orig_total,
                 float beat) {
    if (!(beat < FLT_MAX) || orig_total < beat) return false;
    float bound = 0.0f;
    for (int r = 0; r < count; ++r) bound += done[r] ? opt_err[r] : lower[r];
    return bound >= beat;
}

void largest_first(const float errors[], int count, int order[]) {
    for (int r = 0; r < count; ++r) {
        int at = r;
        for (; at > 0 && errors[order[at - 1]] < errors[r]; --at) order[at] = order[at - 1];
        order[at] = r;
    }
}

float optimize_one(const Segment& seg, float orig_err, IntEndpts& endpts) {
    float opt_err = orig_err;
    ChannelScan scan;
    for (int ch = seg.firstChannel; ch < seg.endChannel; ++ch) {
        // Perturb each endpoint on its own and take the better, if it improves at all.
        IntEndpts newA = endpts, newB = endpts;
        // The two searches are independent: they run side by side.
        Perturbation runs[2] = {{0, &newA, opt_err}, {1, &newB, opt_err}};
        perturb(seg, ch, runs, 2, scan, false);
        const float errA = runs[0].best, errB = runs[1].best;
        int do_b;
        if (errA < errB) {
            if (!(errA < opt_err)) continue;
            endpts = newA;
            opt_err = errA;
            do_b = 1;
        } else {
            if (!(errB < opt_err)) continue;
            endpts = newB;
            opt_err = errB;
            do_b = 0;
        }
        const IntEndpts first = endpts;

        // Then alternate between the endpoints while each step improves.
        bool alternated = false;
        for (;;) {
            IntEndpts candidate = endpts;
            // Only channel ch has changed since `scan` was prepared.
            const float err = perturb_one(seg, ch, do_b, opt_err, candidate, scan, true);
            if (!(err < opt_err)) break;
            endpts = candidate;
            opt_err = err;
            alternated = true;
            do_b = 1 - do_b;
        }
        if (!alternated) continue;  // the indices are those of the first acceptance

        // Texels changed their indices on the way: the earlier channels may do
        // better now. The indices of an accepted set are those of a full scan
        // (its scan was not abandoned).
        int orig_indices[kTexels], new_indices[kTexels];
        map_colors(seg, first, FLT_MAX, orig_indices);
        map_colors(seg, endpts, FLT_MAX, new_indices);
        bool moved = false;
        for (int k = 0; k < seg.count; ++k) {
            const int i = seg.texel[k];
            BC7_MODE_ASSERT(seg.mode, orig_indices[i] != -1);
            BC7_MODE_ASSERT(seg.mode, new_indices[i] != -1);
            moved = moved || orig_indices[i] != new_indices[i];
        }
        if (moved) ch = seg.firstChannel - 1;
    }

    for (int ch = seg.firstChannel; ch < seg.endChannel; ++ch) exhaustive_search(seg, ch, endpts, opt_err, scan);
    return opt_err;
}

}  // namespace BC7Modes
