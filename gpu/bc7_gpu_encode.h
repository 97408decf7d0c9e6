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
// stream, under the timing label "bc7_encode_gpu()": opacity flags (images with alpha),
// mode 6, then the partitioned and rotation stages, each stage one thread per block and 128
// threads per CUDA block, the best-error array filled with FLT_MAX first. Scratch is freed on
// every path; the launches run asynchronously.
GpuSequenceFailure t_bc7_encode_gpu(const glyptora_internal::GpuSession& session,
                                    const glyptora_internal::GPUU8View& view, bool imageHasAlpha,
                                    glyptora_internal::cuda::CUdeviceptr output, glyptora::TimingContext* timing);

// The launch sequence as (stage, launches) pairs in order, stage 0 standing for the FLT_MAX
// fill of the best-error array; the host tests check the driver's record against it.
struct SequenceStep {
    int stage;
    int launches;
};
inline constexpr SequenceStep kBC7Sequence[] = {{1, 1},  {0, 1},  {2, 1},  {3, 64}, {4, 16}, {5, 16}, {6, 64}, {7, 16},
                                                {8, 16}, {9, 4},  {10, 64}, {11, 16}, {12, 4}, {13, 4}, {14, 4}};
// Whether a stage runs only for images with alpha: the opacity flags and the stages of
// translucent blocks.
inline constexpr bool alphaOnlyStage(int stage) { return stage == 1 || stage == 6 || stage == 7; }

}  // namespace glyptora_bc7
