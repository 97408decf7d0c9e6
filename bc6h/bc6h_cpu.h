#pragma once
// CPU entry of the BC6H encoder: one task per 4x4 tile of the float view, the fast block
// encoder for the default qualities and the search for "production" and "highest".
#include <cstdint>

namespace glyptora_internal {
class CPUViewBase;
}

namespace glyptora_bc6h {

// Encodes one block. `texels`: 16 RGBA floats in row order (alpha ignored); `validRegion`:
// valid columns in the low byte, valid rows in the high byte. Returns the block's error.
float encodeBC6HBlockFast(const float texels[64], uint16_t validRegion, bool isSigned, uint8_t out[16]);
float encodeBC6HBlockSearch(const float texels[64], uint16_t validRegion, bool isSigned, uint8_t out[16]);

// Block t of the view written at t * 16.
void encodeBC6HCPU(const glyptora_internal::CPUViewBase& view, bool fast, bool isSigned, uint8_t* out);

}  // namespace glyptora_bc6h
