// Mode 6: one region of RGBA endpoints (7 bits and a p-bit each) with 4-bit
// indices: rough fit of its single shape, then one refinement.
#include <cfloat>

#include "bc7/bc7_modes.h"
#include "bc7/bits.h"
#include "bc7/modes_assert.h"
#include "bc7/modes_refine.h"

namespace BC7Modes {

namespace {

constexpr int kTexels = Tile::TILE_TOTAL;

// Mode, endpoints (R, G, B, A; A then B each) and the two p-bits.
void write_header(const IntEndpts& endpts, Bits& out) {
    out.write(1 << 6, 7);
    for (int c = 0; c < 4; ++c) {
        out.write(endpts.A[c], 7);
        out.write(endpts.B[c], 7);
    }
    out.write(endpts.pbitA, 1);
    out.write(endpts.pbitB, 1);
    BC7_MODE_ASSERT(6, out.getptr() == 65);
}

// The index set; texel 0 is written with 3 bits.
void write_indices(const int indices[][kTexels], Bits& out) {
    BC7_MODE_ASSERT(6, (indices[0][0] & (1<<(4-1))) == 0);
    for (int i = 0; i < kTexels; ++i) out.write(indices[0][i], i == 0 ? 3 : 4);
}

void emit_block(const RefinedShape& block, uint8_t data[16]) {
    Bits out(data, BITSIZE);
    write_header(block.endpts[0], out);
    write_indices(&block.indices, out);
    BC7_MODE_ASSERT(6, out.getptr() == BC7Modes::BITSIZE);
}

}  // namespace

float encode_mode6(const Tile& tile, uint8_t out[16]) {
    const ModeInfo& info = kModeInfo[6];
    FltEndpts rough[3];
    rough_shape(tile, info, 0, rough);
    RefinedShape block;
    const float err = refine_shape(tile, info, 0, rough, block);
    if (err == FLT_MAX) return FLT_MAX;
    index_shape(tile, info, 0, block);
    emit_block(block, out);
    return err;
}

}  // namespace BC7Modes
