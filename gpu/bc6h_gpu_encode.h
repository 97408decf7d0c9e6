#pragma once
// Host side of the BC6H GPU path: the launch sequence over one launch's tiles.
#include <cstdint>
#include <type_traits>

#include "gpu/bc6h_gpu_stages.h"
#include "gpu/bc7_gpu_encode.h"
#include "gpu/cuda_driver.h"
#include "gpu/gpu_views.h"

namespace glyptora {
class TimingContext;
}

namespace glyptora_bc6h {

using glyptora_internal::GpuSequenceFailure;

// Encodes the view's tiles into `output` (device memory, 16 bytes a tile) on the default
// stream, under the timing label "bc6h_encode_gpu()": converts the texels into an n x 64
// float scratch, then hands the scratch to the second level of its signedness (below).
// Instantiated for GPUU8View, GPUS8View and GPUF32View with UnsignedFuncs and SignedFuncs.
// Scratch is freed on every path; the launches run asynchronously.
template <typename View, typename Funcs>
GpuSequenceFailure t_bc6h_encode_gpu(const glyptora_internal::GpuSession& session, const View& view,
                                     glyptora_internal::cuda::CUdeviceptr output, glyptora::TimingContext* timing);

// The second level, the same for every view type: allocates the per-block error array,
// fills it with FLT_MAX and launches the block encoder of the signedness over all
// `record.count` blocks. `record.error` is set here.
template <typename Funcs>
GpuSequenceFailure t_bc6h_encode_gpu(const glyptora_internal::GpuSession& session, bc6h_gpu record);

// The kernels one sequence launches, in order, each once: the texel conversion of the view's
// element type (kBC6HTexels[texelKernelIndex<T>()]), the FLT_MAX fill, the block encoder.
template <typename T>
constexpr int texelKernelIndex() {
    return std::is_same_v<T, uint8_t> ? 0 : std::is_same_v<T, int8_t> ? 1 : 2;
}

}  // namespace glyptora_bc6h
