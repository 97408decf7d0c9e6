#include "astc/candidate_lists.h"

#include <span>

#include "astc/block_layout.h"
#include "astc/candidate_list_data.h"
#include "astc/colour_range_lookup.h"
#include "astc/footprints.h"
#include "astc/integer_sequence.h"

namespace glyptora_astc {

namespace {

// Per pass, per footprint 4x4, 5x4, 5x5, 6x5, 6x6, 8x5, 8x6, 8x8, 10x5, 10x6, 10x8, 10x10,
// 12x10, 12x12.
constexpr int kPassCounts[7][kAstcFootprintCount] = {
    {2, 6, 9, 18, 22, 24, 26, 44, 24, 32, 35, 26, 30, 20},
    {10, 32, 46, 62, 81, 107, 124, 110, 77, 112, 155, 158, 227, 264},
    {54, 63, 60, 83, 93, 164, 195, 239, 199, 226, 252, 212, 227, 236},
    {16, 24, 79, 57, 66, 95, 100, 132, 109, 100, 170, 162, 122, 100},
    {14, 25, 39, 39, 42, 47, 45, 46, 43, 52, 45, 46, 38, 25},
    {22, 22, 22, 26, 24, 26, 20, 25, 25, 25, 25, 32, 30, 35},
    {54, 63, 71, 82, 92, 91, 92, 107, 92, 98, 106, 112, 113, 111},
};

// Colour range index of 16 levels.
constexpr int kPartitionedMinimumRange = 8;
static_assert(astcRangeLevels(kPartitionedMinimumRange) == 16);

}  // namespace

AstcCandidateList astcPassList(AstcPass pass) {
    switch (pass) {
        case AstcPass::HighThreePartitions: return AstcCandidateList::ThreePartitions;
        case AstcPass::HighFourPartitions: return AstcCandidateList::FourPartitions;
        case AstcPass::DualPlane: return AstcCandidateList::DualPlane;
        case AstcPass::HighTwoPartitionDualPlane: return AstcCandidateList::TwoPartitionDualPlane;
        default: return AstcCandidateList::SinglePlane;
    }
}

int astcPassCount(AstcPass pass, int footprint) {
    if (footprint < 0 || footprint >= kAstcFootprintCount) return 0;
    return kPassCounts[int(pass)][footprint];
}

std::vector<AstcModeInfo> astcCandidateModes(AstcCandidateList list, int footprint, int count) {
    std::span<const uint16_t> entries;
    bool dual = false;
    // The three- and four-partition lists follow the single-plane order and the two-partition
    // dual-plane list the dual-plane order: the partitioned searches rank the modes per block
    // by their own estimate, in which the colour range the partitions leave counts.
    switch (list) {
        case AstcCandidateList::SinglePlane:
        case AstcCandidateList::ThreePartitions:
        case AstcCandidateList::FourPartitions: entries = kAstcSinglePlaneLists[footprint]; break;
        case AstcCandidateList::DualPlane:
        case AstcCandidateList::TwoPartitionDualPlane:
            entries = kAstcDualPlaneLists[footprint];
            dual = true;
            break;
    }
    // The three- and four-partition lists pass over the modes that leave their partitions too
    // little colour: fewer than 16 levels for four values a partition (RGB base plus scale), so
    // that their first N entries are all modes a partitioned block can use (+0.01 to +0.02 dB
    // at levels 2 and 3).
    const int partitions = list == AstcCandidateList::ThreePartitions  ? 3
                           : list == AstcCandidateList::FourPartitions ? 4
                                                                       : 0;
    std::vector<AstcModeInfo> modes;
    for (size_t i = 0; i < entries.size() && int(modes.size()) < count; ++i) {
        const AstcModeInfo info = astcModeInfo(entries[i], dual);
        if (partitions > 0 &&
            astcColourRangeLookup(partitions, 0, false, info.weightBits, partitions * 4) < kPartitionedMinimumRange)
            continue;
        modes.push_back(info);
    }
    return modes;
}

}  // namespace glyptora_astc
