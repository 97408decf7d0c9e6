#pragma once
// The block-mode candidate lists of each footprint and how many entries each pass takes.
#include <vector>

#include "astc/block_mode_table.h"

namespace glyptora_astc {

enum class AstcCandidateList { SinglePlane, ThreePartitions, FourPartitions, DualPlane, TwoPartitionDualPlane };

enum class AstcPass {
    Level1SinglePlane,
    HighSinglePlane,
    HighTwoPartitions,
    HighThreePartitions,
    HighFourPartitions,
    DualPlane,  // levels 1 to 3
    HighTwoPartitionDualPlane,
};

// The list a pass draws from (two partitions use the single-plane list).
AstcCandidateList astcPassList(AstcPass pass);

// Entries pass `pass` takes from its list for footprint `footprint` (index 0..13).
int astcPassCount(AstcPass pass, int footprint);

// The first `count` entries of a footprint's list (fewer when the list is shorter).
std::vector<AstcModeInfo> astcCandidateModes(AstcCandidateList list, int footprint, int count);

// The first `astcPassCount` entries of the pass's list.
inline std::vector<AstcModeInfo> astcPassModes(AstcPass pass, int footprint) {
    return astcCandidateModes(astcPassList(pass), footprint, astcPassCount(pass, footprint));
}

}  // namespace glyptora_astc
