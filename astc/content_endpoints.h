#pragma once
// The endpoints a decoder reads from a block's colour values, partition by partition.
#include <cstdint>

#include "astc/block_layout.h"
#include "astc/endpoint_decoding.h"
#include "astc/quantization_tables.h"

namespace glyptora_astc {

// RGBA8 endpoints at weight 0 (`lo`) and 64 (`hi`) of each partition of `content`.
inline void astcContentEndpoints(const AstcBlockContent& content, uint8_t lo[4][4], uint8_t hi[4][4]) {
    for (int p = 0, at = 0; p < content.partitionCount; ++p) {
        const int values = astcEndpointValueCount(content.cem[p]);
        uint8_t unquantised[8] = {};
        for (int i = 0; i < values; ++i)
            unquantised[i] = astcColourUnquant(content.colourRange, content.colourValues[at + i]);
        at += values;
        decodeAstcEndpoints(content.cem[p], unquantised, lo[p], hi[p]);
    }
}

}  // namespace glyptora_astc
