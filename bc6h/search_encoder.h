#pragma once
// The BC6H search encoder ("production" and "highest"): the best one-region block against
// the best two-region block.
#include <cstdint>

#include "bc6h/search_refine.h"

namespace BC6HModes {

// Rough fit of one region: endpoints at the extreme projections of its texels on their
// dominant axis through the mean, clamped to the half-pattern range (0..31743 unsigned,
// -31743..31743 signed). Returns the error of their rough palette.
float rough_region(const Region& region, bool isSigned, int indexBits, FltEndpts& endpts);

// The single shape, rough-fitted and refined.
float compress_one_region(const Tile& tile, uint8_t out[16], bool isSigned, SearchBlock* chosen = nullptr);

// Rough fit of the 32 shapes in order while the best rough error is above 0 (a later shape
// must be strictly better), then refinement of the best one only.
float compress_two_regions(const Tile& tile, uint8_t out[16], bool isSigned, SearchBlock* chosen = nullptr);

// Both searches; the two-region block is written only when it is strictly better. Returns
// the written block's error.
float compress_tile(const Tile& tile, uint8_t out[16], bool isSigned, SearchBlock* chosen = nullptr);

}  // namespace BC6HModes
