#pragma once
// The per-block search of the ASTC encoder: for each candidate block mode, fit weights on
// the mode's grid, quantise them, fit endpoints to the quantised weights by least squares,
// encode the endpoints in each endpoint mode tried and score the result; the best few get
// refined by fitting the weights again to their quantised endpoints.
#include <cstdint>
#include <vector>

#include "astc/block_layout.h"
#include "astc/block_state.h"
#include "astc/block_texels.h"
#include "astc/fit_models.h"
#include "astc/mode_groups.h"

namespace glyptora_astc {

struct AstcSearchResult {
    double error = kAstcNoBlockError;  // weighted squared error over the valid texels
    AstcBlockContent content;          // valid when error is below kAstcNoBlockError
};

// What a search tries besides the block modes.
struct AstcSearchSettings {
    const uint8_t* endpointModes = nullptr;  // in order of trial
    int endpointModeCount = 0;
    int refineRounds = 1;  // weight refits of each refined mode
    int polishRounds = 0;  // grid-point level moves of a polished mode, each followed by an endpoint refit
    // Modes refined (the best first fits, at most 8), how much worse than the best error before
    // the search a first fit may be to be refined when more than one is, and whether every
    // refined mode is polished or only the best after refinement.
    int refinedModes = 1;
    double refineSlack = 1.0;
    bool polishEveryRefined = false;
    // Modes fitted in full: the others are ranked by an error estimate and only this many of
    // the best estimated go on; 0 fits every mode.
    int fullFits = 0;
    // Modes of at most kAstcStretchedStartLevels weight levels also start from the ideal weights
    // stretched about their middle by this factor (1: not): with few levels, endpoints a little
    // inside the extreme texels often fit better than endpoints on them. Single plane only.
    float lowLevelStretch = 1.0f;
    bool chooseLevels = false;     // endpoint levels chosen by the error model, not the nearest
    bool blueContraction = false;  // the direct modes also try their blue-contracted form
};

// Weight ranges of at most this many levels get the stretched start of lowLevelStretch.
inline constexpr int kAstcStretchedStartLevels = 5;

// Endpoint modes of the searches: luminance, RGB base plus scale, RGB direct, RGB base plus
// offset; with alpha their counterparts with alpha.
inline constexpr uint8_t kAstcOpaqueEndpointModes[4] = {0, 6, 8, 9};
inline constexpr uint8_t kAstcAlphaEndpointModes[4] = {4, 10, 12, 13};

class AstcBlockSearch {
public:
    AstcBlockSearch(const AstcBlockTexels& texels, const float weights[4], const float inverseWeights[4]);

    // Tries the single-plane modes of `groups`; `best` is replaced only by a strictly better
    // encoding.
    void singlePlane(const std::vector<AstcModeGroup>& groups, const AstcSearchSettings& settings,
                     AstcSearchResult& best);
    // Tries the dual-plane modes of `groups` with channel `channel` (0..3) on the second plane.
    void dualPlane(const std::vector<AstcModeGroup>& groups, int channel, const AstcSearchSettings& settings,
                   AstcSearchResult& best);

private:
    void search(const std::vector<AstcModeGroup>& groups, int channel, const AstcSearchSettings& settings,
                AstcSearchResult& best);
    void idealWeights(int channel);
    int selectByEstimate(const std::vector<AstcModeGroup>& groups, int channel, int keep, const AstcModeInfo** modes,
                         const AstcGridInfill** grids) const;
    bool tryMode(const AstcModeInfo& info, const AstcGridInfill& grid, const float* grid1, const float* grid2,
                 int channel, const AstcSearchSettings& settings, AstcSearchResult& best, AstcWeightTrial& trial) const;
    void refitWeights(const AstcSearchResult& best, int channel, float* u1, float* u2) const;

    const AstcBlockTexels& m_texels;
    const float* m_weights;
    const float* m_inverseWeights;
    float m_mean[4];
    float m_sumSquares[4];  // per channel, centred, valid texels
    alignas(16) float m_centred[4][kAstcMaxTexels];
    alignas(16) float m_ideal[2][kAstcMaxTexels];  // per-texel weights to fit: plane 1, plane 2
    float m_span[2] = {};                          // colour distance the ideal weights 0..1 cover
    float m_covariance[4][4];
};

// Fits grid weights to per-texel weights `u` (texels padded with zeros to a multiple of 4) by
// the grid's least-squares fit (InfillMatDataBase::prepareFit).
void astcFitGrid(const AstcGridInfill& grid, int texels, const float* u, float* out);

}  // namespace glyptora_astc
