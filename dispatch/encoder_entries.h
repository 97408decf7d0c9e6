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
bool runEncoderEntry(const EncoderEntry& entry, const glyptora::CPUInputBuffer& input, int modeArgument,
                     bool isSigned, bool imageHasAlpha, void* output, bool gpu, bool outputInDeviceMemory,
                     glyptora::TimingContext* timing);

// The entries by name, as the rest of the core and the tests call them.
inline bool encodeBC1a(const glyptora::CPUInputBuffer& in, bool fast, void* out, bool gpu, bool outDev,
                       glyptora::TimingContext* timing) {
    return runEncoderEntry(format_table::kBC1a, in, fast, false, false, out, gpu, outDev, timing);
}
inline bool encodeBC2(const glyptora::CPUInputBuffer& in, bool fast, void* out, bool gpu, bool outDev,
                      glyptora::TimingContext* timing) {
    return runEncoderEntry(format_table::kBC2, in, fast, false, false, out, gpu, outDev, timing);
}
inline bool encodeBC3(const glyptora::CPUInputBuffer& in, bool fast, void* out, bool gpu, bool outDev,
                      glyptora::TimingContext* timing) {
    return runEncoderEntry(format_table::kBC3, in, fast, false, false, out, gpu, outDev, timing);
}
inline bool encodeBC4(const glyptora::CPUInputBuffer& in, bool slow, void* out, bool gpu, bool outDev,
                      glyptora::TimingContext* timing) {
    return runEncoderEntry(format_table::kBC4, in, slow, false, false, out, gpu, outDev, timing);
}
inline bool encodeBC4S(const glyptora::CPUInputBuffer& in, bool slow, void* out, bool gpu, bool outDev,
                       glyptora::TimingContext* timing) {
    return runEncoderEntry(format_table::kBC4S, in, slow, true, false, out, gpu, outDev, timing);
}
inline bool encodeBC5(const glyptora::CPUInputBuffer& in, bool slow, void* out, bool gpu, bool outDev,
                      glyptora::TimingContext* timing) {
    return runEncoderEntry(format_table::kBC5, in, slow, false, false, out, gpu, outDev, timing);
}
inline bool encodeBC5S(const glyptora::CPUInputBuffer& in, bool slow, void* out, bool gpu, bool outDev,
                       glyptora::TimingContext* timing) {
    return runEncoderEntry(format_table::kBC5S, in, slow, true, false, out, gpu, outDev, timing);
}
inline bool encodeBC6H(const glyptora::CPUInputBuffer& in, bool slow, bool isSigned, void* out, bool gpu,
                       bool outDev, glyptora::TimingContext* timing) {
    return runEncoderEntry(format_table::kBC6H, in, slow, isSigned, false, out, gpu, outDev, timing);
}
inline bool encodeBC7(const glyptora::CPUInputBuffer& in, bool slow, bool imageHasAlpha, void* out, bool gpu,
                      bool outDev, glyptora::TimingContext* timing) {
    return runEncoderEntry(format_table::kBC7, in, slow, false, imageHasAlpha, out, gpu, outDev, timing);
}
inline bool encodeASTC(const glyptora::CPUInputBuffer& in, int level, bool imageHasAlpha, void* out, bool gpu,
                       bool outDev, glyptora::TimingContext* timing) {
    return runEncoderEntry(format_table::kASTC, in, level, false, imageHasAlpha, out, gpu, outDev, timing);
}

}  // namespace glyptora_internal
