// The fast BC6H block encoder's CPU entry: the block flow of fast_block_encoder.h, which the
// GPU kernels share.
#include "bc6h/bc6h_cpu.h"
#include "bc6h/fast_block_encoder.h"
#include "bc6h/fast_encoder.h"

namespace glyptora_bc6h {

float encodeBC6HBlockFastDetailed(const float texels[64], uint16_t validRegion, bool isSigned, uint8_t out[16],
                                  FastBlockDetail* detail) {
    fast::Candidate best;
    fast::encodeBlock(texels, fast::validTexels(validRegion), isSigned, out, best);
    if (detail) {
        detail->error = best.error;
        detail->regions = best.regions;
        detail->modeValue = fast::modeOf(best).modeValue;
        detail->shape = best.shape;
        for (int i = 0; i < 16; ++i) {
            detail->indices[i] = best.idx[i];
            for (int c = 0; c < 3; ++c) detail->believed[i][c] = int(best.value[c][i]);
        }
    }
    return best.error;
}

float encodeBC6HBlockFast(const float texels[64], uint16_t validRegion, bool isSigned, uint8_t out[16]) {
    return encodeBC6HBlockFastDetailed(texels, validRegion, isSigned, out, nullptr);
}

}  // namespace glyptora_bc6h
