// The high-quality BC7 block entry and the mode driver.
#include <cfloat>
#include <cmath>
#include <cstring>

#include "bc7/bc7_modes.h"
#include "bc7/modes_refine.h"
#include "bc7/utils.h"

namespace BC7Modes {

namespace {

using ModeEncoder = float (*)(const Tile&, uint8_t[16]);
constexpr ModeEncoder kEncoders[8] = {encode_mode0, encode_mode1, encode_mode2, encode_mode3,
                                      encode_mode4, encode_mode5, encode_mode6, encode_mode7};

}  // namespace

float encode_modes(const Tile& tile, uint8_t out[16], bool try_opaque_modes, ModeTrace* trace) {
    if (trace) {
        for (float& e : trace->modeError) e = FLT_MAX;
        trace->keptMode = -1;
    }
    // The kept block is the least error, the earliest mode among equals (FLT_MAX
    // never wins), whatever order the modes are tried in. A trace records every
    // mode's own error, in order; otherwise modes that often win early go first
    // (6 and 5 cost little), and the others stop on blocks that cannot win.
    static constexpr int kInOrder[8] = {0, 1, 2, 3, 4, 5, 6, 7};
    static constexpr int kWinnersFirst[8] = {6, 5, 1, 3, 0, 4, 2, 7};
    const int* order = trace ? kInOrder : kWinnersFirst;
    float best = FLT_MAX;
    int bestMode = 8;
    RegionFits fits;  // the partitioned modes meet the same regions
    for (int i = 0; i < 8; ++i) {
        const int mode = order[i];
        if (mode < 4 && !try_opaque_modes) continue;
        uint8_t block[16];
        // To win, a mode must beat the best so far, or equal it from an earlier place.
        const float beat = trace ? FLT_MAX : mode < bestMode ? std::nextafter(best, INFINITY) : best;
        const bool partitioned = mode < 4 || mode == 7;
        const float err = partitioned                ? encode_partitioned(mode, tile, block, fits, beat)
                          : mode == 4 || mode == 5 ? encode_rotation(mode, tile, block, beat)
                                                   : kEncoders[mode](tile, block);
        if (trace) trace->modeError[mode] = err;
        if (err < best || (err == best && mode < bestMode && err < FLT_MAX)) {
            best = err;
            bestMode = mode;
            std::memcpy(out, block, sizeof block);
            if (trace) trace->keptMode = mode;
        }
    }
    return best;
}

}  // namespace BC7Modes

namespace glyptora_bc7 {

void encodeBC7BlockExhaustive(const float texels[64], uint16_t validRegion, bool alphaMatters, uint8_t out[16],
                              BC7Modes::ModeTrace* trace) {
    // Plain squared error over straight RGBA for every block.
    BC7Modes::Utils::clear_error_flags();
    const BC7Modes::Tile tile = BC7Modes::makeTile(texels, validRegion);
    const bool tryOpaque = alphaMatters ? BC7Modes::validTexelsOpaque(texels, validRegion) : true;
    BC7Modes::encode_modes(tile, out, tryOpaque, trace);
}

float encodeBC7Mode(int mode, const BC7Modes::Tile& tile, uint8_t out[16]) {
    if (mode < 0 || mode > 7) return FLT_MAX;
    return BC7Modes::kEncoders[mode](tile, out);
}

}  // namespace glyptora_bc7
