#include "bc6h/search_fields.h"

namespace BC6HModes {

namespace {

int signExtend(int value, int bits) {
    const int sign = 1 << (bits - 1);
    return (value & (sign - 1)) - (value & sign);
}

}  // namespace

bool storeEndpoints(const glyptora_bc6h::Pattern& pattern, const IntEndpoints endpts[], bool isSigned,
                    glyptora_bc6h::StoredEndpoints& stored) {
    bool fits = true;
    stored = glyptora_bc6h::StoredEndpoints{};
    for (int c = 0; c < 3; ++c) {
        const int base = endpts[0].A[c];
        for (int f = 0; f < pattern.regions * 2; ++f) {
            const IntEndpoints& e = endpts[f >> 1];
            const bool delta = pattern.transformed && f > 0;
            const int value = (f & 1 ? e.B[c] : e.A[c]) - (delta ? base : 0);
            const int bits = pattern.bits[c][f];
            const int field = value & ((1 << bits) - 1);
            const int back = delta || isSigned ? signExtend(field, bits) : field;
            fits = fits && back == value;
            stored.field[f][c] = field;
        }
    }
    return fits;
}

}  // namespace BC6HModes
