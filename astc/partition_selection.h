#pragma once
// Chooses the partition patterns worth a full search for one block: the block's colours are
// clustered (k-means), every pattern is scored by how many texels it puts in the same
// partition as the clustering does, and the best agreeing few are ranked by what one line
// per partition leaves unexplained of the colours.
#include "astc/block_texels.h"
#include "astc/partition_table.h"

namespace glyptora_astc {

struct AstcGridSize {
    int width = 0, height = 0;
};

// How the patterns are ranked.
struct AstcPartitionRanking {
    // Small footprints (4x4, 5x4) rank every distinct two-partition pattern by line residual
    // rather than a shortlist of those that agree with a clustering: better choices (+0.06 dB
    // at 4x4) for about a third more time.
    bool everyPattern = true;
    // When set, the shortlist is ranked by what one line per partition and a weight grid of
    // this size together leave.
    AstcGridSize referenceGrid;
    // Two-partition patterns on the shortlist (at most 128); more partitions keep 8 + 4 x keep.
    int twoPartitionShortlist = 32;
};

// Writes the `keep` (at most 8) best patterns with `partitionCount` partitions to `out`,
// best first; returns how many there are.
int astcSelectPartitionings(const AstcBlockTexels& texels, const AstcPartitionTable& table, int partitionCount,
                            int keep, const AstcPartitionPattern** out, const AstcPartitionRanking& ranking = {});

}  // namespace glyptora_astc
