#pragma once
// The palette scans behind map_colors and the endpoint searches: palettes laid
// out channel by channel, the scan of one palette, and the scoring of up to
// four candidates that differ in one channel side by side. Every result is
// that of map_colors, bit for bit (same operations, same order per texel).
#include "bc7/modes_search.h"

namespace BC7Modes {

// A palette laid out channel by channel, so that the scans compute four
// entries at once. The values are those of build_palette, bit for bit.
struct ScanPalette {
    alignas(16) float value[4][16];
    int entries;
};

// build_palette of integer endpoints, and of a palette as build_palette writes it.
void build_scan_palette(const Segment& seg, const IntEndpts& endpts, ScanPalette& pal);
void to_scan_palette(const Segment& seg, const float palette[16][4], ScanPalette& pal);

// Channel ch of the palette after stored values a (endpoint A) and b (endpoint B)
// of that channel; the p-bits are those of `endpts`.
void update_channel(const Segment& seg, const IntEndpts& endpts, int ch, int a, int b, ScanPalette& pal);

// map_colors of the palette.
float scan_palette(const Segment& seg, const ScanPalette& pal, float beat, int indices[Tile::TILE_TOTAL]);

// What scoring candidates that differ in channel ch only can share: per
// texel k and entry j, the squared differences of the other channels, summed
// as far as Utils::pixel_error sums them before channel ch's (term[k][j][0]),
// and those it adds after it. An error is then
//   ((term0 + d * d) + term1) + term2) * weight,   d = pixel[ch] - entry[ch],
// the very operations of pixel_error (addition commutes exactly). Each
// term is stored in four lanes, one per candidate. Terms that are 0 for every
// texel and entry are left out (adding 0 changes nothing), and so are the
// multiply and the texels of weight 0 when every weight is 0 or 1 (a texel of
// weight 0 adds an error of exactly 0).
struct ChannelScan {
    int ch = 0;
    int terms = 0;            // terms kept, 0 to 3
    bool usable = false;      // plain measure, 2- to 4-bit indices, every texel bounded
    bool unitWeights = false; // every weight is 0 or 1
    int scanned = 0;          // texels scanned: their positions in the segment, ascending
    int texel[Tile::TILE_TOTAL];
    alignas(16) float term[Tile::TILE_TOTAL][16][3][4];
};

void prepare_channel_scan(const Segment& seg, const ScanPalette& pal, int ch, ChannelScan& scan);

// Up to four candidates for the values of channel ch, everything else as in
// the endpoints they are scored against.
struct Candidates {
    int count = 0;
    int a[4] = {}, b[4] = {};  // stored values of channel ch of endpoints A and B
    void add(int va, int vb) { a[count] = va, b[count] = vb, ++count; }
};

// Scores the candidates against `pal` (built from `endpts`; its channel ch is
// replaced by each candidate's): err[l] is map_colors' error of candidate l
// when that is at most beat[l], FLT_MAX otherwise. `scan` was prepared from
// `pal` for the channel; candidate values lie in 0..(1 << seg.prec[ch]) - 1.
void score_candidates(const Segment& seg, const IntEndpts& endpts, const ScanPalette& pal, const ChannelScan& scan,
                      const Candidates& cand, const float beat[4], float err[4]);

}  // namespace BC7Modes
