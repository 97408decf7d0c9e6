#pragma once
// The fast BC7 encoder: the per-block routine of the default qualities.
//
// encodeBC7BlockFast() tries the modes in the fixed order 6, 1, 3, 7, 0, 2,
// 5, 4 (index mode 0), 4 (index mode 1); a later candidate replaces the block
// only when its error is strictly smaller, so ties keep the earlier one.
// Opaque blocks may use every mode, translucent ones only modes 4 to 7.
//
// The block routine is header-only and allocation-free so that it can also be
// compiled for the GPU. Its implementation, one concept a header, is included
// at the end: fast_settings.h (search effort), fast_block_load.h (the block in
// lanes, shape masks), fast_endpoint_fit.h (index choice, least squares,
// quantisation and p-bits), fast_shape_ranking.h (shape statistics and
// selection), fast_rotation_fit.h (modes 4 and 5), fast_mode6.h,
// fast_block_writers.h and fast_mode_driver.h (the flow of the two functions
// below).
#include <cstdint>

#include "core/host_device.h"
#include "core/vec4.h"

namespace glyptora_bc7 {

// A block encoded in one given mode and shape (tests and tools).
struct BC7ForcedChoice {
    int mode = 6;       // 0..7
    int partition = 0;  // modes 0 (0..15), 1, 2, 3, 7 (0..63)
    int rotation = 0;   // modes 4, 5 (0..3)
    int indexMode = 0;  // mode 4 (0: 2-bit colour, 3-bit alpha indices; 1: the reverse)
};

// What the block driver did (tests and tools): the error of each step's
// candidate in the fixed order 6, 1, 3, 7, 0, 2, 5, 4 (index mode 0),
// 4 (index mode 1) -- FLT_MAX for a step that did not run or stopped early,
// unable to win -- and the step whose block was kept.
struct BC7FastTrace {
    float stepError[9];
    int keptStep;
};

// The block functions are compiled with either vector backend (see core/vec4.h).
inline namespace GLYPTORA_SIMD_ABI {

// Encodes one 4x4 block. `texels`: 16 RGBA floats (0..1) in row order;
// `validRegion`: valid columns in the low byte, valid rows in the high byte.
// Texels outside the valid region play no part. Returns the block's squared
// error over the valid texels (RGBA, 0..255 scale).
GLYPTORA_HD inline float encodeBC7BlockFast(const float texels[64], uint16_t validRegion, bool imageHasAlpha,
                                            uint8_t out[16], BC7FastTrace* trace = nullptr);

// Encodes one block in exactly the given mode, shape, rotation and index mode.
// Returns its error as above.
GLYPTORA_HD inline float encodeBC7BlockForced(const float texels[64], uint16_t validRegion, bool imageHasAlpha,
                                              const BC7ForcedChoice& choice, uint8_t out[16]);

}  // namespace GLYPTORA_SIMD_ABI
}  // namespace glyptora_bc7

#include "bc7/fast_mode_driver.h"
