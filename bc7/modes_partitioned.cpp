// Modes 0, 1, 2, 3 and 7: rough fit of every shape, refinement of the best
// few, and the block layout of the partitioned modes.
#include <cfloat>

#include "bc7/bc7_modes.h"
#include "bc7/bc7_tables.h"
#include "bc7/bits.h"
#include "bc7/modes_assert.h"
#include "bc7/modes_refine.h"

namespace BC7Modes {

namespace {

constexpr int kTexels = Tile::TILE_TOTAL;

// Mode, partition, endpoints (channel by channel, region by region, A then B)
// and p-bits.
void write_header(const ModeInfo& info, int shapeindex, const IntEndpts endpts[3], Bits& out) {
    out.write(1 << info.mode, info.mode + 1);
    out.write(shapeindex, info.partitionBits);
    const int channels = info.alphaBits ? 4 : 3;
    for (int c = 0; c < channels; ++c) {
        const int prec = c < 3 ? info.colourBits : info.alphaBits;
        for (int region = 0; region < info.regions; ++region) {
            out.write(endpts[region].A[c], prec);
            out.write(endpts[region].B[c], prec);
        }
    }
    for (int region = 0; region < info.regions; ++region) {
        if (info.pbits == PBitKind::PerEndpoint) {
            out.write(endpts[region].pbitA, 1);
            out.write(endpts[region].pbitB, 1);
        } else if (info.pbits == PBitKind::Shared) {
            out.write(endpts[region].pbitA, 1);
        }
    }
    switch (info.mode) {
    case 0: BC7_MODE_ASSERT(0, out.getptr() == 83); break;
    case 1: BC7_MODE_ASSERT(1, out.getptr() == 82); break;
    case 2: BC7_MODE_ASSERT(2, out.getptr() == 99); break;
    case 3: BC7_MODE_ASSERT(3, out.getptr() == 98); break;
    case 7: BC7_MODE_ASSERT(7, out.getptr() == 98); break;
    default: break;
    }
}

// Header, then the 16 indices in texel order; each region's anchor texel is
// written one bit shorter (its top bit is 0 after swap_indices).
void emit_block(const ModeInfo& info, int shapeindex, const RefinedShape& block, uint8_t data[16]) {
    Bits out(data, BITSIZE);
    write_header(info, shapeindex, block.endpts, out);
    const uint8_t* shapes = info.regions == 2 ? kShapes2.data() : kShapes3.data();
    for (int i = 0; i < kTexels; ++i) {
        int nbits = info.indexBits;
        for (int region = 0; region < info.regions; ++region) {
            if (glyptora_bc7::anchorTexel(info.regions, shapeindex, region) != i) continue;
            const int x = i % 4, y = i / 4;
            BC7_MODE_ASSERT(info.mode, REGION(x, y, shapeindex) == region);
            BC7_MODE_ASSERT(info.mode, (block.indices[i] & (1 << (info.indexBits - 1))) == 0);
            nbits = info.indexBits - 1;
        }
        out.write(block.indices[i], nbits);
    }
    BC7_MODE_ASSERT(info.mode, out.getptr() == BC7Modes::BITSIZE);
}

struct RoughShape {
    int shapeindex;
    float error;
    FltEndpts endpts[3];
};

}  // namespace

float encode_partitioned(int mode, const Tile& tile, uint8_t out[16], RegionFits& fits, float beat) {
    const ModeInfo& info = kModeInfo[mode];
    // No block of the mode can beat `beat`: nothing to do.
    if (fits.mode_cannot_beat(tile, info, beat)) return FLT_MAX;
    // Rough pass over every shape.
    RoughShape rough[64];
    fits.prefit(tile, info);
    for (int s = 0; s < info.shapes; ++s) {
        rough[s].shapeindex = s;
        rough[s].error = rough_shape(tile, info, s, rough[s].endpts, &fits);
    }

    // Bring the best few rough errors to the front, ascending (selection; the
    // earlier shape stays first among equals).
    for (int i = 0; i < info.refined; ++i) {
        int smallest = i;
        for (int j = i + 1; j < info.shapes; ++j)
            if (rough[j].error < rough[smallest].error) smallest = j;
        if (smallest != i) {
            const RoughShape t = rough[i];
            rough[i] = rough[smallest];
            rough[smallest] = t;
        }
    }

    // Refine them in order until one is exact (a refinement that cannot beat
    // the best so far, or `beat`, stops early).
    float best = FLT_MAX;
    RefinedShape best_block;
    int best_shape = 0;
    for (int i = 0; i < info.refined && best > 0.0f; ++i) {
        RefinedShape block;
        const float limit = best < beat ? best : beat;
        const float err = refine_shape(tile, info, rough[i].shapeindex, rough[i].endpts, block, limit, &fits);
        if (err < best) {
            best = err;
            best_block = block;
            best_shape = rough[i].shapeindex;
        }
    }
    if (best < FLT_MAX) {
        index_shape(tile, info, best_shape, best_block);
        emit_block(info, best_shape, best_block, out);
    }
    return best;
}

namespace {

float encode_alone(int mode, const Tile& tile, uint8_t out[16]) {
    RegionFits fits;
    return encode_partitioned(mode, tile, out, fits);
}

}  // namespace

float encode_mode0(const Tile& tile, uint8_t out[16]) { return encode_alone(0, tile, out); }
float encode_mode1(const Tile& tile, uint8_t out[16]) { return encode_alone(1, tile, out); }
float encode_mode2(const Tile& tile, uint8_t out[16]) { return encode_alone(2, tile, out); }
float encode_mode3(const Tile& tile, uint8_t out[16]) { return encode_alone(3, tile, out); }
float encode_mode7(const Tile& tile, uint8_t out[16]) { return encode_alone(7, tile, out); }

}  // namespace BC7Modes
