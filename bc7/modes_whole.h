#pragma once
// The whole-number form of the candidate scans (ChannelScan::whole). With
// every pixel value, weight and palette value a whole number, every error is
// a whole number below 2^24, which float holds exactly whatever the order of
// the additions: the other channels' squared distances make one sum per
// entry, and lower bounds of the texels' errors rule out most candidates
// without their scan.
#include "bc7/modes_scan.h"

namespace BC7Modes {

// The texels' values of every channel in the forms below (once a segment).
void set_whole_values(const Segment& seg, ChannelScan& scan);

// The whole-number form of channel ch from `pal`, the palette of the
// endpoints whose channel ch the candidates replace (only the other channels
// are read; a form whose other channels are unchanged is kept).
void prepare_whole(const ScanPalette& pal, int ch, ChannelScan& scan);

// Lanes of eight candidates (as a bit mask) whose lower bound stays below
// their beat, for palettes of (1 << indexBits) entries; a and b hold the
// decoded values of channel ch. A lane outside the mask has an error of at
// least its beat.
int bound_whole_lanes(const ChannelScan& scan, int indexBits, const int a[8], const int b[8], const float beat[8]);

// bound_whole_lanes for lanes that each stand for every candidate whose
// decoded values of channel ch lie in a..aHigh and b..bHigh: a lane outside
// the mask has no such candidate with an error below its beat. Rules out
// nothing when a beat is above 65535.
int bound_whole_ranges(const ChannelScan& scan, int indexBits, const int a[8], const int aHigh[8], const int b[8],
                       const int bHigh[8], const float beat[8]);

// map_colors' error of one candidate whose channel ch entries are `v`, when
// that is at most `beat`, FLT_MAX otherwise.
float scan_whole(const ChannelScan& scan, int indexBits, const float v[16], float beat);

}  // namespace BC7Modes
