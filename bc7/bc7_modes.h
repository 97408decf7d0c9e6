#pragma once
// The high-quality BC7 encoder: every mode tried with its own exhaustive-then-
// refine search, keeping the block of least error. (The default qualities use
// the fast encoder of bc7_fast.h instead.)
//
// One concept a file: modes_tile.h (the tile and the block entry's view of the
// source), modes_fit.h (rough float fit, eigen-solver), modes_search.h
// (palette scan, index assignment, endpoint optimisation), modes_scan.h (the
// vectorised palette scans behind them), modes_whole.h (their whole-number
// form with lower bounds), modes_palette.h (endpoint decoding and
// interpolation for the scans), modes_refine.h
// (quantisation with p-bits, anchor fix-up, refinement of one shape, and
// RegionFits, the per-tile cache of region fits, error bounds and endpoint
// optimisations that the modes share),
// modes_partitioned.cpp (modes 0, 1, 2, 3, 7), modes_rotation.cpp (modes 4,
// 5), mode6.cpp and modes_driver.cpp (the block entry and the mode order).
#include <cfloat>
#include <cstdint>

#include "bc7/modes_tile.h"

namespace BC7Modes {

// Each mode's encoder writes its best block to `out` and returns its squared
// error (0..255 scale, weighted by importance), or FLT_MAX (out untouched)
// when it produced no block.
float encode_mode0(const Tile& tile, uint8_t out[16]);
float encode_mode1(const Tile& tile, uint8_t out[16]);
float encode_mode2(const Tile& tile, uint8_t out[16]);
float encode_mode3(const Tile& tile, uint8_t out[16]);
float encode_mode4(const Tile& tile, uint8_t out[16]);
float encode_mode5(const Tile& tile, uint8_t out[16]);
float encode_mode6(const Tile& tile, uint8_t out[16]);
float encode_mode7(const Tile& tile, uint8_t out[16]);

// Mode 0, 1, 2, 3 or 7 as above, taking the regions' rough fits from `fits`
// (and adding those it makes): the mode driver shares them across modes.
// With a `beat` below FLT_MAX the result is that of the plain call whenever
// that is below `beat`, and otherwise some value at least `beat` (`out` may
// then hold any block of the mode): a block that cannot beat it is left early.
class RegionFits;
float encode_partitioned(int mode, const Tile& tile, uint8_t out[16], RegionFits& fits, float beat = FLT_MAX);
// Mode 4 or 5 as above, with `beat` as for encode_partitioned.
float encode_rotation(int mode, const Tile& tile, uint8_t out[16], float beat);

// What the mode driver did: each mode's error (FLT_MAX when not tried) and
// the mode whose block was kept (-1 when none produced a block).
struct ModeTrace {
    float modeError[8];
    int keptMode;
};

// Tries modes 0 to 3 (only when `try_opaque_modes`) and then 4 to 7, in that
// order; a mode's block replaces the output only when its error is strictly
// smaller than the best so far. Returns the kept block's error. Without a
// trace the modes are tried in another order and stop working on blocks that
// cannot win; the kept block is the same (the least error, the earliest mode
// among equals).
float encode_modes(const Tile& tile, uint8_t out[16], bool try_opaque_modes, ModeTrace* trace = nullptr);

}  // namespace BC7Modes

namespace glyptora_bc7 {

// Encodes one 4x4 block. `texels`: 16 RGBA floats (0..1) in row order;
// `validRegion`: valid columns in the low byte, valid rows in the high byte.
// Modes 0 to 3 (opaque) are tried when `alphaMatters` is clear or every valid
// texel is opaque.
void encodeBC7BlockExhaustive(const float texels[64], uint16_t validRegion, bool alphaMatters, uint8_t out[16],
                              BC7Modes::ModeTrace* trace = nullptr);

// Encodes the tile in the given mode only (tests and tools); returns its error
// as above.
float encodeBC7Mode(int mode, const BC7Modes::Tile& tile, uint8_t out[16]);

}  // namespace glyptora_bc7
