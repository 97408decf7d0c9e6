#pragma once
// The palette scans behind map_colors and the endpoint searches: palettes laid
// out channel by channel, the scan of one palette, and the scoring of batches
// of candidates that differ in one channel (side by side, or ruled out by
// lower bounds in the whole-number form of modes_whole.h). Every error is
// that of map_colors, bit for bit.
#include <cstdint>

#include "bc7/modes_search.h"

namespace BC7Modes {

// A palette laid out channel by channel, so that the scans compute four
// entries at once. The values are those of build_palette, bit for bit.
struct ScanPalette {
    alignas(16) float value[4][16];
    int entries;
};

// build_palette of integer endpoints, of float endpoints, and of a palette as
// build_palette writes it.
void build_scan_palette(const Segment& seg, const IntEndpts& endpts, ScanPalette& pal);
void build_scan_palette(const Segment& seg, const FltEndpts& endpts, ScanPalette& pal);
void to_scan_palette(const Segment& seg, const float palette[16][4], ScanPalette& pal);

// Channel ch of the palette after stored values a (endpoint A) and b (endpoint B)
// of that channel; the p-bits are those of `endpts`.
void update_channel(const Segment& seg, const IntEndpts& endpts, int ch, int a, int b, ScanPalette& pal);

// map_colors of the palette.
float scan_palette(const Segment& seg, const ScanPalette& pal, float beat, int indices[Tile::TILE_TOTAL]);
// Its error alone, with nothing to beat.
float scan_error(const Segment& seg, const ScanPalette& pal);

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
//
// Whole-number segments (Segment::wholeTexels with whole `fixed` values)
// take the form of modes_whole.h instead.
//
// A ChannelScan serves one segment: what depends on the segment alone is
// worked out on its first preparation.
struct ChannelScan {
    int ch = 0;
    int terms = 0;            // terms kept, 0 to 3
    bool usable = false;      // plain measure, 2- to 4-bit indices, every texel bounded
    bool unitWeights = false; // every weight is 0 or 1
    bool whole = false;       // the whole-number form replaces `term`
    int scanned = 0;          // texels scanned: their positions in the segment, ascending
    int texel[Tile::TILE_TOTAL];
    alignas(16) float term[Tile::TILE_TOTAL][16][3][4];

    bool segmentKnown = false;  // the three below are set
    bool boundedTexels = false; // see `usable`
    bool wholeTexels = false;   // the whole-number form applies

    // The whole-number form of each channel (modes_whole.h), by scanned
    // texel n: the channel's value in four float and eight 16-bit lanes (set
    // once a segment); and, made from the palette values of the other
    // channels (`key`; kept while they stay the same), the squared distance
    // of every entry in those channels (`other`) and `near`, in eight 16-bit
    // lanes clamped to 65535: for 4-entry palettes `other` of every entry; for
    // larger ones `other` at J - 1, J and J + 1, J being the entry of least
    // `other` (the first; 65535 beyond the palette; below and above are J - 1
    // and J + 1 kept within it), and the least `other` of the remaining
    // entries (also in `rest`).
    static constexpr float kOutside = 1e30f;
    struct WholeForm {
        bool known = false;
        // The sum over the texels of their least `other`: no candidate's
        // error is below it (the errors, whole numbers, add exactly).
        float floor = 0.0f;
        alignas(16) float key[4][16];
        alignas(16) float value[Tile::TILE_TOTAL][4];
        alignas(16) float other[Tile::TILE_TOTAL][16];
        int below[Tile::TILE_TOTAL], nearest[Tile::TILE_TOTAL], above[Tile::TILE_TOTAL];
        float rest[Tile::TILE_TOTAL];
        alignas(16) uint16_t value16[Tile::TILE_TOTAL][8];
        alignas(16) uint16_t near[Tile::TILE_TOTAL][4][8];
    };
    WholeForm form[4];
    // Squared differences per channel, texel and entry, and the palette
    // values they were taken from (kept while those stay the same).
    alignas(16) float square[4][Tile::TILE_TOTAL][16];
    alignas(16) float squareOf[4][16];
    bool squareKnown[4] = {};

    // The palette of the endpoints last asked for (palette_of), and their
    // stored values and p-bits.
    ScanPalette palette;
    bool paletteKnown = false;
    IntEndpts paletteOf;
};

// build_scan_palette of `endpts` into scan.palette, where only the channels
// whose stored values or p-bits changed since the last call are rebuilt.
const ScanPalette& palette_of(const Segment& seg, const IntEndpts& endpts, ChannelScan& scan);

void prepare_channel_scan(const Segment& seg, const ScanPalette& pal, int ch, ChannelScan& scan);

// Whether candidates are cheap to rule out (the whole-number form): the
// searches then hand over many candidates at once, those of later steps
// included, and score exactly only the few that the bounds leave.
inline bool bounds_cheap(const ChannelScan& scan) { return scan.usable && scan.whole; }

// Whether no candidate for channel ch can have an error below `beat` (known
// only where candidates are cheap to rule out).
inline bool channel_cannot_beat(const ChannelScan& scan, float beat) {
    return bounds_cheap(scan) && scan.form[scan.ch].floor >= beat;
}

// Candidates for the values of channel ch, everything else as in the
// endpoints they are scored against, each with the error it must beat, in
// the order a search tries them.
struct CandidateBatch {
    static constexpr int kMax = 64;
    static constexpr int kRoom = kMax + 8;  // whole groups of eight, and room to write ahead
    int count = 0;
    // Stored values of channel ch of endpoints A and B.
    int a[kRoom], b[kRoom];
    float beat[kRoom];
    // After evaluate_candidates: the error of candidate l lies below a value
    // t <= beat[l] only if lower[l] < t, and `live` has bit l set where
    // lower[l] < beat[l] (the other candidates can be passed over). With
    // `exact`, lower[l] is the error itself whenever that is at most beat[l].
    float lower[kRoom];
    uint64_t live = 0;
    bool exact = false;
    // Fills the eight places after the candidates (evaluate_candidates reads
    // whole groups of eight).
    void close() {
        for (int i = 0; i < 8; ++i) a[count + i] = 0, b[count + i] = 0, beat[count + i] = 0.0f;
    }
};

// Works out `lower` and `live` for candidates begin..end - 1 of a closed
// batch (`live` loses every other bit): each candidate is `endpts` with
// channel ch replaced. `scan` was prepared for the channel from the palette
// of `endpts`; candidate values lie in 0..(1 << seg.prec[ch]) - 1.
void evaluate_candidates(const Segment& seg, const IntEndpts& endpts, const ChannelScan& scan, CandidateBatch& batch,
                         int begin, int end);

// map_colors' error of candidate l of an evaluated batch when that is at
// most `beat` (<= its own beat), FLT_MAX otherwise.
float resolve_candidate(const Segment& seg, const IntEndpts& endpts, const ChannelScan& scan,
                        const CandidateBatch& batch, int l, float beat);

}  // namespace BC7Modes
