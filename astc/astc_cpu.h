#pragma once
// CPU entry of the ASTC encoder.
#include <cstdint>

#include "astc/astc_cpu_input.h"

namespace glyptora_internal {
class CPUViewBase;
}

namespace glyptora_astc {

// Runs the encoder of `level` on every block of `input`: level 0 its one-pass encoder, level 1
// the level-1 passes, levels 2 and 3 the partition and dual-plane passes of the high encoder.
void astc_encode_cpu(const AstcEncoderInput& input, int level);

// CPU implementation of the ASTC entry for a view cut into ASTC footprints; block t is
// written at t * 16 of `out`. The entry has checked the footprint and the level.
void encodeAstcCPU(const glyptora_internal::CPUViewBase& view, int level, bool imageHasAlpha, uint8_t* out);

}  // namespace glyptora_astc
