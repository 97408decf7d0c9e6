#pragma once
// Unquantisation of ISE values: weights to 0..64, colour endpoint values to 0..255.
// Plain-bit ranges replicate their bits; trit and quint ranges spread the values over the
// range with a multiplier and a bit pattern per range and mirror them by the lowest bit,
// which gives a scrambled (not monotonic) order of the ISE values.
#include <cstdint>

namespace glyptora_astc {

// Weight ranges are range indices 0..11 (2 to 32 levels), colour ranges 4..20 (6 to 256).
inline constexpr int kAstcWeightRangeCount = 12;
inline constexpr int kAstcFirstColourRange = 4;

// Weight 0..64 of ISE value `value` of weight range `range`.
uint8_t astcWeightUnquant(int range, int value);

// Colour value 0..255 of ISE value `value` of colour range `range` (4..20).
uint8_t astcColourUnquant(int range, int value);

}  // namespace glyptora_astc
