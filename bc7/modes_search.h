#pragma once
// Index choice and endpoint refinement shared by the BC7 mode encoders: the
// palette of an endpoint pair, the palette scan (map_colors), index
// assignment, and the endpoint optimisation (logarithmic perturbation, then a
// bounded exhaustive search) of optimize_one.
#include "bc7/modes_fit.h"
#include "bc7/modes_tile.h"

namespace BC7Modes {

// Quantised endpoints of one endpoint pair: the stored value of each channel
// and, in the p-bit modes, the p-bit of each endpoint.
struct IntEndpts {
    int A[4] = {};
    int B[4] = {};
    int pbitA = 0;
    int pbitB = 0;
};

// One endpoint pair and the texels it serves: a region of a partitioned
// mode, the single region of mode 6, or the colour or the alpha part of
// modes 4 and 5.
struct Segment {
    int mode = 0;                 // names the mode in assertion reports
    int count = 0;                // texels served
    int texel[Tile::TILE_TOTAL];  // their numbers in the tile, ascending
    float pixel[Tile::TILE_TOTAL][4];   // the texels as the scan compares them
    float weight[Tile::TILE_TOTAL];     // importance weights
    int firstChannel = 0;         // channels the pair carries: [firstChannel, endChannel)
    int endChannel = 3;
    int prec[4] = {};             // stored precision of each carried channel
    bool hasPBits = false;        // a carried value decodes as (stored << 1) | p-bit
    float fixed[4] = {};          // palette value of each channel the pair does not carry
    int indexBits = 2;
    bool alphaWithColour = false; // alpha shares the colour indices (modes 6, 7)
    bool wholeTexels = false;     // every pixel value a whole number in 0..255 and every weight 0 or 1
};

// Builds a segment of the tile's texels whose flag in `member` is set;
// the pixels are copied as they are (channels not carried by the pair
// are compared against `fixed`). A caller that changes pixel values
// afterwards sets them to whole numbers only (wholeTexels stays true).
void make_segment(const Tile& tile, const bool member[Tile::TILE_TOTAL], Segment& seg);

// 8-bit value of channel ch of endpoint A (which == 0) or B (which == 1).
int decode_endpoint(const Segment& seg, const IntEndpts& endpts, int which, int ch);

// Palette of (1 << indexBits) entries: integer interpolation of the decoded
// endpoints, or the float interpolation of rough endpoints.
void build_palette(const Segment& seg, const IntEndpts& endpts, float palette[16][4]);
void build_palette(const Segment& seg, const FltEndpts& endpts, float palette[16][4]);

// The palette scan: for each texel, the entry of least weighted error, walking
// up from entry 0 and stopping once the best error is 0 or an entry is worse
// than the best so far; ties keep the lower index. Writes indices by texel
// number. When the running sum exceeds `beat`, the remaining texels get index
// -1 and the result is FLT_MAX.
float map_colors(const Segment& seg, const float palette[16][4], float beat, int indices[Tile::TILE_TOTAL]);
float map_colors(const Segment& seg, const IntEndpts& endpts, float beat, int indices[Tile::TILE_TOTAL]);

// Chooses the indices of every segment's texels (nothing to beat) and
// records each segment's error.
void assign_indices(const Segment segs[], const IntEndpts endpts[], int count, int indices[Tile::TILE_TOTAL],
                    float errors[]);

// Whether a refinement can no longer beat `beat`. Its total is that of the
// optimised regions or that of the quantised ones (`orig_total`), whichever
// is kept; the errors of the regions optimised so far (`done`), added in
// region order with 0 for the others, bound the first from below (errors are
// never negative, and adding one never makes a float sum smaller). Never
// true for a beat of FLT_MAX.
bool cannot_beat(const float opt_err[], const bool done[], int count, float orig_total, float beat);

// The order in which a refinement optimises `count` regions: falling errors
// (the earlier region first among equals), so that cannot_beat decides soonest.
void largest_first(const float errors[], int count, int order[]);

// Improves one endpoint pair channel by channel: perturbation of A and B with
// the restart rule, then a bounded exhaustive search per channel. `endpts`
// holds the pair with error `orig_err` on entry and the optimised pair on
// return; returns its error.
float optimize_one(const Segment& seg, float orig_err, IntEndpts& endpts);

}  // namespace BC7Modes
