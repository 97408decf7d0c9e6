#pragma once
// The partition patterns a footprint can use with 2, 3 and 4 partitions: for each seed the
// texel-to-partition assignment of the partition hash, kept only when every partition owns at
// least one texel of the footprint.
#include <cstdint>
#include <vector>

#include "astc/block_texels.h"

namespace glyptora_astc {

// Texel bit sets of a footprint: bit i of word i / 64 stands for texel i.
inline constexpr int kAstcTexelWords = (kAstcMaxTexels + 63) / 64;

struct AstcPartitionPattern {
    uint16_t seed = 0;
    uint8_t partitionOf[kAstcMaxTexels] = {};    // 0..count-1 per texel
    uint64_t texelsOf[4][kAstcTexelWords] = {};  // the texels of each partition
};

class AstcPartitionTable {
public:
    AstcPartitionTable(int blockWidth, int blockHeight);

    // The usable patterns with `partitionCount` (2..4) partitions, in seed order.
    const std::vector<AstcPartitionPattern>& patterns(int partitionCount) const {
        return m_patterns[partitionCount - 2];
    }
    // Indices into patterns(partitionCount) of the patterns that split the footprint unlike
    // every earlier one (the same texel groups under other partition numbers count as alike):
    // a search never needs the later copies.
    const std::vector<uint16_t>& distinct(int partitionCount) const { return m_distinct[partitionCount - 2]; }
    // For footprints of at most 64 texels: the texel sets of the distinct patterns, four words
    // a pattern (one per partition, unused ones 0), packed so that a scan over the patterns
    // reads them one after the other.
    const std::vector<uint64_t>& distinctTexelSets(int partitionCount) const {
        return m_distinctSets[partitionCount - 2];
    }

private:
    std::vector<AstcPartitionPattern> m_patterns[3];
    std::vector<uint16_t> m_distinct[3];
    std::vector<uint64_t> m_distinctSets[3];
};

}  // namespace glyptora_astc
