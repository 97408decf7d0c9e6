#pragma once
// Host side of the BC7 GPU path: the staged launch sequence over one launch's tiles.
#include <cstdint>

#include "gpu/cuda_driver.h"
#include "gpu/gpu_sequence_launcher.h"
#include "gpu/gpu_views.h"

namespace glyptora {
class TimingContext;
}

namespace glyptora_bc7 {

using glyptora_internal::GpuSequenceFailure;

// Encodes the view's tiles into `output` (device memory, 16 bytes a tile) on the default
// stream, under the timing label "bc7_encode_gpu()", as kBC7Sequence lists it: each stage one
// thread per block and 128 threads per CUDA block, each scratch array filled with FLT_MAX
// before the stages that use it. Scratch is freed on every path; the launches run
// asynchronously.
GpuSequenceFailure t_bc7_encode_gpu(const glyptora_internal::GpuSession& session,
                                    const glyptora_internal::GPUU8View& view, bool imageHasAlpha,
                                    glyptora_internal::cuda::CUdeviceptr output, glyptora::TimingContext* timing);

// The launch sequence as (stage, launches) pairs in order. Stage 0 is the FLT_MAX fill of the
// scratch that the stage after it starts using: the best-error array before stage 2, then the
// arrays of the opaque two-subset stages (3 to 5), of the translucent ones (6, 7), of mode 0
// (8, 9) and of mode 2 (10, 11; the rotation stages 12 to 14 use none). The host tests check
// the driver's record against it.
struct SequenceStep {
    int stage;
    int launches;
};
inline constexpr SequenceStep kBC7Sequence[] = {
    {1, 1},  {0, 1},   {2, 1},                             // opacity flags, mode 6
    {0, 1},  {3, 64},  {4, 16},  {5, 16},                  // modes 1, 3, 7 of opaque blocks
    {0, 1},  {6, 64},  {7, 16},                            // mode 7 of translucent blocks
    {0, 1},  {8, 16},  {9, 4},                             // mode 0
    {0, 1},  {10, 64}, {11, 16}, {12, 4}, {13, 4}, {14, 4}  // mode 2, modes 5 and 4
};
inline constexpr int kBC7SequenceLength = int(sizeof kBC7Sequence / sizeof kBC7Sequence[0]);

// Whether step k of the sequence runs only for images with alpha: the opacity flags, the
// stages of translucent blocks and the fill before them.
inline constexpr bool alphaOnlyStep(int k) {
    const int stage = kBC7Sequence[k].stage ? kBC7Sequence[k].stage : kBC7Sequence[k + 1].stage;
    return stage == 1 || stage == 6 || stage == 7;
}

}  // namespace glyptora_bc7
