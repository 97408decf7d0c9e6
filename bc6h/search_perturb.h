#pragma once
// The logarithmic step search of one endpoint value, over any scorer.
#include "core/host_device.h"

namespace BC6HModes {

// Steps from 1 << (prec - 1) down to 1: at each step try value - step, then value + step
// (only those inside lowest..highest), each scored against the best error so far; after
// both, the value moves by the better successful step, if any. `score(candidate, beat)`
// returns the candidate's error, or anything not below `beat` when it cannot beat it.
// Returns the best error (`best` when nothing beat it).
template <class Score>
GLYPTORA_HD float perturbValue(int& value, int prec, int lowest, int highest, float best, Score&& score) {
    for (int step = 1 << (prec - 1); step >= 1; step >>= 1) {
        int next = value;
        for (int sign = -1; sign <= 1; sign += 2) {
            const int candidate = value + sign * step;
            if (candidate < lowest || candidate > highest) continue;
            const float err = score(candidate, best);
            if (err < best) {
                best = err;
                next = candidate;
            }
        }
        value = next;
    }
    return best;
}

}  // namespace BC6HModes
