#include "bc7/modes_search.h"

#include <cfloat>

#include "bc7/modes_assert.h"
#include "bc7/modes_scan.h"
#include "bc7/utils.h"

namespace BC7Modes {

namespace {

constexpr int kTexels = Tile::TILE_TOTAL;

void copy_indices(const Segment& seg, const int from[kTexels], int to[kTexels]) {
    for (int k = 0; k < seg.count; ++k) to[seg.texel[k]] = from[seg.texel[k]];
}

// One logarithmic search of perturb_one: which endpoint it moves, the
// endpoints (updated), the best error and the indices of its best candidate.
struct Perturbation {
    int which;
    IntEndpts* endpts;
    float best;
    int* indices;
};

// Runs one or two searches on channel ch in step, their candidates scored
// side by side (the searches are independent; each keeps its own order).
// `scan` is prepared here unless `prepared`: it depends on the channels other
// than ch only, which the searches leave alone.
void perturb(const Segment& seg, int ch, Perturbation runs[], int count, ChannelScan& scan, bool prepared) {
    const int prec = seg.prec[ch];
    const int top = (1 << prec) - 1;
    // Only channel ch changes between candidates: build the palette once
    // (the searches differ in channel ch only).
    ScanPalette pal;
    build_scan_palette(seg, *runs[0].endpts, pal);
    if (!prepared) prepare_channel_scan(seg, pal, ch, scan);
    bool moved[2] = {false, false};
    for (int step = 1 << (prec - 1); step >= 1; step >>= 1) {
        // value - step, then value + step of each search.
        Candidates cand;
        int first[2], moves[4];
        float beats[4];
        for (int r = 0; r < count; ++r) {
            const IntEndpts& e = *runs[r].endpts;
            const int start = runs[r].which ? e.B[ch] : e.A[ch];
            first[r] = cand.count;
            for (int sign = -1; sign <= 1; sign += 2) {
                const int candidate = start + sign * step;
                if (candidate < 0 || candidate > top) continue;
                moves[cand.count] = candidate;
                beats[cand.count] = runs[r].best;
                cand.add(runs[r].which ? e.A[ch] : candidate, runs[r].which ? candidate : e.B[ch]);
            }
        }
        if (cand.count == 0) continue;
        float errs[4];
        score_candidates(seg, *runs[0].endpts, pal, scan, cand, beats, errs);
        for (int r = 0; r < count; ++r) {
            const int end = r + 1 < count ? first[r + 1] : cand.count;
            int taken = -1;
            for (int l = first[r]; l < end; ++l)
                if (errs[l] < runs[r].best) runs[r].best = errs[l], taken = l;
            if (taken < 0) continue;
            IntEndpts& e = *runs[r].endpts;
            (runs[r].which ? e.B[ch] : e.A[ch]) = moves[taken];
            moved[r] = true;
        }
    }
    // The indices of each search's last kept candidate (its scan was not
    // abandoned, so a full scan gives the same indices).
    for (int r = 0; r < count; ++r) {
        if (!moved[r]) continue;
        const IntEndpts& e = *runs[r].endpts;
        ScanPalette kept = pal;
        update_channel(seg, e, ch, e.A[ch], e.B[ch], kept);
        int temp[kTexels];
        scan_palette(seg, kept, FLT_MAX, temp);
        copy_indices(seg, temp, runs[r].indices);
    }
}

// Logarithmic search on channel ch of endpoint A (which == 0) or B (which == 1):
// steps of 1 << (prec - 1) down to 1, trying value - step, then value + step,
// each scored against the best error so far; after both, the endpoint moves by
// the better successful step, if any. Returns the best error (`beat` when
// nothing beat it); `indices` receive the indices of the best candidate.
// `scan` as for perturb.
float perturb_one(const Segment& seg, int ch, int which, float beat, IntEndpts& endpts, int indices[kTexels],
                  ChannelScan& scan, bool prepared) {
    Perturbation run{which, &endpts, beat, indices};
    perturb(seg, ch, &run, 1, scan, prepared);
    return run.best;
}

// Tries every pair within 3 steps of the current values of channel ch, never
// reversing the order of A and B; the upper bound of B is exclusive, that of A
// inclusive. Keeps the best pair when it beats `err` strictly.
void exhaustive_search(const Segment& seg, int ch, IntEndpts& endpts, float& err) {
    if (err == 0.0f) return;
    const int a0 = endpts.A[ch], b0 = endpts.B[ch];
    const int topA = (1 << seg.prec[ch]) - 1, topB = (1 << seg.prec[ch]) - 1;
    const int amin = a0 - 3 > 0 ? a0 - 3 : 0;
    const int amax = a0 + 3 < topA ? a0 + 3 : topA;
    const int bmin = b0 - 3 > 0 ? b0 - 3 : 0;
    const int bmax = b0 + 3 < topB ? b0 + 3 : topB;

    float best = err;
    int bestA = a0, bestB = b0;
    ScanPalette pal;
    build_scan_palette(seg, endpts, pal);
    ChannelScan scan;
    prepare_channel_scan(seg, pal, ch, scan);
    // Candidates are scored four at a time, then taken in their order.
    Candidates cand;
    const auto flush = [&]() {
        const float beats[4] = {best, best, best, best};
        float errs[4];
        score_candidates(seg, endpts, pal, scan, cand, beats, errs);
        for (int l = 0; l < cand.count; ++l)
            if (errs[l] < best) best = errs[l], bestA = cand.a[l], bestB = cand.b[l];
        cand.count = 0;
    };
    if (a0 <= b0) {
        for (int a = amin; a <= amax; ++a)
            for (int b = a > bmin ? a : bmin; b < bmax; ++b) {
                cand.add(a, b);
                if (cand.count == 4) flush();
            }
    } else {
        for (int b = bmin; b < bmax; ++b)
            for (int a = b > amin ? b : amin; a <= amax; ++a) {
                cand.add(a, b);
                if (cand.count == 4) flush();
            }
    }
    if (cand.count > 0) flush();
    if (best < err) {
        endpts.A[ch] = bestA;
        endpts.B[ch] = bestB;
        err = best;
    }
}

}  // namespace

void make_segment(const Tile& tile, const bool member[kTexels], Segment& seg) {
    seg.count = 0;
    for (int i = 0; i < kTexels; ++i) {
        if (!member[i]) continue;
        seg.texel[seg.count] = i;
        for (int c = 0; c < 4; ++c) seg.pixel[seg.count][c] = tile.data[i][c];
        seg.weight[seg.count] = tile.importance_map[i];
        ++seg.count;
    }
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
    for (int i = 0; i <= denom; ++i) Utils::lerp(palette[i], a, b, i, denom);
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

float optimize_one(const Segment& seg, float orig_err, IntEndpts& endpts) {
    float opt_err = orig_err;
    int orig_indices[kTexels], new_indices[kTexels], temp_indices[kTexels];
    ChannelScan scan;
    for (int ch = seg.firstChannel; ch < seg.endChannel; ++ch) {
        // Perturb each endpoint on its own and take the better, if it improves at all.
        IntEndpts newA = endpts, newB = endpts;
        int indicesA[kTexels], indicesB[kTexels];
        // The two searches are independent: they run side by side.
        Perturbation runs[2] = {{0, &newA, opt_err, indicesA}, {1, &newB, opt_err, indicesB}};
        perturb(seg, ch, runs, 2, scan, false);
        const float errA = runs[0].best, errB = runs[1].best;
        int do_b;
        if (errA < errB) {
            if (!(errA < opt_err)) continue;
            endpts = newA;
            opt_err = errA;
            copy_indices(seg, indicesA, orig_indices);
            do_b = 1;
        } else {
            if (!(errB < opt_err)) continue;
            endpts = newB;
            opt_err = errB;
            copy_indices(seg, indicesB, orig_indices);
            do_b = 0;
        }
        for (int k = 0; k < seg.count; ++k) {
            const int i = seg.texel[k];
            BC7_MODE_ASSERT(seg.mode, orig_indices[i] != -1);
            new_indices[i] = orig_indices[i];
        }

        // Then alternate between the endpoints while each step improves.
        for (;;) {
            IntEndpts candidate = endpts;
            // Only channel ch has changed since `scan` was prepared.
            const float err = perturb_one(seg, ch, do_b, opt_err, candidate, temp_indices, scan, true);
            if (!(err < opt_err)) break;
            endpts = candidate;
            opt_err = err;
            copy_indices(seg, temp_indices, new_indices);
            for (int k = 0; k < seg.count; ++k) {
                const int i = seg.texel[k];
                BC7_MODE_ASSERT(seg.mode, new_indices[i] != -1);
            }
            do_b = 1 - do_b;
        }

        // Texels changed their indices on the way: the earlier channels may do better now.
        bool moved = false;
        for (int k = 0; k < seg.count; ++k) moved = moved || orig_indices[seg.texel[k]] != new_indices[seg.texel[k]];
        if (moved) ch = seg.firstChannel - 1;
    }

    for (int ch = seg.firstChannel; ch < seg.endChannel; ++ch) exhaustive_search(seg, ch, endpts, opt_err);
    return opt_err;
}

}  // namespace BC7Modes
