#pragma once
// The per-block search of multi-partition ASTC encodings for one partition pattern: each
// partition gets its own endpoint pair along its own principal axis, the partitions share
// the weight grid and one endpoint mode. The modes are ranked by an error estimate and the
// best few fitted in full, the winner refined by refitting its weights to its endpoints.
#include <cstdint>
#include <vector>

#include "astc/block_search.h"
#include "astc/block_texels.h"
#include "astc/fit_models.h"
#include "astc/mode_groups.h"
#include "astc/partition_table.h"

namespace glyptora_astc {

class AstcPartitionSearch {
public:
    AstcPartitionSearch(const AstcBlockTexels& texels, const AstcPartitionPattern& pattern, int partitionCount,
                        const float weights[4], const float inverseWeights[4]);

    // Tries the modes of `groups` (with `channel` 0..3 on the second plane of dual-plane
    // modes, -1 for single-plane ones); `best` is replaced only by a strictly better encoding.
    void search(const std::vector<AstcModeGroup>& groups, int channel, const AstcSearchSettings& settings,
                AstcSearchResult& best);

private:
    void idealWeights(int channel);
    int selectByEstimate(const std::vector<AstcModeGroup>& groups, int channel, const AstcSearchSettings& settings,
                         int keep, const AstcModeInfo** modes, const AstcGridInfill** grids) const;
    bool tryMode(const AstcModeInfo& info, const AstcGridInfill& grid, const float* grid1, const float* grid2,
                 int channel, const AstcSearchSettings& settings, AstcSearchResult& best, AstcWeightTrial& trial) const;
    void refitWeights(const AstcSearchResult& best, int channel, float* u1, float* u2) const;
    void listModeCombinations(const AstcSearchSettings& settings);

    // The endpoint-mode combinations each fit tries, in the order it tries them: every mode of
    // the settings' list for all partitions, then the mixes a block can store; per combination
    // each partition's place in the list, its mode, and the combination's extra mode bits and
    // colour value count.
    struct ModeCombination {
        uint8_t k[4], cems[4];
        uint8_t extraBits, valueCount;
    };
    static constexpr int kMaxModeCombinations = 4 + 4 * 4 * 4 * 4;
    ModeCombination m_combinations[kMaxModeCombinations];
    int m_combinationCount = 0;

    const AstcBlockTexels& m_texels;
    const AstcPartitionPattern& m_pattern;
    int m_count;
    const float* m_weights;
    const float* m_inverseWeights;
    float m_mean[4][4];        // per partition, valid texels
    float m_sumSquares[4][4];  // per partition and channel, centred
    float m_covariance[4][4][4];
    alignas(16) float m_mask[4][kAstcMaxTexels];     // 1 for the valid texels of each partition
    alignas(16) float m_centred[4][kAstcMaxTexels];  // each texel less its partition's mean
    alignas(16) float m_ideal[2][kAstcMaxTexels];
    float m_spanSquared[2] = {};  // mean over the texels of their partition's squared span, per plane
};

}  // namespace glyptora_astc
