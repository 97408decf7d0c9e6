#pragma once
// Index choice and endpoint refinement shared by the BC7 mode encoders: the
// palette of an endpoint pair, the palette scan (map_colors), index
// assignment, and the endpoint optimisation (logarithmic perturbation, then a
// bounded exhaustive search) of optimize_one.
#include <cstdint>

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

// Whether two pairs are the same values and p-bits.
inline bool same_endpoints(const IntEndpts& x, const IntEndpts& y) {
    for (int c = 0; c < 4; ++c)
        if (x.A[c] != y.A[c] || x.B[c] != y.B[c]) return false;
    return x.pbitA == y.pbitA && x.pbitB == y.pbitB;
}

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

// Builds a segment of the tile's texels whose bit in `mask` is set (bit i
// for texel i); the pixels are copied as they are (channels not carried by
// the pair are compared against `fixed`). A caller that changes pixel values
// afterwards sets them to whole numbers only (wholeTexels stays true).
void make_segment(const Tile& tile, uint16_t mask, Segment& seg);

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

// A lower bound of the error of every endpoint pair on the segment, whatever
// its indices (0 unless the texels are whole numbers of weight 0 or 1).
// Every palette entry lies within 1/2 per colour channel of the straight
// line through the pair (Utils::lerp rounds the exact interpolation), so a
// texel's error is at least (d - sqrt(3) / 2)^2, d its distance from that
// line; over the N texels of weight 1 the error is then at least
// (sqrt(R) - sqrt(3 N) / 2)^2, R the least sum of squared distances from any
// line: the trace of their scatter matrix less its largest eigenvalue, which
// the Frobenius norm bounds from above. The errors being whole numbers, the
// bound is rounded up, less a margin for the rounding of its arithmetic.
float error_lower_bound(const Segment& seg);
// The same from the count N of texels of weight 1, the sums of their colour
// channels and the sums of products of those: red * red, green * green,
// blue * blue, red * green, red * blue, green * blue.
float error_lower_bound(int n, const int sum[3], const int product[6]);

// Whether a refinement can no longer beat `beat`. Its total is that of the
// optimised regions or that of the quantised ones (`orig_total`), whichever
// is kept; the errors of the regions optimised so far (`done`), added in
// region order with a lower bound of the others (`lower`), bound the first
// from below (a float sum never falls when a term grows). Never true for a
// beat of FLT_MAX.
bool cannot_beat(const float opt_err[], const float lower[], const bool done[], int count, float orig_total,
                 float beat);

// The order in which a refinement optimises `count` regions: falling errors
// (the earlier region first among equals), so that cannot_beat decides soonest.
void largest_first(const float errors[], int count, int order[]);

// Improves one endpoint pair channel by channel: perturbation of A and B with
// the restart rule, then a bounded exhaustive search per channel. `endpts`
// holds the pair with error `orig_err` on entry and the optimised pair on
// return; returns its error.
float optimize_one(const Segment& seg, float orig_err, IntEndpts& endpts);

}  // namespace BC7Modes
