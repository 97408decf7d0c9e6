#include "bc7/modes_refine.h"

#include <cfloat>

#include "bc7/bc7_tables.h"
#include "bc7/modes_assert.h"
#include "bc7/utils.h"

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

}  // namespace

void make_shape_segments(const Tile& tile, const ModeInfo& info, int shapeindex, Segment segs[3]) {
    for (int region = 0; region < info.regions; ++region) {
        bool member[kTexels];
        for (int i = 0; i < kTexels; ++i)
            member[i] = glyptora_bc7::partitionSubset(info.regions, shapeindex, i) == region;
        Segment& seg = segs[region];
        make_segment(tile, member, seg);
        seg.mode = info.mode;
        seg.firstChannel = 0;
        seg.endChannel = channels_of(info);
        for (int c = 0; c < 4; ++c) seg.prec[c] = c < 3 ? info.colourBits : info.alphaBits;
        seg.hasPBits = info.pbits != PBitKind::None;
        for (int c = 0; c < 4; ++c) seg.fixed[c] = 255.0f;  // alpha decodes opaque without alpha endpoints
        seg.indexBits = info.indexBits;
        seg.alphaWithColour = info.alphaBits != 0;
    }
}

RegionFits::RegionFits() {
    for (uint32_t& key : keys_) key = 0;
}

RegionFits::Region& RegionFits::find(uint16_t mask, int channels, bool& fresh) {
    // A region is never empty, so key 0 marks a free slot.
    const uint32_t key = uint32_t(mask) | uint32_t(channels) << 16;
    for (uint32_t slot = (key * 2654435761u) >> 22;; slot = (slot + 1) % kSlots) {
        if (keys_[slot] == key) {
            fresh = false;
            return regions_[slot];
        }
        if (keys_[slot] == 0) {
            keys_[slot] = key;
            fresh = true;
            for (bool& has : regions_[slot].hasError) has = false;
            return regions_[slot];
        }
    }
}

float rough_shape(const Tile& tile, const ModeInfo& info, int shapeindex, FltEndpts endpts[3], RegionFits* fits) {
    Segment segs[3];
    make_shape_segments(tile, info, shapeindex, segs);
    const int channels = channels_of(info);
    float error = 0.0f;
    for (int region = 0; region < info.regions; ++region) {
        const Segment& seg = segs[region];
        RegionFits::Region* kept = nullptr;
        bool fresh = true;
        uint16_t mask = 0;
        for (int k = 0; k < seg.count; ++k) mask = uint16_t(mask | 1u << seg.texel[k]);
        if (fits) kept = &fits->find(mask, channels, fresh);
        if (!fresh) {
            endpts[region] = kept->endpts;
        } else {
            bool settled = false, derived = false;
            float alphaMean;
            if (kept && channels == 4 && seg.count > 0 && constant_channel(seg.pixel, seg.count, 3, alphaMean)) {
                // Constant alpha: the region's colour fit, alpha on its mean.
                bool colourFresh;
                RegionFits::Region& colour = fits->find(mask, 3, colourFresh);
                if (colourFresh) colour.settled = fit_region(seg.pixel, seg.count, 0, 3, colour.endpts);
                if (colour.settled) {
                    endpts[region] = colour.endpts;
                    endpts[region].A[3] = endpts[region].B[3] = clamp255(alphaMean);
                    settled = derived = true;
                }
            }
            if (!derived) settled = fit_region(seg.pixel, seg.count, 0, channels, endpts[region]);
            if (kept) {
                kept->endpts = endpts[region];
                kept->settled = settled;
            }
        }
        const int set = info.indexBits - 2;
        if (kept && !fresh && kept->hasError[set]) {
            error += kept->error[set];
            continue;
        }
        float palette[16][4];
        build_palette(seg, endpts[region], palette);
        int indices[kTexels];
        const float regionError = map_colors(seg, palette, FLT_MAX, indices);
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
                   RefinedShape& out, float beat) {
    Segment segs[3];
    make_shape_segments(tile, info, shapeindex, segs);

    IntEndpts orig_endpts[3];
    compress_one(info, rough, orig_endpts);
    int orig_indices[kTexels];
    float orig_err[3];
    assign_indices(segs, orig_endpts, info.regions, orig_indices, orig_err);
    swap_indices(info, shapeindex, orig_endpts, orig_indices);
    float orig_toterr = 0.0f;
    for (int region = 0; region < info.regions; ++region) orig_toterr += orig_err[region];

    // Each region is optimised and assigned on its own (they are independent).
    IntEndpts opt_endpts[3];
    int opt_indices[kTexels];
    float opt_err[3] = {};
    bool done[3] = {};
    int order[3];
    largest_first(orig_err, info.regions, order);
    for (int k = 0; k < info.regions; ++k) {
        const int region = order[k];
        opt_endpts[region] = orig_endpts[region];
        optimize_one(segs[region], orig_err[region], opt_endpts[region]);
        assign_indices(&segs[region], &opt_endpts[region], 1, opt_indices, &opt_err[region]);
        done[region] = true;
        if (k + 1 < info.regions && cannot_beat(opt_err, done, info.regions, orig_toterr, beat)) return FLT_MAX;
    }
    swap_indices(info, shapeindex, opt_endpts, opt_indices);

    float opt_toterr = 0.0f;
    for (int region = 0; region < info.regions; ++region) opt_toterr += opt_err[region];
    const bool optimised = opt_toterr < orig_toterr;
    for (int region = 0; region < info.regions; ++region)
        out.endpts[region] = optimised ? opt_endpts[region] : orig_endpts[region];
    for (int i = 0; i < kTexels; ++i) out.indices[i] = optimised ? opt_indices[i] : orig_indices[i];
    out.error = optimised ? opt_toterr : orig_toterr;
    return out.error;
}

}  // namespace BC7Modes
