#pragma once
// Runs one task per tile through the task dispatcher: fetch the tile, encode it,
// write the block at tile * blockBytes of the output.
#include <cstdint>

#include "core/cpu_views.h"
#include "core/task_dispatcher.h"

namespace glyptora_internal {

// `encodeTile(tileIndex, blockOut)` must only write its own block.
template <typename EncodeTile>
void forEachTile(const CPUViewBase& view, uint8_t* out, int blockBytes, EncodeTile&& encodeTile) {
    parallelFor(int(view.tileCount), [&](uint32_t tile) { encodeTile(tile, out + size_t(tile) * size_t(blockBytes)); });
}

}  // namespace glyptora_internal
