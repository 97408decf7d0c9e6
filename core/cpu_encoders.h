#pragma once
// CPU implementations behind the encoder entries: one block function per tile,
// run through the task dispatcher, block t written at t * block size of `out`.
#include <cstdint>

namespace glyptora_internal {
class CPUViewBase;
}

namespace glyptora_dxt {
void encodeBC1aCPU(const glyptora_internal::CPUViewBase& view, bool fast, uint8_t* out);
void encodeBC2CPU(const glyptora_internal::CPUViewBase& view, bool fast, uint8_t* out);
void encodeBC3CPU(const glyptora_internal::CPUViewBase& view, bool fast, uint8_t* out);
void encodeBC4CPU(const glyptora_internal::CPUViewBase& view, bool fast, uint8_t* out);
void encodeBC4SCPU(const glyptora_internal::CPUViewBase& view, bool fast, uint8_t* out);
void encodeBC5CPU(const glyptora_internal::CPUViewBase& view, bool fast, uint8_t* out);
void encodeBC5SCPU(const glyptora_internal::CPUViewBase& view, bool fast, uint8_t* out);
}  // namespace glyptora_dxt

namespace glyptora_bc7 {
void encodeBC7CPU(const glyptora_internal::CPUViewBase& view, bool fast, bool imageHasAlpha, uint8_t* out);
}
