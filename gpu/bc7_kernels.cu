// BC7 stage kernels and the FLT_MAX fill: one thread per block (per float for the fill),
// 128 threads per CUDA block; threads past the count stay idle. The work of each stage is
// gpu_bc7::runStage (gpu/bc7_gpu_stages.h), shared with the host tests.
#include "gpu/bc7_gpu_stages.h"

namespace {
__device__ inline uint64_t glyptora_elementIndex() { return uint64_t(blockIdx.x) * blockDim.x + threadIdx.x; }
}  // namespace

#define GLYPTORA_BC7_STAGE_KERNEL(s)                                                                   \
    extern "C" __global__ void __launch_bounds__(128) glyptora_bc7_stage##s(glyptora_internal::gpu_bc7::StageArgs args) { \
        const uint64_t t = glyptora_elementIndex();                                                    \
        if (t < args.count) glyptora_internal::gpu_bc7::runStage(s, args, uint32_t(t));                \
    }

GLYPTORA_BC7_STAGE_KERNEL(1)
GLYPTORA_BC7_STAGE_KERNEL(2)
GLYPTORA_BC7_STAGE_KERNEL(3)
GLYPTORA_BC7_STAGE_KERNEL(4)
GLYPTORA_BC7_STAGE_KERNEL(5)
GLYPTORA_BC7_STAGE_KERNEL(6)
GLYPTORA_BC7_STAGE_KERNEL(7)
GLYPTORA_BC7_STAGE_KERNEL(8)
GLYPTORA_BC7_STAGE_KERNEL(9)
GLYPTORA_BC7_STAGE_KERNEL(10)
GLYPTORA_BC7_STAGE_KERNEL(11)
GLYPTORA_BC7_STAGE_KERNEL(12)
GLYPTORA_BC7_STAGE_KERNEL(13)
GLYPTORA_BC7_STAGE_KERNEL(14)

#undef GLYPTORA_BC7_STAGE_KERNEL

extern "C" __global__ void __launch_bounds__(128) glyptora_g_fill_flt_max(float* values, uint64_t count) {
    const uint64_t i = glyptora_elementIndex();
    if (i < count) glyptora_internal::gpu_bc7::fillFltMax(values, i);
}
