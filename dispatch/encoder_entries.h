#pragma once
// The encoder entries. Each checks the tile size (and, for ASTC, the level), routes to the
// GPU or CPU implementation for the buffer's value type, prints the fall-back notice when
// the GPU is asked for in a mode without a GPU path, and writes tile t's block at
// t * block size of the output. What an entry runs is its row of the format table.
#include <cstdint>

#include "dispatch/format_table.h"

namespace glyptora {
class CPUInputBuffer;
class TimingContext;
}  // namespace glyptora

namespace glyptora_internal {

// `modeArgument` is the entry's fast flag, slow flag or level (see QualityFlag). Returns
// false when nothing was encoded (refused tile size or level, no encoder, failed device).
// The entries themselves are the table's `format_table::kBC1a` ... `kASTC`.
bool runEncoderEntry(const EncoderEntry& entry, const glyptora::CPUInputBuffer& input, int modeArgument,
                     bool isSigned, bool imageHasAlpha, void* output, bool gpu, bool outputInDeviceMemory,
                     glyptora::TimingContext* timing);

}  // namespace glyptora_internal
