#pragma once
// Levels 2 and 3 of the CPU ASTC encoder: after the constant-colour and single-plane passes,
// blocks whose error per sample is above the refinement threshold try two partitions, those
// that two partitions won try three, and from 6x6 up those that three won try four; then the
// dual-plane passes (two partitions with two planes for 4x4 alone). The two levels differ
// only in their search widths.
#include <cstdint>
#include <vector>

#include "astc/astc_cpu_input.h"
#include "astc/astc_cpu_level1.h"
#include "astc/infill_database.h"
#include "astc/mode_groups.h"
#include "astc/partition_selection.h"
#include "astc/partition_table.h"

namespace glyptora_astc {

class astc_cpu_high {
public:
    astc_cpu_high(const AstcEncoderInput& input, int level);

    // Runs the passes and writes every block to the input's output.
    void encode();

    // Blocks whose error per sample is above the refinement threshold and, for `mark` other
    // than 0, whose partition mark is `mark`; in block order.
    static std::vector<uint32_t> blocksAboveThreshold(const AstcBlockContext& context, uint32_t mark);

    const AstcBlockContext& context() const { return m_context; }
    // How many partitioning candidates each block searches: when its error is at most the
    // second threshold, and above it.
    const int* searchWidths() const { return m_widths; }

private:
    void singlePlanePass();
    // Searches `partitions` partitions for `blocks`, with the block's dual-plane choice on a
    // second plane when `dualPlane`; hard blocks take the second search width when `wide`.
    // Marks the single-plane blocks whose best result now has that many partitions.
    void partitionPass(const std::vector<uint32_t>& blocks, int partitions, bool dualPlane, bool wide,
                       const std::vector<AstcModeGroup>& groups);
    void dualPlanePreparationPass();
    void dualPlanePass(const std::vector<uint32_t>& blocks);

    AstcBlockContext m_context;
    int m_footprint = 0;
    int m_level = 2;
    int m_effort = 0;  // row of the effort table
    InfillMatDataBase m_infill;
    AstcPartitionTable m_partitions;
    AstcPartitionRanking m_ranking;
    int m_widths[2];
    double m_thresholds[2];  // (A x 0.001)^2, (A x 0.008)^2
    // Where a two-partition dual-plane pass follows (4x4), each block's two-partition
    // candidates as the two-partition pass chose them, by their index in the pattern table,
    // and the search width they were chosen for (0: none yet): the dual-plane pass asks the
    // same question of the same texels.
    struct TwoPartitionChoice {
        static constexpr int kMaxWidth = 4;
        uint16_t pattern[kMaxWidth];
        uint8_t count = 0, width = 0;
    };
    std::vector<TwoPartitionChoice> m_twoPartitionChoice;
};

}  // namespace glyptora_astc
