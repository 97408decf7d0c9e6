#pragma once
// Refinement of one shape of the BC6H search: the first pattern whose fields hold the
// quantised rough endpoints, endpoint optimisation, and the block.
#include <cstdint>

#include "bc6h/bc6h_format.h"
#include "bc6h/search_palette.h"

namespace BC6HModes {

// A block as the search wrote it: pattern, shape, endpoints (anchors fixed up) and the index
// of every texel, with the error the search measured for it.
struct SearchBlock {
    const glyptora_bc6h::Pattern* pattern = nullptr;
    int shape = 0;
    IntEndpoints endpts[2];
    int indices[Tile::TILE_TOTAL] = {};
    float error = 0.0f;
};

// The half patterns the search believes each texel of `block` decodes to.
void blockTexels(const SearchBlock& block, bool isSigned, uint16_t texels[Tile::TILE_TOTAL][3]);

// Swaps the endpoints of every region whose anchor index has its top bit set and inverts that
// region's indices, so that every anchor index fits one bit less.
void swap_indices(int regions, int shape, int indexBits, IntEndpoints endpts[], int indices[Tile::TILE_TOTAL]);

// Refines shape `shape` from its rough endpoints (one pair per region) and writes the block
// to `out`. Returns its error, or FLT_MAX (nothing written) when no pattern holds the
// endpoints. With `chosen`, the written block is described there too.
float refinetwo(const Tile& tile, int shape, const FltEndpts rough[2], uint8_t out[16], bool isSigned,
                SearchBlock* chosen = nullptr);
float refineone(const Tile& tile, int shape, const FltEndpts rough[1], uint8_t out[16], bool isSigned,
                SearchBlock* chosen = nullptr);

}  // namespace BC6HModes
