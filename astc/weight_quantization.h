#pragma once
// Quantisation of fitted weights to ISE values of a weight range.
#include <cstdint>

#include "astc/float_matrix.h"

namespace glyptora_astc {

// Maps each weight of the one-column matrix `floatInd` (0 = first endpoint, 1 = second;
// values outside clamp, NaN reads as 0) to the ISE value of weight range `range` (0..11)
// whose unquantised weight is nearest; of two equally near levels the lower wins. Writes
// `numIndices` values; the matrix must have exactly that many lines.
void s_QuantizeIndices(const FloatMatrix& floatInd, int numIndices, int range, uint8_t* out);

}  // namespace glyptora_astc
