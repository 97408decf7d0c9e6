#include "bc6h/search_optimize.h"

#include <cfloat>

#include "bc6h/search_perturb.h"

namespace BC6HModes {

namespace {

constexpr int kTexels = Tile::TILE_TOTAL;

void copyIndices(const Region& region, const int from[kTexels], int to[kTexels]) {
    for (int k = 0; k < region.count; ++k) to[region.texel[k]] = from[region.texel[k]];
}

// Perturbs channel ch of endpoint A (which == 0) or B (which == 1) of `endpts` against
// `beat`; when it moved, `indices` receive the indices of the new pair. Candidates differ
// in channel ch only, so only that channel of the palette is rebuilt for each.
float perturb_one(const Region& region, const EndpointFormat& format, int ch, int which, float beat,
                  IntEndpoints& endpts, int indices[kTexels]) {
    int& value = which ? endpts.B[ch] : endpts.A[ch];
    const int start = value;
    const int other = which ? endpts.A[ch] : endpts.B[ch];
    Palette palette;
    buildPalette(format, endpts, palette);
    int scratch[kTexels];
    const float best = perturbValue(value, format.prec, fieldLowest(format.prec, format.isSigned),
                                    fieldHighest(format.prec, format.isSigned), beat, [&](int candidate, float b) {
                                        buildPaletteChannel(format, which ? other : candidate,
                                                            which ? candidate : other, ch, palette);
                                        return scanPalette(region, palette, b, scratch);
                                    });
    if (value != start) {
        buildPaletteChannel(format, endpts.A[ch], endpts.B[ch], ch, palette);
        scanPalette(region, palette, FLT_MAX, scratch);
        copyIndices(region, scratch, indices);
    }
    return best;
}

}  // namespace

float optimize_one(const Region& region, const EndpointFormat& format, float orig_err, IntEndpoints& endpts) {
    float opt_err = orig_err;
    int orig_indices[kTexels], new_indices[kTexels], temp_indices[kTexels];
    for (int ch = 0; ch < 3; ++ch) {
        IntEndpoints newA = endpts, newB = endpts;
        int indicesA[kTexels], indicesB[kTexels];
        const float errA = perturb_one(region, format, ch, 0, opt_err, newA, indicesA);
        const float errB = perturb_one(region, format, ch, 1, opt_err, newB, indicesB);
        int do_b;
        if (errA < errB) {
            if (!(errA < opt_err)) continue;
            endpts = newA;
            opt_err = errA;
            copyIndices(region, indicesA, orig_indices);
            do_b = 1;
        } else {
            if (!(errB < opt_err)) continue;
            endpts = newB;
            opt_err = errB;
            copyIndices(region, indicesB, orig_indices);
            do_b = 0;
        }
        copyIndices(region, orig_indices, new_indices);

        for (;;) {
            IntEndpoints candidate = endpts;
            const float err = perturb_one(region, format, ch, do_b, opt_err, candidate, temp_indices);
            if (!(err < opt_err)) break;
            endpts = candidate;
            opt_err = err;
            copyIndices(region, temp_indices, new_indices);
            do_b = 1 - do_b;
        }

        // Texels took other indices on the way: the earlier channels may do better now.
        // Starting over costs a few percent of time and lowers the error about as much.
        bool moved = false;
        for (int k = 0; k < region.count; ++k)
            moved = moved || orig_indices[region.texel[k]] != new_indices[region.texel[k]];
        if (moved) ch = -1;
    }
    return opt_err;
}

}  // namespace BC6HModes
