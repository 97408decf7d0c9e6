#pragma once
// Unquantisation of ISE values: weights to 0..64, colour endpoint values to 0..255.
// Plain-bit ranges replicate their bits; trit and quint ranges spread the values over the
// range with a multiplier and a bit pattern per range and mirror them by the lowest bit,
// which gives a scrambled (not monotonic) order of the ISE values.
#include <cstdint>

namespace glyptora_astc {

struct AstcUnquantTables {
    uint8_t weights[12][32];
    uint8_t colours[21][256];
};

// Built from the rules at compile time (quantization_tables.cpp).
extern const AstcUnquantTables kAstcUnquantTables;

// Weight ranges are range indices 0..11 (2 to 32 levels), colour ranges 4..20 (6 to 256).
inline constexpr int kAstcWeightRangeCount = 12;
inline constexpr int kAstcFirstColourRange = 4;

// Weight 0..64 of ISE value `value` of weight range `range`.
inline uint8_t astcWeightUnquant(int range, int value) { return kAstcUnquantTables.weights[range][value & 31]; }

// Colour value 0..255 of ISE value `value` of colour range `range` (4..20).
inline uint8_t astcColourUnquant(int range, int value) { return kAstcUnquantTables.colours[range][value & 255]; }

}  // namespace glyptora_astc
