#pragma once
// CPU entry of the ASTC encoder.
#include <cstdint>

#include "astc/astc_cpu_input.h"

namespace glyptora_internal {
class CPUViewBase;
}

namespace glyptora_astc {

// Runs the encoder of `level` on every block of `input`: level 0 its one-pass encoder, level 1
// the level-1 passes. Levels 2 and 3 run the level-1 passes until the multi-partition search
// exists.
void astc_encode_cpu(const AstcEncoderInput& input, int level);

// CPU implementation of the ASTC entry for a view cut into ASTC footprints; block t is
// written at t * 16 of `out`. The entry has checked the footprint and the level.
void encodeAstcCPU(const glyptora_internal::CPUViewBase& view, int level, bool imageHasAlpha, uint8_t* out);

}  // namespace glyptora_astc
