#include "bc7/modes_search.h"

#include <cfloat>

#include "bc7/modes_assert.h"
#include "bc7/utils.h"

namespace BC7Modes {

namespace {

constexpr int kTexels = Tile::TILE_TOTAL;

void copy_indices(const Segment& seg, const int from[kTexels], int to[kTexels]) {
    for (int k = 0; k < seg.count; ++k) to[seg.texel[k]] = from[seg.texel[k]];
}

// Logarithmic search on channel ch of endpoint A (which == 0) or B (which == 1):
// steps of 1 << (prec - 1) down to 1, trying value - step, then value + step,
// each scored against the best error so far; after both, the endpoint moves by
// the better successful step, if any. Returns the best error (`beat` when
// nothing beat it); `indices` receive the indices of the best candidate.
float perturb_one(const Segment& seg, int ch, int which, float beat, IntEndpts& endpts, int indices[kTexels]) {
    const int prec = seg.prec[ch];
    const int top = (1 << prec) - 1;
    int& value = which ? endpts.B[ch] : endpts.A[ch];
    float best = beat;
    int temp[kTexels];
    for (int step = 1 << (prec - 1); step >= 1; step >>= 1) {
        const int start = value;
        int moved = start;
        for (int sign = -1; sign <= 1; sign += 2) {
            const int candidate = start + sign * step;
            if (candidate < 0 || candidate > top) continue;
            value = candidate;
            const float err = map_colors(seg, endpts, best, temp);
            if (err < best) {
                best = err;
                moved = candidate;
                copy_indices(seg, temp, indices);
            }
        }
        value = moved;
    }
    return best;
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

    IntEndpts candidate = endpts;
    float best = err;
    int bestA = a0, bestB = b0;
    int temp[kTexels];
    if (a0 <= b0) {
        for (int a = amin; a <= amax; ++a)
            for (int b = a > bmin ? a : bmin; b < bmax; ++b) {
                candidate.A[ch] = a;
                candidate.B[ch] = b;
                const float e = map_colors(seg, candidate, best, temp);
                if (e < best) best = e, bestA = a, bestB = b;
            }
    } else {
        for (int b = bmin; b < bmax; ++b)
            for (int a = b > amin ? b : amin; a <= amax; ++a) {
                candidate.A[ch] = a;
                candidate.B[ch] = b;
                const float e = map_colors(seg, candidate, best, temp);
                if (e < best) best = e, bestA = a, bestB = b;
            }
    }
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
        indices[seg.texel[k]] = bestindex;
        toterr += besterr;
        if (toterr > beat) {
            for (int rest = k + 1; rest < seg.count; ++rest) indices[seg.texel[rest]] = -1;
            return FLT_MAX;
        }
    }
    return toterr;
}

float map_colors(const Segment& seg, const IntEndpts& endpts, float beat, int indices[kTexels]) {
    float palette[16][4];
    build_palette(seg, endpts, palette);
    return map_colors(seg, palette, beat, indices);
}

void assign_indices(const Segment segs[], const IntEndpts endpts[], int count, int indices[kTexels],
                    float errors[]) {
    for (int s = 0; s < count; ++s) errors[s] = map_colors(segs[s], endpts[s], FLT_MAX, indices);
}

float optimize_one(const Segment& seg, float orig_err, IntEndpts& endpts) {
    float opt_err = orig_err;
    int orig_indices[kTexels], new_indices[kTexels], temp_indices[kTexels];
    for (int ch = seg.firstChannel; ch < seg.endChannel; ++ch) {
        // Perturb each endpoint on its own and take the better, if it improves at all.
        IntEndpts newA = endpts, newB = endpts;
        int indicesA[kTexels], indicesB[kTexels];
        const float errA = perturb_one(seg, ch, 0, opt_err, newA, indicesA);
        const float errB = perturb_one(seg, ch, 1, opt_err, newB, indicesB);
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
            const float err = perturb_one(seg, ch, do_b, opt_err, candidate, temp_indices);
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
