#include "bc7/modes_refine.h"

#include <cfloat>

#include "bc7/bc7_tables.h"
#include "bc7/modes_assert.h"
#include "bc7/modes_scan.h"
#include "bc7/utils.h"
#include "core/vec4.h"

// The stored endpoint bound of each p-bit mode (checked before the p-bit is appended).
#define ASSERT_ENDPOINT_BOUND(for_mode, bound)                  \
    do {                                                        \
        BC7_MODE_ASSERT(for_mode, compr_endpts.A[j] < bound);   \
        BC7_MODE_ASSERT(for_mode, compr_endpts.B[j] < bound);   \
    } while (false)

namespace BC7Modes {

namespace {

constexpr int kTexels = Tile::TILE_TOTAL;

int channels_of(const ModeInfo& info) { return info.alphaBits ? 4 : 3; }

// Number of 1s among the low bits of the given quantised values.
int low_bits_set(const int* values, int count) {
    int ones = 0;
    for (int c = 0; c < count; ++c) ones += values[c] & 1;
    return ones;
}

// P-bit of one endpoint quantised one bit wider (modes 0, 3, 6, 7): the
// alpha extremes decide when alpha travels with the endpoint, so that fully
// transparent and fully opaque endpoints stay exact; otherwise the colour low
// bits vote (two of three).
int endpoint_pbit(const ModeInfo& info, const int wide[4]) {
    if (info.alphaBits) {
        const int top = (1 << (info.alphaBits + 1)) - 1;
        if (wide[3] == 0) return 0;
        if (wide[3] == top) return 1;
    }
    return low_bits_set(wide, 3) >= 2 ? 1 : 0;
}

// The segment of the region of texels `mask` in the mode.
void make_region_segment(const Tile& tile, const ModeInfo& info, uint16_t mask, Segment& seg) {
    make_segment(tile, mask, seg);
    seg.mode = info.mode;
    seg.firstChannel = 0;
    seg.endChannel = channels_of(info);
    for (int c = 0; c < 4; ++c) seg.prec[c] = c < 3 ? info.colourBits : info.alphaBits;
    seg.hasPBits = info.pbits != PBitKind::None;
    for (int c = 0; c < 4; ++c) seg.fixed[c] = 255.0f;  // alpha decodes opaque without alpha endpoints
    seg.indexBits = info.indexBits;
    seg.alphaWithColour = info.alphaBits != 0;
}

// constant_channel of the alpha of the region of texels `mask`.
bool alpha_constant(const Tile& tile, uint16_t mask, float& mean) {
    float pixels[kTexels][4];
    int count = 0;
    for (int i = 0; i < kTexels; ++i)
        if (mask >> i & 1) pixels[count++][3] = tile.data[i][3];
    return count > 0 && constant_channel(pixels, count, 3, mean);
}

}  // namespace

void make_shape_segments(const Tile& tile, const ModeInfo& info, int shapeindex, Segment segs[3]) {
    for (int region = 0; region < info.regions; ++region)
        make_region_segment(tile, info, kRegionMasks.mask[info.regions][shapeindex][region], segs[region]);
}

RegionFits::RegionFits() {
    for (auto& known : known_) known[0] = known[1] = false;
    for (bool& known : boundKnown_) known = false;
}

RegionFits::Region& RegionFits::find(int id, int channels, bool& fresh) {
    Region& region = regions_[id][channels - 3];
    bool& known = known_[id][channels - 3];
    fresh = !known;
    if (fresh) {
        known = true;
        for (bool& has : region.hasError) has = false;
        region.opaqueOf = nullptr;
    }
    return region;
}

float RegionFits::lower_bound(const Tile& tile, int regions, int shapeindex, int region) {
    using glyptora_simd::Vec4i;
    if (!tile.whole) return 0.0f;
    const int id = kRegionMasks.id[regions][shapeindex][region];
    if (boundKnown_[id]) return bound_[id];
    if (!texelSumsKnown_) {
        weighty_ = 0;
        for (int i = 0; i < kTexels; ++i) {
            const bool counted = tile.importance_map[i] == 1.0f;
            const int r = counted ? int(tile.data[i][0]) : 0, g = counted ? int(tile.data[i][1]) : 0,
                      b = counted ? int(tile.data[i][2]) : 0;
            Vec4i(r, g, b, 0).store(colour_[i]);
            Vec4i(r * r, g * g, b * b, r * g).store(product_[i]);
            Vec4i(r * b, g * b, 0, 0).store(product_[i] + 4);
            weighty_ |= counted ? 1 << i : 0;
        }
        texelSumsKnown_ = true;
    }
    Vec4i sum(0), square(0), cross(0);
    for (int bits = kRegionMasks.mask[regions][shapeindex][region]; bits; bits &= bits - 1) {
        const int i = __builtin_ctz(unsigned(bits));
        sum = sum + Vec4i::load(colour_[i]);
        square = square + Vec4i::load(product_[i]);
        cross = cross + Vec4i::load(product_[i] + 4);
    }
    alignas(16) int sums[4], products[8];
    sum.store(sums);
    square.store(products);
    cross.store(products + 4);
    const int n = __builtin_popcount(unsigned(kRegionMasks.mask[regions][shapeindex][region] & weighty_));
    bound_[id] = error_lower_bound(n, sums, products);
    boundKnown_[id] = true;
    return bound_[id];
}

int RegionFits::slot_of(int mode, int id, const IntEndpts& start) {
    uint32_t h = uint32_t(mode * 977 + id) * 2654435761u;
    for (int c = 0; c < 4; ++c) h = (h ^ uint32_t(start.A[c] << 8 | start.B[c])) * 2654435761u;
    h = (h ^ uint32_t(start.pbitA << 1 | start.pbitB)) * 2654435761u;
    static_assert(kOptimised == 128, "seven bits of the hash pick the slot");
    return int(h >> 25);
}

bool RegionFits::recall(int mode, int id, const IntEndpts& start, float orig_err, IntEndpts& result,
                        float& err) const {
    const Optimised& o = optimised_[slot_of(mode, id, start)];
    if (!o.used || o.mode != mode || o.id != id || o.origErr != orig_err || !same_endpoints(o.start, start))
        return false;
    result = o.result;
    err = o.err;
    return true;
}

void RegionFits::remember(int mode, int id, const IntEndpts& start, float orig_err, const IntEndpts& result,
                          float err) {
    Optimised& o = optimised_[slot_of(mode, id, start)];
    o.used = true;
    o.mode = mode;
    o.id = id;
    o.origErr = orig_err;
    o.err = err;
    o.start = start;
    o.result = result;
}

bool RegionFits::mode_cannot_beat(const Tile& tile, const ModeInfo& info, float beat) {
    if (!tile.whole || !(beat < FLT_MAX)) return false;
    for (int s = 0; s < info.shapes; ++s) {
        float sum = 0.0f;
        for (int r = 0; r < info.regions; ++r) sum += lower_bound(tile, info.regions, s, r);
        if (sum < beat) return false;
    }
    return true;
}

void RegionFits::prefit(const Tile& tile, const ModeInfo& info) {
    const int channels = channels_of(info);
    // Fits wait in fours (fit_regions): the pixels of each, and where it goes.
    constexpr int kGroup = 4;
    alignas(16) float pixels[kGroup][kTexels][4];
    int counts[kGroup];
    FltEndpts* targets[kGroup];
    Region* regions[kGroup];
    int waiting = 0;
    const auto fit = [&] {
        const float(*sets[kGroup])[4];
        for (int k = 0; k < waiting; ++k) sets[k] = pixels[k];
        bool settled[kGroup];
        fit_regions(sets, counts, waiting, channels, targets, settled);
        for (int k = 0; k < waiting; ++k) regions[k]->settled = settled[k];
        waiting = 0;
    };
    for (int s = 0; s < info.shapes; ++s)
        for (int r = 0; r < info.regions; ++r) {
            const uint16_t mask = kRegionMasks.mask[info.regions][s][r];
            // rough_shape derives a constant alpha's fit from the colour fit.
            float alphaMean;
            if (channels == 4 && alpha_constant(tile, mask, alphaMean)) continue;
            bool fresh;
            Region& region = find(kRegionMasks.id[info.regions][s][r], channels, fresh);
            if (!fresh) continue;
            int count = 0;
            for (int i = 0; i < kTexels; ++i)
                if (mask >> i & 1) {
                    for (int c = 0; c < 4; ++c) pixels[waiting][count][c] = tile.data[i][c];
                    ++count;
                }
            counts[waiting] = count;
            targets[waiting] = &region.endpts;
            regions[waiting] = &region;
            if (++waiting == kGroup) fit();
        }
    if (waiting) fit();
}

float rough_shape(const Tile& tile, const ModeInfo& info, int shapeindex, FltEndpts endpts[3], RegionFits* fits) {
    const int channels = channels_of(info);
    const int set = info.indexBits - 2;
    float error = 0.0f;
    for (int region = 0; region < info.regions; ++region) {
        const uint16_t mask = kRegionMasks.mask[info.regions][shapeindex][region];
        RegionFits::Region* kept = nullptr;
        bool fresh = true;
        const int id = kRegionMasks.id[info.regions][shapeindex][region];
        if (fits) kept = &fits->find(id, channels, fresh);
        if (!fresh && kept->hasError[set]) {
            endpts[region] = kept->endpts;
            error += kept->error[set];
            continue;
        }
        // The region's segment, made when first needed.
        Segment seg;
        bool made = false;
        const auto segment = [&]() -> const Segment& {
            if (!made) make_region_segment(tile, info, mask, seg);
            made = true;
            return seg;
        };
        // An alpha fitted on 255 throughout meets pixels of alpha 255: the
        // error is that of the colour fit alone, whose palettes decode alpha as 255.
        RegionFits::Region* sameError = nullptr;
        if (!fresh) {
            endpts[region] = kept->endpts;
        } else {
            bool settled = false, derived = false;
            float alphaMean;
            if (kept && channels == 4 && alpha_constant(tile, mask, alphaMean)) {
                // Constant alpha: the region's colour fit, alpha on its mean.
                bool colourFresh;
                RegionFits::Region& colour = fits->find(id, 3, colourFresh);
                if (colourFresh) colour.settled = fit_region(segment().pixel, segment().count, 0, 3, colour.endpts);
                if (colour.settled) {
                    endpts[region] = colour.endpts;
                    endpts[region].A[3] = endpts[region].B[3] = clamp255(alphaMean);
                    settled = derived = true;
                    if (alphaMean == 255.0f) sameError = &colour;
                }
            }
            if (!derived) settled = fit_region(segment().pixel, segment().count, 0, channels, endpts[region]);
            if (kept) {
                kept->endpts = endpts[region];
                kept->settled = settled;
                kept->opaqueOf = sameError;
            }
        }
        if (kept && !fresh) sameError = kept->opaqueOf;
        float regionError;
        if (sameError && sameError->hasError[set]) {
            regionError = sameError->error[set];
        } else {
            ScanPalette pal;
            build_scan_palette(segment(), endpts[region], pal);
            regionError = scan_error(segment(), pal);
            if (sameError) sameError->error[set] = regionError, sameError->hasError[set] = true;
        }
        error += regionError;
        if (kept) {
            kept->error[set] = regionError;
            kept->hasError[set] = true;
        }
    }
    return error;
}

void compress_one(const ModeInfo& info, const FltEndpts endpts[3], IntEndpts compr[3]) {
    const int channels = channels_of(info);
    for (int region = 0; region < info.regions; ++region) {
        IntEndpts& compr_endpts = compr[region];
        compr_endpts = IntEndpts();
        const FltEndpts& rough = endpts[region];
        if (info.pbits == PBitKind::None) {
            for (int j = 0; j < channels; ++j) {
                const int prec = j < 3 ? info.colourBits : info.alphaBits;
                compr_endpts.A[j] = Utils::quantize(rough.A[j], prec);
                compr_endpts.B[j] = Utils::quantize(rough.B[j], prec);
            }
            continue;
        }
        // One bit wider than stored; the dropped low bit votes for the p-bit.
        int wideA[4] = {}, wideB[4] = {};
        for (int j = 0; j < channels; ++j) {
            const int prec = (j < 3 ? info.colourBits : info.alphaBits) + 1;
            wideA[j] = Utils::quantize(rough.A[j], prec);
            wideB[j] = Utils::quantize(rough.B[j], prec);
        }
        if (info.pbits == PBitKind::Shared) {
            // One p-bit for both endpoints: set when at least 3 of the 6 low bits are.
            const int ones = low_bits_set(wideA, 3) + low_bits_set(wideB, 3);
            compr_endpts.pbitA = compr_endpts.pbitB = ones >= 3 ? 1 : 0;
        } else {
            compr_endpts.pbitA = endpoint_pbit(info, wideA);
            compr_endpts.pbitB = endpoint_pbit(info, wideB);
        }
        for (int j = 0; j < channels; ++j) {
            compr_endpts.A[j] = wideA[j] >> 1;
            compr_endpts.B[j] = wideB[j] >> 1;
            switch (info.mode) {
            case 0: ASSERT_ENDPOINT_BOUND(0, 16); break;
            case 1: ASSERT_ENDPOINT_BOUND(1, 64); break;
            case 3: ASSERT_ENDPOINT_BOUND(3, 128); break;
            case 6: ASSERT_ENDPOINT_BOUND(6, 128); break;
            case 7: ASSERT_ENDPOINT_BOUND(7, 32); break;
            default: break;
            }
        }
    }
}

void swap_indices(const ModeInfo& info, int shapeindex, IntEndpts endpts[3], int indices[kTexels]) {
    const int entries = 1 << info.indexBits;
    for (int region = 0; region < info.regions; ++region) {
        const int anchor = glyptora_bc7::anchorTexel(info.regions, shapeindex, region);
        const int x = anchor % 4, y = anchor / 4;
        if (info.regions == 1) {
            const uint16_t* shapes = kShapes1;
            BC7_MODE_ASSERT(info.mode, REGION_MASK(x, y, shapeindex) == region);
        } else {
            const uint8_t* shapes = info.regions == 2 ? kShapes2.data() : kShapes3.data();
            BC7_MODE_ASSERT(info.mode, REGION(x, y, shapeindex) == region);
        }
        if ((indices[anchor] & (entries >> 1)) == 0) continue;

        IntEndpts& e = endpts[region];
        for (int c = 0; c < 4; ++c) {
            const int t = e.A[c];
            e.A[c] = e.B[c];
            e.B[c] = t;
        }
        const int p = e.pbitA;
        e.pbitA = e.pbitB;
        e.pbitB = p;
        for (int i = 0; i < kTexels; ++i)
            if (glyptora_bc7::partitionSubset(info.regions, shapeindex, i) == region)
                indices[i] = entries - 1 - indices[i];
    }
}

float refine_shape(const Tile& tile, const ModeInfo& info, int shapeindex, const FltEndpts rough[3],
                   RefinedShape& out, float beat, RegionFits* fits) {
    // Lower bounds of the regions' errors (with `fits`): when they reach
    // `beat` so does every block of the shape, the quantised one included.
    float lower[3] = {};
    if (fits && beat < FLT_MAX) {
        float bound = 0.0f;
        for (int region = 0; region < info.regions; ++region)
            bound += lower[region] = fits->lower_bound(tile, info.regions, shapeindex, region);
        if (bound >= beat) return FLT_MAX;
    }
    Segment segs[3];
    make_shape_segments(tile, info, shapeindex, segs);

    IntEndpts quantised[3], orig_endpts[3];
    compress_one(info, rough, quantised);
    for (int region = 0; region < info.regions; ++region) orig_endpts[region] = quantised[region];
    int orig_indices[kTexels];
    float orig_err[3];
    assign_indices(segs, orig_endpts, info.regions, orig_indices, orig_err);
    swap_indices(info, shapeindex, orig_endpts, orig_indices);
    float orig_toterr = 0.0f;
    for (int region = 0; region < info.regions; ++region) orig_toterr += orig_err[region];

    // Each region is optimised on its own (they are independent). An improved
    // pair's error is that of its full scan (a candidate is taken only when
    // its scan is not abandoned); an unimproved one is the quantised pair,
    // whose error changes when the anchor fix-up exchanged its endpoints (the
    // walk runs the other way).
    IntEndpts opt_endpts[3];
    float opt_err[3] = {};
    bool done[3] = {};
    int order[3];
    largest_first(orig_err, info.regions, order);
    for (int k = 0; k < info.regions; ++k) {
        const int region = order[k];
        const int id = kRegionMasks.id[info.regions][shapeindex][region];
        if (!fits || !fits->recall(info.mode, id, orig_endpts[region], orig_err[region], opt_endpts[region],
                                   opt_err[region])) {
            opt_endpts[region] = orig_endpts[region];
            opt_err[region] = optimize_one(segs[region], orig_err[region], opt_endpts[region]);
            if (fits) fits->remember(info.mode, id, orig_endpts[region], orig_err[region], opt_endpts[region],
                                     opt_err[region]);
        }
        if (!(opt_err[region] < orig_err[region]) && !same_endpoints(opt_endpts[region], quantised[region])) {
            int indices[kTexels];
            opt_err[region] = map_colors(segs[region], opt_endpts[region], FLT_MAX, indices);
        }
        done[region] = true;
        if (k + 1 < info.regions && cannot_beat(opt_err, lower, done, info.regions, orig_toterr, beat))
            return FLT_MAX;
    }

    float opt_toterr = 0.0f;
    for (int region = 0; region < info.regions; ++region) opt_toterr += opt_err[region];
    const bool optimised = opt_toterr < orig_toterr;
    for (int region = 0; region < info.regions; ++region)
        out.endpts[region] = optimised ? opt_endpts[region] : orig_endpts[region];
    // The optimised pairs' indices wait for index_shape (most refined shapes are not kept).
    for (int i = 0; i < kTexels; ++i) out.indices[i] = orig_indices[i];
    out.indexed = !optimised;
    out.error = optimised ? opt_toterr : orig_toterr;
    return out.error;
}

void index_shape(const Tile& tile, const ModeInfo& info, int shapeindex, RefinedShape& block) {
    if (block.indexed) return;
    Segment segs[3];
    make_shape_segments(tile, info, shapeindex, segs);
    float errors[3];
    assign_indices(segs, block.endpts, info.regions, block.indices, errors);
    swap_indices(info, shapeindex, block.endpts, block.indices);
    block.indexed = true;
}

}  // namespace BC7Modes
