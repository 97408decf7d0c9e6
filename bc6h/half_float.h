#pragma once
// Half-float (IEEE 754 binary16) bit patterns and 32-bit floats. Float to half rounds to
// nearest even; half to float uses the table method (a mantissa table indexed by offset plus
// the 10 mantissa bits, an offset table and an exponent table, each indexed by the top 6 bits:
// sign and exponent), which the BC6H encoders measure their error with.
#include <cstdint>

namespace glyptora_bc6h {

uint16_t floatToHalf(float value);
float halfToFloat(uint16_t half);

}  // namespace glyptora_bc6h
