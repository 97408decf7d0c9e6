#pragma once
// What one GPU thread does for one block in each stage of the BC7 launch sequence
// (gpu/bc7_gpu_encode.cpp): the fast BC7 encoder's driver (bc7/fast_mode_driver.h) cut into
// stages whose repeated launches take one shape, candidate or rotation each, so that a thread
// keeps little state. Between stages a block's state lives in device scratch: its best error,
// its block in the output, its opacity flag (images with alpha) and the arrays of the stage's
// group (ScratchLayout). Every stage rebuilds the block's texels from the view.
//
// Stage (launches): work of launch i
//  1 (1)    opacity flags, images with alpha only
//  2 (1)    mode 6
//  3 (64)   opaque blocks: scatter estimate of two-subset shape i; the last launch keeps 16
//  4 (16)   candidate i fitted and its modelled error compared with the one kept
//  5 (16)   launches 0, 1, 2: modes 1, 3, 7 on the kept candidate; the others have no work
//  6 (64)   translucent blocks: four-channel line residuals of shape i; the last keeps 16
//  7 (16)   as 4; the last launch then runs mode 7 on the kept candidate
//  8 (16)   opaque blocks: three-subset estimate of shape i; the last launch keeps 4
//  9 (4)    modelled error of candidate i; the last launch runs mode 0 on the best
// 10, 11    as 8, 9 for mode 2: 64 shapes, 16 candidates
// 12-14 (4) rotation i of mode 5, mode 4 (2-bit colour indices), mode 4 (3-bit ones)
// The stages call the encoder's own steps in its order, with its "best error above zero"
// conditions, its selections and its tie-breaks (the earlier candidate or rotation wins), so
// the blocks are the CPU fast encoder's for 8-bit input.
#include <cstddef>
#include <cstdint>

#include "bc7/bc7_fast.h"
#include "core/host_device.h"
#include "gpu/gpu_views.h"

namespace glyptora_internal::gpu_bc7 {

namespace fe = glyptora_bc7::fastenc;

// Number of stage functions of the sequence and the launches of stage s at [s - 1] (host
// side; a stage knows its count from the encoder's search widths).
inline constexpr int kStageCount = 14;
inline constexpr int kStageLaunches[kStageCount] = {1, 1, 64, 16, 16, 64, 16, 16, 4, 64, 16, 4, 4, 4};
static_assert(kStageLaunches[2] == fe::kShapes && kStageLaunches[3] == fe::kTwoSubsetCandidates &&
              kStageLaunches[5] == fe::kShapes && kStageLaunches[6] == fe::kTwoSubsetCandidates &&
              kStageLaunches[7] == fe::kMode0Shapes && kStageLaunches[8] == fe::kMode0Candidates &&
              kStageLaunches[9] == fe::kShapes && kStageLaunches[10] == fe::kMode2Candidates &&
              kStageLaunches[11] == 4 && kStageLaunches[12] == 4 && kStageLaunches[13] == 4);

// The kernels' one argument record, passed by value.
struct StageArgs {
    GPUU8View view;
    uint8_t* out;       // 16 bytes a block
    float* best;        // n: the block's best error
    uint8_t* opaque;    // n: opacity of each block, or null when the image has no alpha
    float* scratch;     // the arrays of the stage's group, or null
    uint32_t count;     // n
    uint32_t index;     // the launch's loop index within its repeat
};

// The stages sharing one scratch allocation, named by their first stage: 3 (to 5), 6 (and
// 7), 8 (and 9), 10 (to 14); 0 for stages 1 and 2.
GLYPTORA_HD constexpr int scratchGroup(int stage) {
    return stage >= 10 ? 10 : (stage >= 8 ? 8 : (stage >= 6 ? 6 : (stage >= 3 ? 3 : 0)));
}

// Floats per block of a group's scratch: the estimates of the shapes it scans, the candidates
// it keeps (shape numbers) and its chosen candidate (modelled error, shape and, for the
// two-subset groups, the extremes of both subsets' projections). FLT_MAX stands for "none
// yet" throughout.
struct ScratchLayout {
    int estimates, candidates, chosen;
    GLYPTORA_HD constexpr int floats() const { return estimates + candidates + chosen; }
};

GLYPTORA_HD constexpr ScratchLayout scratchLayout(int stage) {
    switch (scratchGroup(stage)) {
        case 3:
        case 6:
            return {fe::kShapes, fe::kTwoSubsetCandidates, 6};
        case 8:
            return {fe::kMode0Shapes, fe::kMode0Candidates, 2};
        case 10:
            return {fe::kShapes, fe::kMode2Candidates, 2};
        default:
            return {0, 0, 0};
    }
}

namespace detail {

// Block t's floats of its group's scratch. Element k of every block lies together ([k n + t]),
// so the threads of a launch touch neighbouring floats.
struct Scratch {
    float* base;
    uint32_t n, t;
    ScratchLayout layout;
    GLYPTORA_HD float& estimate(int k) const { return base[size_t(k) * n + t]; }
    GLYPTORA_HD float& candidate(int j) const { return estimate(layout.estimates + j); }
    GLYPTORA_HD float& chosen(int k) const { return estimate(layout.estimates + layout.candidates + k); }
};

GLYPTORA_HD inline Scratch scratchOf(const StageArgs& a, int stage, uint32_t t) {
    return Scratch{a.scratch, a.count, t, scratchLayout(stage)};
}

// A shape number from the scratch, or -1 for none.
GLYPTORA_HD inline int shapeAt(float value) { return value < float(fe::kShapes) ? int(value) : -1; }

// The block's texels as the CPU view fetches them (RGBA, 8-bit values scaled by 1/255).
GLYPTORA_HD inline void loadTile(const StageArgs& a, uint32_t tile, fe::Block& b) {
    float texels[64];
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 4; ++x) {
            const uint8_t* p = tilePixel(a.view, tile, x, y);
            for (int c = 0; c < 4; ++c) texels[(y * 4 + x) * 4 + c] = float(p[c]) * 0.003921569f;
        }
    const TileValidRegion r = a.view.regions[tile];
    fe::loadBlock(texels, uint16_t(r.width | (r.height << 8)), a.opaque != nullptr, b);
}

enum class Blocks { Any, Opaque, Translucent };

// Loads block t when a stage for `which` blocks has work on it: its best error is above zero
// (nothing beats an exact block) and its opacity fits.
GLYPTORA_HD inline bool loadIfRunning(const StageArgs& a, uint32_t t, Blocks which, fe::Block& b) {
    if (!(a.best[t] > 0.0f)) return false;
    const bool opaque = a.opaque == nullptr || a.opaque[t] != 0;
    if (which != Blocks::Any && opaque != (which == Blocks::Opaque)) return false;
    loadTile(a, t, b);
    return true;
}

// Runs `encode(best, block)`, which writes a whole block when it lowers `best`; the block and
// its error are stored when it did.
template <typename Encode>
GLYPTORA_HD inline void encodeInto(const StageArgs& a, uint32_t t, Encode encode) {
    float best = a.best[t];
    uint8_t block[16] = {};
    encode(best, block);
    if (!(best < a.best[t])) return;
    uint8_t* out = a.out + 16 * size_t(t);
    for (int i = 0; i < 16; ++i) out[i] = block[i];
    a.best[t] = best;
}

// After a scan's last shape: the encoder's candidates among the first `limit` estimates, in
// the order of its selection; none when the three-subset mode given cannot win.
GLYPTORA_HD inline void keepCandidates(const Scratch& s, int limit, int keep, const fe::PartitionedMode* threeSubset,
                                       float best) {
    float est[64];
    for (int k = 0; k < limit; ++k) est[k] = s.estimate(k);
    if (threeSubset && !fe::threeSubsetModeCanWin(est, limit, *threeSubset, best)) return;
    int order[16];
    const int count = fe::selectShapes(est, limit, keep, order);
    for (int j = 0; j < count; ++j) s.candidate(j) = float(order[j]);
}

// Line statistics of one shape, in slot 0.
template <int NC, int NS>
GLYPTORA_HD inline void statsOf(const fe::Block& b, int shape, fe::ShapeStats<NC, NS, 4>& st) {
    fe::TexelMoments<NC> m;
    fe::buildTexelMoments<NC>(b, m);
    const int shapes[1] = {shape};
    fe::shapeStats<NC, NS, 4>(b, m, shapes, 1, fe::kPowerIterations, st);
}

// Two-subset candidate j fitted; kept when it is the first or models a strictly smaller error
// than the one kept (the encoder's bestCandidate).
template <int NC>
GLYPTORA_HD inline void rateTwoSubsetCandidate(const fe::Block& b, const Scratch& s, int j, int levels) {
    const int shape = shapeAt(s.candidate(j));
    if (shape < 0) return;
    fe::ShapeStats<NC, 2, 4> st;
    statsOf<NC, 2>(b, shape, st);
    const int shapes[1] = {shape}, slots[1] = {0};
    fe::ShapeFit<2> fit;
    fe::fitCandidates<NC, 2, 4>(b, st, slots, shapes, 1, levels, 0, &fit);
    if (j > 0 && !(fit.model[0] < s.chosen(0))) return;
    const float kept[6] = {fit.model[0], float(shape), fit.lo[0], fit.lo[1], fit.hi[0], fit.hi[1]};
    for (int k = 0; k < 6; ++k) s.chosen(k) = kept[k];
}

// The kept two-subset candidate with its endpoints; false when there is none.
template <int NC>
GLYPTORA_HD inline bool chosenTwoSubsetFit(const fe::Block& b, const Scratch& s, fe::ShapeFit<2>& fit) {
    fit.partition = shapeAt(s.chosen(1));
    if (fit.partition < 0) return false;
    fit.slot = 0;
    fit.model[0] = s.chosen(0);
    fit.model[1] = 0.0f;
    for (int k = 0; k < 2; ++k) {
        fit.lo[k] = s.chosen(2 + k);
        fit.hi[k] = s.chosen(4 + k);
    }
    fe::ShapeStats<NC, 2, 4> st;
    statsOf<NC, 2>(b, fit.partition, st);
    fe::setEndpoints<NC, 2, 4>(st, fit);
    return true;
}

// Three-subset candidate j's modelled error; kept when strictly smaller than the one kept
// (the encoder's bestByMoments).
GLYPTORA_HD inline void rateThreeSubsetCandidate(const fe::Block& b, const Scratch& s, int j,
                                                 const fe::PartitionedMode& m) {
    const int shape = shapeAt(s.candidate(j));
    if (shape < 0) return;
    fe::ShapeStats<3, 3, 4> st;
    statsOf<3, 3>(b, shape, st);
    const float model = fe::momentModel<3, 3, 4>(st, 0, 1 << m.indexBits);
    if (!(model < s.chosen(0))) return;
    s.chosen(0) = model;
    s.chosen(1) = float(shape);
}

// A scan stage for `which` blocks: launch i stores the estimate `rate(b, i)` of shape i; the
// last of the `limit` launches keeps the candidates.
template <typename Rate>
GLYPTORA_HD inline void scanShapes(const StageArgs& a, uint32_t t, int stage, Blocks which, int limit, int keep,
                                   const fe::PartitionedMode* threeSubset, Rate rate) {
    fe::Block b;
    if (!loadIfRunning(a, t, which, b)) return;
    const Scratch s = scratchOf(a, stage, t);
    const int i = int(a.index);
    s.estimate(i) = rate(b, i);
    if (i == limit - 1) keepCandidates(s, limit, keep, threeSubset, a.best[t]);
}

// The scatter estimate of NS-subset shape i of an opaque block.
template <int NS>
GLYPTORA_HD inline float scatterEstimate(const fe::Block& b, int i) {
    fe::TexelMoments<3> tm;
    fe::buildTexelMoments<3>(b, tm);
    const int p[4] = {i, i, i, i};
    return fe::scatterEstimate4<3, NS>(b, tm, p, fe::totalSquares<3>(tm))[0];
}

}  // namespace detail

// Stage 1: the block's opacity (alpha of at least 1.0 on every valid texel).
GLYPTORA_HD inline void stageOpacity(const StageArgs& a, uint32_t t) {
    fe::Block b;
    detail::loadTile(a, t, b);
    a.opaque[t] = b.opaque ? 1 : 0;
}

// Stage 2: mode 6, the first candidate of every block; it writes the block whatever the
// output held before.
GLYPTORA_HD inline void stageMode6(const StageArgs& a, uint32_t t) {
    fe::Block b;
    detail::loadTile(a, t, b);
    float best = a.best[t];  // FLT_MAX from the fill
    uint8_t block[16] = {};
    fe::encodeMode6(b, best, block);
    uint8_t* out = a.out + 16 * size_t(t);
    for (int i = 0; i < 16; ++i) out[i] = block[i];
    a.best[t] = best;
}

// Stage 3: the scatter estimate of two-subset shape `index` of an opaque block.
GLYPTORA_HD inline void stageTwoSubsetScan(const StageArgs& a, uint32_t t) {
    using namespace detail;
    scanShapes(a, t, 3, Blocks::Opaque, fe::kShapes, fe::kTwoSubsetCandidates, nullptr,
               [](const fe::Block& b, int i) { return scatterEstimate<2>(b, i); });
}

// Stage 4: two-subset candidate `index` of an opaque block.
GLYPTORA_HD inline void stageTwoSubsetCandidate(const StageArgs& a, uint32_t t) {
    using namespace detail;
    fe::Block b;
    if (!loadIfRunning(a, t, Blocks::Opaque, b)) return;
    rateTwoSubsetCandidate<3>(b, scratchOf(a, 4, t), int(a.index), fe::kOpaqueModelLevels);
}

// Stage 5: launches 0, 1 and 2 fit modes 1, 3 and 7 to the chosen two-subset shape.
GLYPTORA_HD inline void stageTwoSubsetModes(const StageArgs& a, uint32_t t) {
    using namespace detail;
    const int which = int(a.index);
    fe::Block b;
    if (which >= 3 || !loadIfRunning(a, t, Blocks::Opaque, b)) return;
    const Scratch s = scratchOf(a, 5, t);
    fe::ShapeFit<2> fit;
    if (!fe::twoSubsetModeRuns(which, s.chosen(0), a.best[t]) || !chosenTwoSubsetFit<3>(b, s, fit)) return;
    encodeInto(a, t, [&](float& best, uint8_t* block) { fe::runTwoSubsetMode(b, which, fit, best, block); });
}

// Stage 6: the four-channel line residuals of two-subset shape `index` of a translucent block.
GLYPTORA_HD inline void stageTranslucentScan(const StageArgs& a, uint32_t t) {
    using namespace detail;
    scanShapes(a, t, 6, Blocks::Translucent, fe::kShapes, fe::kTwoSubsetCandidates, nullptr,
               [](const fe::Block& b, int i) {
                   fe::ShapeStats<4, 2, 4> st;
                   statsOf<4, 2>(b, i, st);
                   return st.est[0];
               });
}

// Stage 7: candidate `index` of a translucent block; after the last, mode 7 on the chosen one.
GLYPTORA_HD inline void stageTranslucentCandidate(const StageArgs& a, uint32_t t) {
    using namespace detail;
    fe::Block b;
    if (!loadIfRunning(a, t, Blocks::Translucent, b)) return;
    const Scratch s = scratchOf(a, 7, t);
    const int j = int(a.index);
    rateTwoSubsetCandidate<4>(b, s, j, fe::kTranslucentModelLevels);
    fe::ShapeFit<2> fit;
    if (j != fe::kTwoSubsetCandidates - 1 || !chosenTwoSubsetFit<4>(b, s, fit)) return;
    encodeInto(a, t, [&](float& best, uint8_t* block) { fe::runTranslucentMode7(b, fit, best, block); });
}

// Stages 8 and 10: the three-subset estimate of shape `index` for mode 0 (its first 16
// shapes) or mode 2 (all 64) of an opaque block.
GLYPTORA_HD inline void stageThreeSubsetScan(int stage, const StageArgs& a, uint32_t t) {
    using namespace detail;
    const auto rate = [](const fe::Block& b, int i) { return scatterEstimate<3>(b, i); };
    if (stage == 8)
        scanShapes(a, t, 8, Blocks::Opaque, fe::kMode0Shapes, fe::kMode0Candidates, &fe::kMode0, rate);
    else
        scanShapes(a, t, 10, Blocks::Opaque, fe::kShapes, fe::kMode2Candidates, &fe::kMode2, rate);
}

// Stages 9 and 11: candidate `index` of mode 0 or mode 2; after the last, the mode on the
// chosen one.
GLYPTORA_HD inline void stageThreeSubsetCandidate(int stage, const StageArgs& a, uint32_t t) {
    using namespace detail;
    fe::Block b;
    if (!loadIfRunning(a, t, Blocks::Opaque, b)) return;
    const fe::PartitionedMode& m = stage == 9 ? fe::kMode0 : fe::kMode2;
    const Scratch s = scratchOf(a, stage, t);
    const int j = int(a.index);
    rateThreeSubsetCandidate(b, s, j, m);
    const int shape = shapeAt(s.chosen(1));
    if (j != (stage == 9 ? fe::kMode0Candidates : fe::kMode2Candidates) - 1 || shape < 0) return;
    fe::ShapeStats<3, 3, 4> st;
    statsOf<3, 3>(b, shape, st);
    const float model = s.chosen(0);
    encodeInto(a, t, [&](float& best, uint8_t* block) {
        fe::runThreeSubsetMode<4>(b, st, 0, shape, model, m, best, block);
    });
}

// Stages 12 to 14: rotation `index` of mode 5, mode 4 with 2-bit colour indices, mode 4 with
// 3-bit colour indices, fitted in every lane.
GLYPTORA_HD inline void stageRotation(int stage, const StageArgs& a, uint32_t t) {
    using namespace detail;
    fe::Block b;
    if (!loadIfRunning(a, t, Blocks::Any, b)) return;
    const int r = int(a.index);
    const fe::RotationVariant v = fe::driverRotationVariant(stage - 12);
    encodeInto(a, t, [&](float& best, uint8_t* block) {
        fe::RotationLanes rl;
        const int rotation[4] = {r, r, r, r};
        fe::buildRotationLanes(b, rl, rotation);
        fe::LaneFit<3> colour;
        fe::LaneFit<1> alpha;
        float err[4];
        if (!fe::fitRotations(b, rl, v, true, best, colour, alpha, err) || !(err[0] < best)) return;
        fe::writeRotationBlock(v, r, 0, colour, alpha, block);
        best = err[0];
    });
}

// The stage function `stage` (1 to 14) for tile t. Each kernel inlines it with its own stage
// number, so that it carries that stage's code and state alone.
#if defined(__CUDACC__)
#define GLYPTORA_BC7_STAGE_DISPATCH __host__ __device__ __forceinline__
#else
#define GLYPTORA_BC7_STAGE_DISPATCH inline
#endif
GLYPTORA_BC7_STAGE_DISPATCH void runStage(int stage, const StageArgs& a, uint32_t t) {
    switch (stage) {
        case 1:
            return stageOpacity(a, t);
        case 2:
            return stageMode6(a, t);
        case 3:
            return stageTwoSubsetScan(a, t);
        case 4:
            return stageTwoSubsetCandidate(a, t);
        case 5:
            return stageTwoSubsetModes(a, t);
        case 6:
            return stageTranslucentScan(a, t);
        case 7:
            return stageTranslucentCandidate(a, t);
        case 8:
        case 10:
            return stageThreeSubsetScan(stage, a, t);
        case 9:
        case 11:
            return stageThreeSubsetCandidate(stage, a, t);
        default:
            return stageRotation(stage, a, t);
    }
}

#undef GLYPTORA_BC7_STAGE_DISPATCH

// The FLT_MAX fill of the scratch arrays, one thread an element.
GLYPTORA_HD inline void fillFltMax(float* values, uint64_t i) { values[i] = 3.4028235e38f; }

}  // namespace glyptora_internal::gpu_bc7
