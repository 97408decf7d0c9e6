#include "bc6h/half_float.h"

#include <bit>

namespace glyptora_bc6h {
namespace {

// Lookup tables for half to float. The float bits of half h are
// mantissa[offset[h >> 10] + (h & 0x3ff)] + exponent[h >> 10]: the mantissa table already
// holds a rebased exponent for its entries, the exponent table adds sign and exponent.
struct HalfTables {
    uint32_t mantissa[2048];
    uint32_t exponent[64];
    uint16_t offset[64];
};

// Float bits of the denormal half mantissa m (1..1023) with the half's zero exponent:
// shift the mantissa up until its leading one reaches the implicit bit, lowering the
// exponent by one for each step.
constexpr uint32_t denormalBits(uint32_t m) {
    uint32_t mantissa = m << 13;
    uint32_t exponent = 0;
    while (!(mantissa & 0x00800000u)) {
        exponent -= 0x00800000u;
        mantissa <<= 1;
    }
    mantissa &= ~0x00800000u;
    exponent += 0x38800000u;
    return mantissa | exponent;
}

constexpr HalfTables makeHalfTables() {
    HalfTables t{};
    // Entries 0..1023 serve exponent 0 (zero and denormals), 1024..2047 every other
    // exponent; the latter carry the rebias from 15 to 127 minus one exponent step,
    // which the exponent table supplies.
    t.mantissa[0] = 0;
    for (uint32_t i = 1; i < 1024; ++i) t.mantissa[i] = denormalBits(i);
    for (uint32_t i = 1024; i < 2048; ++i) t.mantissa[i] = 0x38000000u + ((i - 1024) << 13);

    for (uint32_t i = 0; i < 64; ++i) {
        const uint32_t sign = i >= 32 ? 0x80000000u : 0u;
        const uint32_t exponent = i & 31;
        if (exponent == 0)
            t.exponent[i] = sign;
        else if (exponent == 31)
            t.exponent[i] = sign | 0x47800000u;  // infinity and NaN: float exponent 255
        else
            t.exponent[i] = sign + (exponent << 23);
        t.offset[i] = exponent == 0 ? 0 : 1024;
    }
    return t;
}

constexpr HalfTables kHalfTables = makeHalfTables();

// Rounds `value >> shift` to nearest, ties to even.
uint32_t shiftRoundEven(uint32_t value, int shift) {
    const uint32_t kept = value >> shift;
    const uint32_t rest = value & ((1u << shift) - 1);
    const uint32_t half = 1u << (shift - 1);
    if (rest > half || (rest == half && (kept & 1))) return kept + 1;
    return kept;
}

}  // namespace

uint16_t floatToHalf(float value) {
    const uint32_t bits = std::bit_cast<uint32_t>(value);
    const uint32_t sign = (bits >> 16) & 0x8000u;
    const uint32_t magnitude = bits & 0x7FFFFFFFu;

    if (magnitude > 0x7F800000u) {
        // NaN: keep the top payload bits and force the quiet bit so it cannot become infinity.
        return uint16_t(sign | 0x7E00u | ((magnitude >> 13) & 0x3FFu));
    }
    // 65520 and above (infinity included) round past the largest finite half 65504.
    if (magnitude >= 0x477FF000u) return uint16_t(sign | 0x7C00u);

    if (magnitude < 0x38800000u) {
        // Below the smallest normal half 2^-14: a denormal in units of 2^-24. 2^-25 and
        // less round to zero (2^-25 itself is a tie that goes to the even 0).
        if (magnitude <= 0x33000000u) return uint16_t(sign);
        const uint32_t exponent = magnitude >> 23;
        const uint32_t mantissa = (magnitude & 0x007FFFFFu) | 0x00800000u;
        return uint16_t(sign | shiftRoundEven(mantissa, int(126 - exponent)));
    }
    // Normal: rebias the exponent from 127 to 15 and drop 13 mantissa bits; a carry out of
    // the mantissa correctly bumps the exponent.
    return uint16_t(sign | shiftRoundEven(magnitude - 0x38000000u, 13));
}

float halfToFloat(uint16_t half) {
    const uint32_t top = half >> 10;
    const uint32_t bits = kHalfTables.mantissa[kHalfTables.offset[top] + (half & 0x3FFu)] + kHalfTables.exponent[top];
    return std::bit_cast<float>(bits);
}

}  // namespace glyptora_bc6h
