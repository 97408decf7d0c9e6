#pragma once
// Endpoint optimisation of one region of a BC6H block.
#include "bc6h/search_palette.h"

namespace BC6HModes {

// Improves the quantised endpoints of one region channel by channel: perturb A and B apart,
// take the better if it improves, then alternate between them while each step improves.
// When a channel's accepted steps moved texels to other indices, the channels start over,
// since the earlier ones may now do better. `endpts` holds the pair with error `orig_err` on
// entry and the optimised pair on return; returns its error.
float optimize_one(const Region& region, const EndpointFormat& format, float orig_err, IntEndpoints& endpts);

}  // namespace BC6HModes
