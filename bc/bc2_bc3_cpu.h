#pragma once
// CPU implementations of the BC2 and BC3 entries: one task per 4x4 tile, block t written at t * 16.
#include <cstdint>

namespace glyptora_internal {
class CPUViewBase;
}

namespace glyptora_dxt {
void encodeBC2CPU(const glyptora_internal::CPUViewBase& view, bool fast, uint8_t* out);
void encodeBC3CPU(const glyptora_internal::CPUViewBase& view, bool fast, uint8_t* out);
}  // namespace glyptora_dxt
