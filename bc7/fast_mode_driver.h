#pragma once
// The mode driver of the fast BC7 encoder: encodeBC7BlockFast() and
// encodeBC7BlockForced() (declared in bc7_fast.h, which includes this file).
//
// Texels are kept in lanes of four (texel 4g + lane is lane `lane` of group g)
// on a 0..255 scale; the error is plain squared RGBA error.
//
// Mode 6 follows its fixed fit. The two-subset modes 1, 3 (and 7 on opaque
// blocks) rank all 64 shapes by the sum of their subsets' scatters; the 16
// best are fitted (four at once, one per lane: endpoints at the extremes of
// each subset's principal-axis projection) and their error modelled with the
// projections rounded to 8 evenly spaced levels; the best of them serves all
// three modes, mode 1 refining it by least squares on the chosen indices, with
// p-bits chosen per endpoint. The three-subset modes rank shapes by scatter,
// model the candidates' error from their line fits' moments and fit the best.
// A mode whose best modelled error is well above the block's best error so far
// is not fitted. Modes 4 and 5 fit their four rotations
// together, rotation r in lane r. Indices are chosen by projection onto the
// decoded segment followed by an exact comparison of the two palette entries
// around it (the rotations take the nearer level of the projection).
#include <cstdint>

#include "bc7/bc7_fast.h"
#include "bc7/bc7_simd.h"
#include "bc7/fast_block_load.h"
#include "bc7/fast_block_writers.h"
#include "bc7/fast_endpoint_fit.h"
#include "bc7/fast_mode6.h"
#include "bc7/fast_rotation_fit.h"
#include "bc7/fast_settings.h"
#include "bc7/fast_shape_ranking.h"
#include "core/host_device.h"
#include "core/vec4.h"

namespace glyptora_bc7 {
inline namespace GLYPTORA_SIMD_ABI {
namespace fastenc {

// ---------------------------------------------------------------------------
// Running one mode on its chosen candidate: the block is written only when it
// beats the best so far.

// Refines the chosen shape of a partitioned mode; writes the block when it
// beats `best`. Returns the shape's error.
template <int NC, int NS>
GLYPTORA_HD inline float runPartitioned(const Block& b, const PartitionedMode& m, const ShapeFit<NS>& start,
                                        int refineIterations, float& best, uint8_t out[16]) {
    // Mode 7 on an opaque block keeps alpha at 255: code 31 with p-bit 1.
    const int pkind = (m.alphaBits && NC == 3) ? kPBitOne : m.pkind;
    const EndpointFormat fmt = endpointFormat(m.colourBits, m.alphaBits, m.pkind != kNoPBit);
    const int levels = 1 << m.indexBits;
    Shape<NS> shape;
    makeShape<NS>(b, start.partition, shape);
    Fit<NC, NS> fit;
    for (int s = 0; s < NS; ++s)
        for (int e = 0; e < 2; ++e) fit.f[s][e] = Vec4f::load(start.f[s][e]);
    quantizeFit<NC, NS>(fit, fmt, pkind, -1);
    fit.total = evaluate<NC, NS>(b, shape.sel, fit.dec, levels, fit.err, fit.idx);
    refineFit<NC, NS>(b, shape, fmt, pkind, levels, refineIterations, kJointPBits, fit);
    if (!(fit.total < best)) return fit.total;
    fixAnchors<NC, NS>(shape, levels, fit);
    writePartitioned<NC, NS>(m, shape, fit, out);
    best = fit.total;
    return fit.total;
}

// Fits the separate channel of the rotations in the lanes and then, unless
// `mayStop` and no lane can beat `best`, their colour; err receives each lane's
// error. Returns false when it stopped.
GLYPTORA_HD inline bool fitRotations(const Block& b, const RotationLanes& rl, const RotationVariant& v, bool mayStop,
                                     float best, LaneFit<3>& colour, LaneFit<1>& alpha, float (&err)[4]) {
    fitLanes<1>(b, rl.scalar, rl.scalarStart, v.alphaBits, v.alphaLevels, kRotationRefineIterations, alpha);
    if (mayStop && !glyptora_simd::moveMask(glyptora_simd::cmpLess(alpha.err, Vec4f(best)))) return false;
    fitLanes<3>(b, rl.colour, rl.colourStart, v.colourBits, v.colourLevels, kRotationRefineIterations, colour);
    (colour.err + alpha.err).store(err);
    return true;
}

// Fits all four rotations of a mode 4/5 variant; the rotation of least error
// (the earliest on a tie) is written when it beats `best`. forced >= 0 writes
// that rotation whatever its error. Returns the error of the rotation chosen
// (FLT_MAX when the variant stopped early, unable to win).
GLYPTORA_HD inline float encodeRotations(const Block& b, const RotationLanes& rl, const RotationVariant& v, int forced,
                                         float& best, uint8_t out[16]) {
    LaneFit<1> alpha;
    LaneFit<3> colour;
    float err[4];
    if (!fitRotations(b, rl, v, forced < 0, best, colour, alpha, err)) return kNoBlock;
    int r = forced;
    if (r < 0) {
        r = 0;
        for (int j = 1; j < 4; ++j)
            if (err[j] < err[r]) r = j;
        if (!(err[r] < best)) return err[r];
    }
    writeRotationBlock(v, r, r, colour, alpha, out);
    best = err[r];
    return err[r];
}

// ---------------------------------------------------------------------------
// The block driver.

// Steps of the driver, in their fixed order (see BC7FastTrace).
enum DriverStep { kStep6, kStep1, kStep3, kStep7, kStep0, kStep2, kStep5, kStep4Index0, kStep4Index1, kStepCount };

// Keeps each step's candidate error when a trace is asked for.
struct StepRecorder {
    BC7FastTrace* trace;
    // `err` is the step's candidate error, `bestBefore` the block's best error when the step began.
    GLYPTORA_HD void record(int step, float err, float bestBefore) {
        if (!trace) return;
        trace->stepError[step] = err;
        if (err < bestBefore) trace->keptStep = step;
    }
};

// The modes fitted to the chosen two-subset shape of an opaque block, in order:
// 0 mode 1, 1 mode 3, 2 mode 7.
GLYPTORA_HD inline const PartitionedMode& twoSubsetMode(int which) {
    return which == 0 ? kMode1 : (which == 1 ? kMode3 : kMode7);
}

// Whether two-subset mode `which` is fitted to a chosen shape of modelled error
// `model`: mode 7, which rarely beats mode 3, only below the best error itself.
GLYPTORA_HD inline bool twoSubsetModeRuns(int which, float model, float best) {
    return best > 0.0f && model < (which == 2 ? kRejectRatioMode7 : kRejectRatio) * best;
}

GLYPTORA_HD inline float runTwoSubsetMode(const Block& b, int which, const ShapeFit<2>& chosen, float& best,
                                          uint8_t out[16]) {
    const int iterations = which == 0 ? kRefineIterations : (which == 1 ? kRefineIterationsMode3 : 0);
    return runPartitioned<3, 2>(b, twoSubsetMode(which), chosen, iterations, best, out);
}

// Two-subset modes 1 and 3 (and 7, whose own ranking equals theirs while
// alpha is constant): the 16 shapes of least residual, each fitted and its
// error modelled for 3-bit (mode 1) indices.
GLYPTORA_HD inline void encodeTwoSubsetModes(const Block& b, const RowMoments<3>& rm, float& best, uint8_t out[16],
                                             StepRecorder& rec) {
    float scatter[64];
    scatterEstimates<3, 2>(b, rm, scatter);
    int order[16];
    const int count = selectShapes(scatter, kShapes, kTwoSubsetCandidates, order);
    ShapeStats<3, 2, 16> st;
    shapeStats<3, 2, 16>(b, rm, order, count, kPowerIterations, st);
    const int slots[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    ShapeFit<2> fits[16];
    fitCandidates<3, 2, 16>(b, st, slots, order, count, kOpaqueModelLevels, 0, fits);
    ShapeFit<2>& chosen = fits[bestCandidate<2>(fits, count, 0)];
    setEndpoints<3, 2, 16>(st, chosen);
    const int steps[3] = {kStep1, kStep3, kStep7};
    for (int which = 0; which < 3; ++which) {
        if (!twoSubsetModeRuns(which, chosen.model[0], best)) continue;
        const float before = best;
        rec.record(steps[which], runTwoSubsetMode(b, which, chosen, best, out), before);
    }
}

// Whether a three-subset mode can win with the estimates of its first `limit`
// shapes: each candidate's modelled error is at least its scatter / (levels - 1)^2.
GLYPTORA_HD inline bool threeSubsetModeCanWin(const float* est, int limit, const PartitionedMode& m, float best) {
    const float k = 1.0f / float(((1 << m.indexBits) - 1) * ((1 << m.indexBits) - 1));
    Vec4f least(kNoBlock);
    for (int p = 0; p < limit; p += 4) least = glyptora_simd::min(least, Vec4f::load(&est[p]));
    return lanes::hmin(least) * k < kRejectRatio * best;
}

// Fits and refines the chosen candidate (statistics in `slot`) of a three-subset
// mode, unless its modelled error leaves it no chance. Returns its error.
template <int N>
GLYPTORA_HD inline float runThreeSubsetMode(const Block& b, const ShapeStats<3, 3, N>& st, int slot, int partition,
                                            float model, const PartitionedMode& m, float& best, uint8_t out[16]) {
    if (!(model < kRejectRatio * best)) return kNoBlock;
    ShapeFit<3> fit;
    fitShape<3, 3, N>(b, st, slot, partition, fit);
    return runPartitioned<3, 3>(b, m, fit, kRefineIterations3, best, out);
}

// A three-subset mode: the `keep` shapes of least scatter among the first
// `limit`, each fitted by its subsets' lines with the error modelled from their
// moments; the best is refined. Returns its error.
GLYPTORA_HD inline float encodeThreeSubsetMode(const Block& b, const RowMoments<3>& rm, const float (&est)[64],
                                               const PartitionedMode& m, int limit, int keep, float& best,
                                               uint8_t out[16]) {
    if (!threeSubsetModeCanWin(est, limit, m, best)) return kNoBlock;
    int order[16];
    const int count = selectShapes(est, limit, keep, order);
    ShapeStats<3, 3, 16> st;
    shapeStats<3, 3, 16>(b, rm, order, count, kPowerIterations, st);
    float model;
    const int slot = bestByMoments<3, 3, 16>(st, count, 1 << m.indexBits, model);
    return runThreeSubsetMode<16>(b, st, slot, order[slot], model, m, best, out);
}

// Mode 7 on a translucent block, fitted to its chosen shape.
GLYPTORA_HD inline float runTranslucentMode7(const Block& b, const ShapeFit<2>& chosen, float& best, uint8_t out[16]) {
    return runPartitioned<4, 2>(b, kMode7, chosen, kRefineIterations, best, out);
}

// Mode 7 on a translucent block: all 64 shapes ranked by their four-channel
// line residuals, the 16 best fitted, the best of them refined.
GLYPTORA_HD inline void encodeTranslucentMode7(const Block& b, float& best, uint8_t out[16], StepRecorder& rec) {
    RowMoments<4> rm;
    buildRowMoments<4>(b, rm);
    ShapeStats<4, 2, 64> st;
    int all[64];
    for (int p = 0; p < 64; ++p) all[p] = p;
    shapeStats<4, 2, 64>(b, rm, all, 64, kPowerIterations, st);
    int order[16];
    const int count = selectShapes(st.est, kShapes, kTwoSubsetCandidates, order);
    ShapeFit<2> fits[16];
    fitCandidates<4, 2, 64>(b, st, order, order, count, kTranslucentModelLevels, 0, fits);
    const float before = best;
    ShapeFit<2>& chosen = fits[bestCandidate<2>(fits, count, 0)];
    setEndpoints<4, 2, 64>(st, chosen);
    rec.record(kStep7, runTranslucentMode7(b, chosen, best, out), before);
}

// Rotation variant v of the driver's order: 0 mode 5, 1 mode 4 with 2-bit
// colour indices, 2 mode 4 with 3-bit colour indices.
GLYPTORA_HD inline RotationVariant driverRotationVariant(int v) {
    return v == 0 ? rotationVariant(5, 0) : rotationVariant(4, v - 1);
}

GLYPTORA_HD inline void encodeRotationVariant(const Block& b, const RotationLanes& rl, int v, float& best,
                                              uint8_t out[16], StepRecorder& rec) {
    const int steps[3] = {kStep5, kStep4Index0, kStep4Index1};
    const float before = best;
    rec.record(steps[v], encodeRotations(b, rl, driverRotationVariant(v), -1, best, out), before);
}

// The driver: every step compares against and updates the block's best error.
// Steps are skipped once the best error is 0 (nothing can beat it).
GLYPTORA_HD inline float encodeBlock(const Block& b, uint8_t out[16], BC7FastTrace* trace) {
    StepRecorder rec{trace};
    if (trace) {
        for (int i = 0; i < kStepCount; ++i) trace->stepError[i] = kNoBlock;
        trace->keptStep = -1;
    }
    float best = kNoBlock, before = best;
    rec.record(kStep6, encodeMode6(b, best, out), before);
    if (b.opaque) {
        if (best > 0.0f) {
            RowMoments<3> rm;
            buildRowMoments<3>(b, rm);
            encodeTwoSubsetModes(b, rm, best, out, rec);
            if (best > 0.0f) {
                float est[64];
                scatterEstimates<3, 3>(b, rm, est);
                before = best;
                rec.record(kStep0,
                           encodeThreeSubsetMode(b, rm, est, kMode0, kMode0Shapes, kMode0Candidates, best, out),
                           before);
                if (best > 0.0f) {
                    before = best;
                    rec.record(kStep2, encodeThreeSubsetMode(b, rm, est, kMode2, kShapes, kMode2Candidates, best, out),
                               before);
                }
            }
        }
    } else if (best > 0.0f) {
        encodeTranslucentMode7(b, best, out, rec);
    }
    if (best > 0.0f) {
        RotationLanes rl;
        buildRotationLanes(b, rl);
        for (int v = 0; v < 3 && best > 0.0f; ++v) encodeRotationVariant(b, rl, v, best, out, rec);
    }
    return best;
}

// One shape of a partitioned mode, fitted and refined as the driver does.
template <int NC, int NS>
GLYPTORA_HD inline void encodeShape(const Block& b, const PartitionedMode& m, int partition, float& best,
                                    uint8_t out[16]) {
    RowMoments<NC> rm;
    buildRowMoments<NC>(b, rm);
    ShapeStats<NC, NS, 4> st;
    const int shape[1] = {partition};
    shapeStats<NC, NS, 4>(b, rm, shape, 1, kPowerIterations, st);
    ShapeFit<NS> fit;
    fitShape<NC, NS, 4>(b, st, 0, partition, fit);
    const int iterations = NS == 3 ? kRefineIterations3 : (m.mode == 3 ? kRefineIterationsMode3 : kRefineIterations);
    runPartitioned<NC, NS>(b, m, fit, iterations, best, out);
}

GLYPTORA_HD inline float encodeForced(const Block& b, const BC7ForcedChoice& choice, uint8_t out[16]) {
    float best = kNoBlock;
    const int mode = clampi(choice.mode, 0, 7);
    const int partition = clampi(choice.partition, 0, mode == 0 ? 15 : 63);
    switch (mode) {
        case 6:
            encodeMode6(b, best, out);
            break;
        case 4:
        case 5: {
            RotationLanes rl;
            buildRotationLanes(b, rl);
            encodeRotations(b, rl, rotationVariant(mode, clampi(choice.indexMode, 0, 1)), clampi(choice.rotation, 0, 3),
                            best, out);
            break;
        }
        case 0:
            encodeShape<3, 3>(b, kMode0, partition, best, out);
            break;
        case 2:
            encodeShape<3, 3>(b, kMode2, partition, best, out);
            break;
        case 1:
            encodeShape<3, 2>(b, kMode1, partition, best, out);
            break;
        case 3:
            encodeShape<3, 2>(b, kMode3, partition, best, out);
            break;
        default:
            if (b.opaque)
                encodeShape<3, 2>(b, kMode7, partition, best, out);
            else
                encodeShape<4, 2>(b, kMode7, partition, best, out);
            break;
    }
    return best;
}

}  // namespace fastenc

GLYPTORA_HD inline float encodeBC7BlockFast(const float texels[64], uint16_t validRegion, bool imageHasAlpha,
                                            uint8_t out[16], BC7FastTrace* trace) {
    fastenc::Block b;
    fastenc::loadBlock(texels, validRegion, imageHasAlpha, b);
    return fastenc::encodeBlock(b, out, trace);
}

GLYPTORA_HD inline float encodeBC7BlockForced(const float texels[64], uint16_t validRegion, bool imageHasAlpha,
                                              const BC7ForcedChoice& choice, uint8_t out[16]) {
    fastenc::Block b;
    fastenc::loadBlock(texels, validRegion, imageHasAlpha, b);
    return fastenc::encodeForced(b, choice, out);
}

}  // namespace GLYPTORA_SIMD_ABI
}  // namespace glyptora_bc7
