#pragma once
// From quantised endpoints to the endpoint fields of a BC6H pattern: the delta transform of
// the transformed patterns and the test that every field holds its value.
#include "bc6h/bc6h_format.h"
#include "bc6h/search_quantize.h"

namespace BC6HModes {

// Fills the pattern's fields from the endpoints of its regions (w, x from region 0, y, z
// from region 1); in a transformed pattern x, y, z become deltas from w. Returns true when
// every field reads back as the value it was given (a delta or an untransformed signed
// field sign-extended from its width, an unsigned field as it is).
bool storeEndpoints(const glyptora_bc6h::Pattern& pattern, const IntEndpoints endpts[], bool isSigned,
                    glyptora_bc6h::StoredEndpoints& stored);

}  // namespace BC6HModes
