#pragma once
// CPU entry of the BC7 encoder with an optional per-mode histogram of the result.
#include <cstdint>

#include "bc7/bc7_decoder.h"

namespace glyptora_internal {
class CPUViewBase;
}

namespace glyptora_bc7 {

// CPU implementation of the BC7 entry: one task per 4x4 tile, block t written at t * 16.
void encodeBC7CPU(const glyptora_internal::CPUViewBase& view, bool fast, bool imageHasAlpha, uint8_t* out);
// The same; when `stats` is given, the modes of the written blocks are added to it.
void encodeBC7CPU(const glyptora_internal::CPUViewBase& view, bool fast, bool imageHasAlpha, uint8_t* out,
                  BC7ModeStats* stats);

}  // namespace glyptora_bc7
