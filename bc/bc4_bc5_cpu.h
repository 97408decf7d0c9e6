#pragma once
// CPU implementations of the BC4 and BC5 entries, unsigned and signed: one task per 4x4
// tile. `fast` picks the fast block encoders, otherwise the exhaustive searches.
#include <cstdint>

namespace glyptora_internal {
class CPUViewBase;
}

namespace glyptora_dxt {
void encodeBC4CPU(const glyptora_internal::CPUViewBase& view, bool fast, uint8_t* out);
void encodeBC4SCPU(const glyptora_internal::CPUViewBase& view, bool fast, uint8_t* out);
void encodeBC5CPU(const glyptora_internal::CPUViewBase& view, bool fast, uint8_t* out);
void encodeBC5SCPU(const glyptora_internal::CPUViewBase& view, bool fast, uint8_t* out);
}  // namespace glyptora_dxt
