#pragma once
// Chooses the partition patterns worth a full search for one block: the block's colours are
// clustered (k-means), every pattern is scored by how many texels it puts in the same
// partition as the clustering does, and the best agreeing few are ranked by what one line
// per partition leaves unexplained of the colours.
#include "astc/block_texels.h"
#include "astc/partition_table.h"

namespace glyptora_astc {

// Writes the `keep` (at most 8) best patterns with `partitionCount` partitions to `out`,
// best first; returns how many there are.
int astcSelectPartitionings(const AstcBlockTexels& texels, const AstcPartitionTable& table, int partitionCount,
                            int keep, const AstcPartitionPattern** out);

}  // namespace glyptora_astc
