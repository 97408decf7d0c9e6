#pragma once
// The bit cursor that assembles BC6H blocks (the same cursor as BC7's).
#include "core/bits.h"

namespace BC6HModes {

using Bits = glyptora_internal::Bits;

}  // namespace BC6HModes
