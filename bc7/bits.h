#pragma once
// The bit cursor that assembles and reads BC7 blocks.
#include "core/bits.h"

namespace BC7Modes {

// Bits in one BC7 block.
static constexpr int BITSIZE = 128;

using Bits = glyptora_internal::Bits;

}  // namespace BC7Modes
