#include "astc/partition_table.h"

#include <array>
#include <cstddef>
#include <set>

#include "astc/partition_hash.h"

namespace glyptora_astc {

AstcPartitionTable::AstcPartitionTable(int blockWidth, int blockHeight) {
    const bool small = astcIsSmallBlock(blockWidth, blockHeight);
    for (int count = 2; count <= 4; ++count) {
        std::vector<AstcPartitionPattern>& list = m_patterns[count - 2];
        list.reserve(1024);
        for (int seed = 0; seed < 1024; ++seed) {
            AstcPartitionPattern pattern;
            pattern.seed = uint16_t(seed);
            int owned[4] = {};
            for (int y = 0, i = 0; y < blockHeight; ++y)
                for (int x = 0; x < blockWidth; ++x, ++i) {
                    const int p = astcPartitionOf(seed, count, x, y, small);
                    pattern.partitionOf[i] = uint8_t(p);
                    pattern.texelsOf[p][i >> 6] |= uint64_t(1) << (i & 63);
                    ++owned[p];
                }
            bool usable = true;
            for (int p = 0; p < count; ++p) usable = usable && owned[p] > 0;
            if (usable) list.push_back(pattern);
        }
        // Each pattern's texel sets in the order of their first texel: alike splits read alike.
        std::set<std::array<uint64_t, 4 * kAstcTexelWords>> seen;
        for (std::size_t j = 0; j < list.size(); ++j) {
            std::array<uint64_t, 4 * kAstcTexelWords> key{};
            int order[4] = {-1, -1, -1, -1}, next = 0;
            for (int i = 0; i < blockWidth * blockHeight && next < count; ++i) {
                const int p = list[j].partitionOf[i];
                if (order[p] < 0) order[p] = next++;
            }
            for (int p = 0; p < count; ++p)
                for (int w = 0; w < kAstcTexelWords; ++w)
                    key[std::size_t(order[p] * kAstcTexelWords + w)] = list[j].texelsOf[p][w];
            if (seen.insert(key).second) m_distinct[count - 2].push_back(uint16_t(j));
        }
        for (const uint16_t j : m_distinct[count - 2])
            for (int p = 0; p < 4; ++p) m_distinctSets[count - 2].push_back(list[j].texelsOf[p][0]);
    }
}

}  // namespace glyptora_astc
