#pragma once
// Quantisation of 8-bit endpoint values to the ISE values of a colour range.
#include <cstdint>

namespace glyptora_astc {

struct AstcColourQuantTables {
    uint8_t iseValue[21][256];  // nearest level's ISE value; of two equally near the lower
    uint8_t nearest[21][256];   // that level's value
    uint8_t below[21][256];     // ISE value of the highest level at or below the value
    uint8_t above[21][256];     // ISE value of the lowest level at or above the value
};

// Built once at start-up from the unquantisation tables.
extern const AstcColourQuantTables kAstcColourQuantTables;

// The ISE value of colour range `range` (4..20) whose unquantised value is nearest to
// `value` (0..255); of two equally near the lower wins.
inline uint8_t astcQuantizeColour(int range, int value) { return kAstcColourQuantTables.iseValue[range][value & 255]; }

// Quantise and unquantise in one: the nearest value that range `range` can hold.
inline uint8_t astcNearestColour(int range, int value) { return kAstcColourQuantTables.nearest[range][value & 255]; }

// The levels of range `range` around `value` (0..255): the highest at or below it and the
// lowest at or above it (the same level when `value` is one).
inline uint8_t astcColourLevelBelow(int range, int value) { return kAstcColourQuantTables.below[range][value & 255]; }
inline uint8_t astcColourLevelAbove(int range, int value) { return kAstcColourQuantTables.above[range][value & 255]; }

}  // namespace glyptora_astc
