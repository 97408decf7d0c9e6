// The high-quality BC7 block entry and the mode driver.
#include <cfloat>
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
    float best = FLT_MAX;
    RegionFits fits;  // the partitioned modes meet the same regions
    for (int mode = try_opaque_modes ? 0 : 4; mode < 8; ++mode) {
        uint8_t block[16];
        const bool partitioned = mode < 4 || mode == 7;
        const float err = partitioned ? encode_partitioned(mode, tile, block, fits) : kEncoders[mode](tile, block);
        if (trace) trace->modeError[mode] = err;
        // Only a strictly smaller error wins: ties keep the earlier mode, FLT_MAX never wins.
        if (err < best) {
            best = err;
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
