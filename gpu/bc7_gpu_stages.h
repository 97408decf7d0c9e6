#pragma once
// What one GPU thread does in each stage of the BC7 launch sequence (gpu/bc7_gpu_encode.cpp):
// one block of the fast BC7 encoder's driver step that the stage carries. The state a block
// carries from stage to stage lives in device scratch: its best error so far, its block in
// the output and its opacity flag (images with alpha). Every
// stage rebuilds the block's texels from the view, so a stage needs no other stage's texels.
//
// The stages run the encoder's own step functions (bc7/fast_mode_driver.h) and check the
// same "best error above zero" conditions in the same order, so the blocks are the CPU fast
// encoder's blocks for 8-bit input. Stages repeated over shape or candidate indices do their
// step in the launch of index 0; the others of the repeat have no work yet (a finer split of
// the shape ranking over those launches is still to come).
#include <cstdint>

#include "bc7/bc7_fast.h"
#include "core/host_device.h"
#include "gpu/gpu_views.h"

namespace glyptora_internal::gpu_bc7 {

// Number of stage functions of the sequence.
inline constexpr int kStageCount = 14;

// The kernels' one argument record, passed by value.
struct StageArgs {
    GPUU8View view;
    uint8_t* out;       // 16 bytes a block
    float* best;        // n: the block's best error
    uint8_t* opaque;    // n: opacity of each block, or null when the image has no alpha
    uint32_t count;     // n
    uint32_t index;     // the launch's loop index within its repeat
};

namespace detail {

namespace fe = glyptora_bc7::fastenc;

// The block's texels as the CPU view fetches them (RGBA, 8-bit values scaled by 1/255).
GLYPTORA_HD inline void loadTile(const StageArgs& a, uint32_t tile, bool imageHasAlpha, fe::Block& b) {
    float texels[64];
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 4; ++x) {
            const uint8_t* p = tilePixel(a.view, tile, x, y);
            for (int c = 0; c < 4; ++c) texels[(y * 4 + x) * 4 + c] = float(p[c]) * 0.003921569f;
        }
    const TileValidRegion r = a.view.regions[tile];
    fe::loadBlock(texels, uint16_t(r.width | (r.height << 8)), imageHasAlpha, b);
}

// Runs `step(block, best, out, recorder)` for tile `t` with its state loaded from and
// stored back to the scratch.
template <typename Step>
GLYPTORA_HD inline void withBlockState(const StageArgs& a, uint32_t t, Step step) {
    fe::Block b;
    loadTile(a, t, a.opaque != nullptr, b);
    if (a.opaque) b.opaque = a.opaque[t] != 0;
    float best = a.best[t];
    if (!(best > 0.0f)) return;  // nothing beats an exact block
    uint8_t* out = a.out + 16 * size_t(t);
    uint8_t block[16];
    for (int i = 0; i < 16; ++i) block[i] = out[i];
    fe::StepRecorder rec{nullptr};
    step(b, best, block, rec);
    for (int i = 0; i < 16; ++i) out[i] = block[i];
    a.best[t] = best;
}

}  // namespace detail

// Stage #1: the block's opacity (alpha of at least 1.0 on every valid texel).
GLYPTORA_HD inline void stageOpacity(const StageArgs& a, uint32_t t) {
    detail::fe::Block b;
    detail::loadTile(a, t, true, b);
    a.opaque[t] = b.opaque ? 1 : 0;
}

// Stage #2: mode 6, the first candidate of every block; it writes the block whatever the
// output held before.
GLYPTORA_HD inline void stageMode6(const StageArgs& a, uint32_t t) {
    namespace fe = detail::fe;
    fe::Block b;
    detail::loadTile(a, t, a.opaque != nullptr, b);
    if (a.opaque) b.opaque = a.opaque[t] != 0;
    float best = a.best[t];  // FLT_MAX from the fill
    uint8_t block[16] = {};
    fe::encodeMode6(b, best, block);
    uint8_t* out = a.out + 16 * size_t(t);
    for (int i = 0; i < 16; ++i) out[i] = block[i];
    a.best[t] = best;
}

// The stage function `stage` (1 to 14) for tile t.
GLYPTORA_HD inline void runStage(int stage, const StageArgs& a, uint32_t t) {
    namespace fe = detail::fe;
    using fe::Block;
    using fe::StepRecorder;
    if (stage == 1) return stageOpacity(a, t);
    if (stage == 2) return stageMode6(a, t);
    if (a.index != 0) return;
    switch (stage) {
        case 3:  // modes 1, 3 and 7 of opaque blocks over the two-region shapes
            detail::withBlockState(a, t, [](const Block& b, float& best, uint8_t* out, StepRecorder& rec) {
                if (!b.opaque) return;
                fe::RowMoments<3> rm;
                fe::buildRowMoments<3>(b, rm);
                fe::encodeTwoSubsetModes(b, rm, best, out, rec);
            });
            return;
        case 4:  // mode 0 of opaque blocks
        case 5:  // mode 2 of opaque blocks
            detail::withBlockState(a, t, [stage](const Block& b, float& best, uint8_t* out, StepRecorder& rec) {
                if (!b.opaque) return;
                fe::RowMoments<3> rm;
                fe::buildRowMoments<3>(b, rm);
                float est[64];
                fe::scatterEstimates<3, 3>(b, rm, est);
                const float before = best;
                if (stage == 4)
                    rec.record(fe::kStep0, fe::encodeThreeSubsetMode(b, rm, est, fe::kMode0, 16, 4, best, out), before);
                else
                    rec.record(fe::kStep2, fe::encodeThreeSubsetMode(b, rm, est, fe::kMode2, 64, 16, best, out),
                               before);
            });
            return;
        case 6:  // mode 7 of translucent blocks
            detail::withBlockState(a, t, [](const Block& b, float& best, uint8_t* out, StepRecorder& rec) {
                if (!b.opaque) fe::encodeTranslucentMode7(b, best, out, rec);
            });
            return;
        case 8:   // mode 5
        case 9:   // mode 4, 2-bit colour indices
        case 10:  // mode 4, 3-bit colour indices
            detail::withBlockState(a, t, [stage](const Block& b, float& best, uint8_t* out, StepRecorder& rec) {
                fe::RotationLanes rl;
                fe::buildRotationLanes(b, rl);
                fe::encodeRotationVariant(b, rl, stage - 8, best, out, rec);
            });
            return;
        default:  // stages 7 and 11 to 14: no work yet
            return;
    }
}

// The FLT_MAX fill of the scratch error arrays, one thread an element.
GLYPTORA_HD inline void fillFltMax(float* values, uint64_t i) { values[i] = 3.4028235e38f; }

}  // namespace glyptora_internal::gpu_bc7
