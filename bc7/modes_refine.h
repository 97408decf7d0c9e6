#pragma once
// Rough fit and refinement of one shape for the BC7 modes whose colour and
// alpha share one index set (0, 1, 2, 3, 6, 7): endpoint quantisation with the
// p-bit votes (compress_one), index assignment, the anchor fix-up
// (swap_indices) and the endpoint optimisation.
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

// Float fit of every region of the shape; returns the error of the float
// palettes of the fitted endpoints (palette scan, nothing to beat).
float rough_shape(const Tile& tile, const ModeInfo& info, int shapeindex, FltEndpts endpts[3]);

// Quantises rough endpoints to the mode's precision, deciding the p-bits by
// the vote of the dropped low bits.
void compress_one(const ModeInfo& info, const FltEndpts endpts[3], IntEndpts compr[3]);

// Swaps the endpoints of every region whose anchor index has its top bit set
// and inverts that region's indices.
void swap_indices(const ModeInfo& info, int shapeindex, IntEndpts endpts[3], int indices[Tile::TILE_TOTAL]);

// Quantise, assign, fix anchors, optimise every region, assign and fix again;
// keeps the optimised endpoints only when their total is strictly smaller.
// Returns the kept block's error.
float refine_shape(const Tile& tile, const ModeInfo& info, int shapeindex, const FltEndpts rough[3],
                   RefinedShape& out);

}  // namespace BC7Modes
