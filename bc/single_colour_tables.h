#pragma once
// Endpoint pairs that reproduce one 8-bit channel value as exactly as BC1 allows.
//
// For every target value v the tables hold the pair (a, b) of 5- or 6-bit endpoint
// values, a for col0 and b for col1, whose interpolated colour comes closest to v:
//   OMatch5 / OMatch6            4-colour mode, I = (2*e(a) + e(b)) / 3 (truncating)
//   OMatchAlpha5 / OMatchAlpha6  3-colour mode, I = (e(a) + e(b)) / 2   (truncating)
// with e() the bit-replicating expansion to 8 bits. Among the pairs with the smallest
// |I - v| the one with the closest endpoints wins (|e(a) - e(b)| smallest), then the
// smallest b, then the smallest a. The tables are built by constexpr code so that
// host and device code share one rule; kernels read a __constant__ copy.
#include <cstdint>

#include "core/host_device.h"

namespace glyptora_dxt {

GLYPTORA_HD constexpr int expand5(int x) { return x * 8 + x / 4; }
GLYPTORA_HD constexpr int expand6(int x) { return x * 4 + x / 16; }

struct SingleColourTables {
    uint8_t match5[256][2];       // OMatch5
    uint8_t match6[256][2];       // OMatch6
    uint8_t matchAlpha5[256][2];  // OMatchAlpha5
    uint8_t matchAlpha6[256][2];  // OMatchAlpha6
};

namespace single_colour_detail {

constexpr int absInt(int x) { return x < 0 ? -x : x; }

// Fills one table. Every pair (a, b) produces one interpolated value I; for each I keep
// the pair with the smallest span, then smallest b, then smallest a (b-major loop order
// plus strict improvement gives exactly that). Each target v then takes the reachable
// I nearest to it; when v - d and v + d are both reachable the same order decides.
constexpr void buildTable(uint8_t table[256][2], int bits, bool threeColour) {
    const int levels = 1 << bits;
    int span[256] = {};
    int bestA[256] = {};
    int bestB[256] = {};
    bool reachable[256] = {};
    for (int b = 0; b < levels; ++b) {
        for (int a = 0; a < levels; ++a) {
            const int ea = bits == 5 ? expand5(a) : expand6(a);
            const int eb = bits == 5 ? expand5(b) : expand6(b);
            const int value = threeColour ? (ea + eb) / 2 : (2 * ea + eb) / 3;
            const int s = absInt(ea - eb);
            if (!reachable[value] || s < span[value]) {
                reachable[value] = true;
                span[value] = s;
                bestA[value] = a;
                bestB[value] = b;
            }
        }
    }
    for (int v = 0; v < 256; ++v) {
        for (int d = 0; d < 256; ++d) {
            int chosen = -1;
            const int candidates[2] = {v - d, v + d};
            for (int c : candidates) {
                if (c < 0 || c > 255 || !reachable[c]) continue;
                if (chosen < 0 || span[c] < span[chosen] || (span[c] == span[chosen] && bestB[c] < bestB[chosen]) ||
                    (span[c] == span[chosen] && bestB[c] == bestB[chosen] && bestA[c] < bestA[chosen]))
                    chosen = c;
            }
            if (chosen >= 0) {
                table[v][0] = uint8_t(bestA[chosen]);
                table[v][1] = uint8_t(bestB[chosen]);
                break;
            }
        }
    }
}

}  // namespace single_colour_detail

constexpr SingleColourTables makeSingleColourTables() {
    SingleColourTables t{};
    single_colour_detail::buildTable(t.match5, 5, false);
    single_colour_detail::buildTable(t.match6, 6, false);
    single_colour_detail::buildTable(t.matchAlpha5, 5, true);
    single_colour_detail::buildTable(t.matchAlpha6, 6, true);
    return t;
}

// Host copy, evaluated at compile time.
inline constexpr SingleColourTables kSingleColourTables = makeSingleColourTables();

inline constexpr const uint8_t (&OMatch5)[256][2] = kSingleColourTables.match5;
inline constexpr const uint8_t (&OMatch6)[256][2] = kSingleColourTables.match6;
inline constexpr const uint8_t (&OMatchAlpha5)[256][2] = kSingleColourTables.matchAlpha5;
inline constexpr const uint8_t (&OMatchAlpha6)[256][2] = kSingleColourTables.matchAlpha6;

#if defined(__CUDACC__)
// Device copy for kernels, one per translation unit that includes this header; the
// constant initialiser is evaluated by the compiler, so no upload is needed.
static __constant__ SingleColourTables c_single_colour_tables = makeSingleColourTables();
#endif

// The tables as the calling side (host or device) sees them.
GLYPTORA_HD inline const SingleColourTables& singleColourTables() {
#if defined(GLYPTORA_ON_DEVICE)
    return c_single_colour_tables;
#else
    return kSingleColourTables;
#endif
}

}  // namespace glyptora_dxt
