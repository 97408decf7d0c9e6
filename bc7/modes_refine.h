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
    bool indexed = true;  // false: `indices` and the anchors are still to be worked out (index_shape)
};

// The segments (one per region) of shape `shapeindex` of the mode.
void make_shape_segments(const Tile& tile, const ModeInfo& info, int shapeindex, Segment segs[3]);

// What the partitioned modes share about one tile's regions, kept while the
// tile is encoded: the rough fits and rough errors, the lower bounds of the
// regions' errors, and optimize_one's results. A region's fit depends only on
// its texels and the channels fitted, its rough error also on the index size,
// and the partitioned modes meet the same regions again and again (242
// distinct regions among the 576 of modes 0 to 3).
class RegionFits {
public:
    RegionFits();
    struct Region {
        FltEndpts endpts;
        bool settled;     // the eigen-solver settled (or was not needed)
        float error[3];   // rough error with 2-, 3- and 4-bit indices
        bool hasError[3];
        Region* opaqueOf; // a fit with alpha on 255 throughout: the colour fit, whose errors it shares
    };
    // The entry of the region numbered `id` (RegionMasks::id) fitted over
    // `channels` (3 or 4) channels; `fresh` tells that it was just made (its
    // endpoints are still to fit).
    Region& find(int id, int channels, bool& fresh);
    // Fits every region of the mode's shapes that rough_shape would fit
    // first (the same results), four at a time.
    void prefit(const Tile& tile, const ModeInfo& info);
    // error_lower_bound of a region of a whole-number tile (0 for other
    // tiles), and whether its sum over the regions reaches `beat` for every
    // shape of the mode (so that no block of the mode is below `beat`).
    float lower_bound(const Tile& tile, int regions, int shapeindex, int region);
    bool mode_cannot_beat(const Tile& tile, const ModeInfo& info, float beat);

    // optimize_one's results within the tile, by mode, region and start (the
    // endpoints and the error it was given): a region met again from the
    // same start takes the same steps. `recall` fills `result` and `err`
    // when it knows the start.
    bool recall(int mode, int id, const IntEndpts& start, float orig_err, IntEndpts& result, float& err) const;
    void remember(int mode, int id, const IntEndpts& start, float orig_err, const IntEndpts& result, float err);

private:
    struct Optimised {
        bool used = false;
        int mode, id;
        float origErr, err;
        IntEndpts start, result;
    };
    static constexpr int kOptimised = 128;
    Optimised optimised_[kOptimised];
    static int slot_of(int mode, int id, const IntEndpts& start);
    float bound_[kRegionMasks.distinct];
    bool boundKnown_[kRegionMasks.distinct];
    // Per texel of weight 1 (zero for the others): its colour, the squares
    // and the products of its channels (error_lower_bound's order).
    bool texelSumsKnown_ = false;
    alignas(16) int colour_[Tile::TILE_TOTAL][4];
    alignas(16) int product_[Tile::TILE_TOTAL][8];
    int weighty_ = 0;  // mask of the texels of weight 1
    Region regions_[kRegionMasks.distinct][2];
    bool known_[kRegionMasks.distinct][2];
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
// that error can no longer be below `beat` (see cannot_beat). The second
// assignment and fix-up are left to index_shape. With `fits` the tile's
// region bounds and optimize_one's results are shared.
float refine_shape(const Tile& tile, const ModeInfo& info, int shapeindex, const FltEndpts rough[3],
                   RefinedShape& out, float beat = FLT_MAX, RegionFits* fits = nullptr);

// Assigns the indices of a refined block and fixes its anchors, unless done.
void index_shape(const Tile& tile, const ModeInfo& info, int shapeindex, RefinedShape& block);

}  // namespace BC7Modes
