#include "bc6h/search_refine.h"

#include <cfloat>

#include "bc6h/search_fields.h"
#include "bc6h/search_optimize.h"
#include "bc7/bc7_tables.h"
#include "core/assert.h"

// A failed check names the search it ran for ("bc6h_one", "bc6h_two").
#define BC6H_SEARCH_ASSERT(source, expression)                                                              \
    do {                                                                                                    \
        if (!(expression) &&                                                                                \
            ::glyptora_internal::reportAssertion(#expression, source, __LINE__, __func__, nullptr) == 1)   \
            ::glyptora_internal::debugBreak();                                                             \
    } while (false)

namespace BC6HModes {

namespace {

constexpr int kTexels = Tile::TILE_TOTAL;

using glyptora_bc6h::Pattern;
using glyptora_bc6h::StoredEndpoints;

// What differs between the one- and the two-region search.
struct Layout {
    int regions;
    int indexBits;
    const Pattern* patterns;
    int patternCount;
    int headerBits;
    const char* source;
};

constexpr Layout kOneRegion = {1, 4, glyptora_bc6h::kOneRegionPatterns, 4, 65, "bc6h_one"};
constexpr Layout kTwoRegions = {2, 3, glyptora_bc6h::kTwoRegionPatterns, 10, 82, "bc6h_two"};

EndpointFormat formatOf(const Layout& layout, const Pattern& pattern, bool isSigned) {
    return {pattern.bits[0][0], isSigned, layout.indexBits};
}

// Indices of every region's texels (nothing to beat); records each region's error and
// returns their total.
float assign_indices(const Layout& layout, const Region regions[], const EndpointFormat& format,
                     const IntEndpoints endpts[], int indices[kTexels], float errors[]) {
    float total = 0.0f;
    for (int r = 0; r < layout.regions; ++r) {
        Palette palette;
        buildPalette(format, endpts[r], palette);
        errors[r] = scanPalette(regions[r], palette, FLT_MAX, indices);
        total += errors[r];
    }
    return total;
}

void emit_block(const Layout& layout, const Pattern& pattern, int shape, const StoredEndpoints& stored,
                const int indices[kTexels], uint8_t data[16]) {
    BC6HModes::Bits out(data, 128);
    glyptora_bc6h::writeHeader(pattern, shape, stored, out);
    BC6H_SEARCH_ASSERT(layout.source, out.getptr() == layout.headerBits);
    for (int i = 0; i < kTexels; ++i) {
        int nbits = layout.indexBits;
        if (glyptora_bc7::isAnchorTexel(layout.regions, shape, i)) {
            BC6H_SEARCH_ASSERT(layout.source, (indices[i] & (1 << (layout.indexBits - 1))) == 0);
            --nbits;
        }
        out.write(indices[i], nbits);
    }
    BC6H_SEARCH_ASSERT(layout.source, out.getptr() == 128);
}

float refine(const Layout& layout, const Tile& tile, int shape, const FltEndpts rough[], uint8_t out[16],
             bool isSigned, SearchBlock* chosen) {
    Region regions[2];
    makeRegions(tile, layout.regions, shape, regions);

    // The first pattern whose fields hold the quantised endpoints (after the anchor fix-up,
    // which decides which endpoint the deltas start from) is taken.
    const Pattern* pattern = nullptr;
    EndpointFormat format;
    IntEndpoints orig_endpts[2];
    int orig_indices[kTexels];
    float orig_err[2];
    float orig_toterr = 0.0f;
    StoredEndpoints orig_stored;
    for (int p = 0; p < layout.patternCount && !pattern; ++p) {
        const Pattern& candidate = layout.patterns[p];
        format = formatOf(layout, candidate, isSigned);
        for (int r = 0; r < layout.regions; ++r)
            for (int c = 0; c < 3; ++c) {
                orig_endpts[r].A[c] = quantize(rough[r].A[c], format.prec, isSigned);
                orig_endpts[r].B[c] = quantize(rough[r].B[c], format.prec, isSigned);
            }
        orig_toterr = assign_indices(layout, regions, format, orig_endpts, orig_indices, orig_err);
        swap_indices(layout.regions, shape, layout.indexBits, orig_endpts, orig_indices);
        if (storeEndpoints(candidate, orig_endpts, isSigned, orig_stored)) pattern = &candidate;
    }
    if (!pattern) {
        BC6H_SEARCH_ASSERT(layout.source, false);
        return FLT_MAX;
    }

    IntEndpoints opt_endpts[2];
    for (int r = 0; r < layout.regions; ++r) {
        opt_endpts[r] = orig_endpts[r];
        optimize_one(regions[r], format, orig_err[r], opt_endpts[r]);
    }
    int opt_indices[kTexels];
    float opt_err[2];
    const float opt_toterr = assign_indices(layout, regions, format, opt_endpts, opt_indices, opt_err);
    swap_indices(layout.regions, shape, layout.indexBits, opt_endpts, opt_indices);
    StoredEndpoints opt_stored;
    const bool opt_fits = storeEndpoints(*pattern, opt_endpts, isSigned, opt_stored);

    const bool optimised = opt_fits && opt_toterr < orig_toterr;
    const float error = optimised ? opt_toterr : orig_toterr;
    emit_block(layout, *pattern, shape, optimised ? opt_stored : orig_stored, optimised ? opt_indices : orig_indices,
               out);
    if (chosen) {
        chosen->pattern = pattern;
        chosen->shape = shape;
        for (int r = 0; r < layout.regions; ++r) chosen->endpts[r] = optimised ? opt_endpts[r] : orig_endpts[r];
        for (int i = 0; i < kTexels; ++i) chosen->indices[i] = optimised ? opt_indices[i] : orig_indices[i];
        chosen->error = error;
    }
    return error;
}

}  // namespace

void swap_indices(int regions, int shape, int indexBits, IntEndpoints endpts[], int indices[kTexels]) {
    const int entries = 1 << indexBits;
    for (int r = 0; r < regions; ++r) {
        const int anchor = glyptora_bc7::anchorTexel(regions, shape, r);
        if ((indices[anchor] & (entries >> 1)) == 0) continue;
        IntEndpoints& e = endpts[r];
        for (int c = 0; c < 3; ++c) {
            const int t = e.A[c];
            e.A[c] = e.B[c];
            e.B[c] = t;
        }
        for (int i = 0; i < kTexels; ++i)
            if (glyptora_bc7::partitionSubset(regions, shape, i) == r) indices[i] = entries - 1 - indices[i];
    }
}

void blockTexels(const SearchBlock& block, bool isSigned, uint16_t texels[kTexels][3]) {
    const int regions = block.pattern->regions;
    const EndpointFormat format = formatOf(regions == 2 ? kTwoRegions : kOneRegion, *block.pattern, isSigned);
    uint16_t halves[2][16][3];
    for (int r = 0; r < regions; ++r) paletteHalves(format, block.endpts[r], halves[r]);
    for (int i = 0; i < kTexels; ++i) {
        const int r = glyptora_bc7::partitionSubset(regions, block.shape, i);
        for (int c = 0; c < 3; ++c) texels[i][c] = halves[r][block.indices[i]][c];
    }
}

float refinetwo(const Tile& tile, int shape, const FltEndpts rough[2], uint8_t out[16], bool isSigned,
                SearchBlock* chosen) {
    return refine(kTwoRegions, tile, shape, rough, out, isSigned, chosen);
}

float refineone(const Tile& tile, int shape, const FltEndpts rough[1], uint8_t out[16], bool isSigned,
                SearchBlock* chosen) {
    return refine(kOneRegion, tile, shape, rough, out, isSigned, chosen);
}

}  // namespace BC6HModes
