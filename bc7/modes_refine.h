#pragma once
// Rough fit and refinement of one shape for the BC7 modes whose colour and
// alpha share one index set (0, 1, 2, 3, 6, 7): endpoint quantisation with the
// p-bit votes (compress_one), index assignment, the anchor fix-up
// (swap_indices) and the endpoint optimisation.
#include <cfloat>

#include "bc7/modes_fit.h"
#include "bc7/modes_layout.h"
#include "bc7/modes_search.h"
#include "bc7/modes_tile.h"

namespace BC7Modes {

// A refined block before it is written: the endpoints of every region and the
// index of every texel (anchors already fixed up).
struct RefinedShape {
    float error = 0.0f;
    IntEndpts endpts[3];
    int indices[Tile::TILE_TOTAL] = {};
};

// The segments (one per region) of shape `shapeindex` of the mode.
void make_shape_segments(const Tile& tile, const ModeInfo& info, int shapeindex, Segment segs[3]);

// The rough fits and rough errors of one tile's regions, kept while the tile
// is encoded. A region's fit depends only on its texels and the channels
// fitted, its rough error also on the index size, and the partitioned modes
// meet the same regions again and again (242 distinct regions among the 576
// of modes 0 to 3).
class RegionFits {
public:
    RegionFits();
    struct Region {
        FltEndpts endpts;
        bool settled;     // the eigen-solver settled (or was not needed)
        float error[3];   // rough error with 2-, 3- and 4-bit indices
        bool hasError[3];
    };
    // The entry of region `mask` fitted over `channels` channels; `fresh` tells
    // that it was just made (its endpoints are still to fit).
    Region& find(uint16_t mask, int channels, bool& fresh);

private:
    static constexpr int kSlots = 1024;  // more than the regions of every partitioned mode together
    uint32_t keys_[kSlots];
    Region regions_[kSlots];
};

// Float fit of every region of the shape; returns the error of the float
// palettes of the fitted endpoints (palette scan, nothing to beat). With
// `fits`, regions met before are taken from there.
float rough_shape(const Tile& tile, const ModeInfo& info, int shapeindex, FltEndpts endpts[3],
                  RegionFits* fits = nullptr);

// Quantises rough endpoints to the mode's precision, deciding the p-bits by
// the vote of the dropped low bits.
void compress_one(const ModeInfo& info, const FltEndpts endpts[3], IntEndpts compr[3]);

// Swaps the endpoints of every region whose anchor index has its top bit set
// and inverts that region's indices.
void swap_indices(const ModeInfo& info, int shapeindex, IntEndpts endpts[3], int indices[Tile::TILE_TOTAL]);

// Quantise, assign, fix anchors, optimise every region, assign and fix again;
// keeps the optimised endpoints only when their total is strictly smaller.
// Returns the kept block's error, or FLT_MAX (`out` unfinished) as soon as
// that error can no longer be below `beat` (see cannot_beat).
float refine_shape(const Tile& tile, const ModeInfo& info, int shapeindex, const FltEndpts rough[3],
                   RefinedShape& out, float beat = FLT_MAX);

}  // namespace BC7Modes
