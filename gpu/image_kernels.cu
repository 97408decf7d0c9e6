// Element conversion kernels: one thread per channel value, 128 threads per CUDA block.
// They convert a device view's tile data into a temporary buffer of the element type that
// the block kernels read, exactly as the CPU views convert on fetch.
#include "gpu/gpu_kernel_bodies.h"

namespace {
__device__ inline uint64_t glyptora_valueIndex() { return uint64_t(blockIdx.x) * blockDim.x + threadIdx.x; }
}  // namespace

using glyptora_internal::GPUF32View;
using glyptora_internal::GPUS8View;
using glyptora_internal::GPUU8View;
using glyptora_internal::elementCount;
namespace blocks = glyptora_internal::gpu_blocks;

extern "C" __global__ void __launch_bounds__(128) glyptora_g_F32ToU8(GPUF32View source, GPUU8View target) {
    const uint64_t i = glyptora_valueIndex();
    if (i < elementCount(source)) blocks::convertF32ToU8(source, target, i);
}

extern "C" __global__ void __launch_bounds__(128) glyptora_g_S8ToU8(GPUS8View source, GPUU8View target) {
    const uint64_t i = glyptora_valueIndex();
    if (i < elementCount(source)) blocks::convertS8ToU8(source, target, i);
}

extern "C" __global__ void __launch_bounds__(128) glyptora_g_F32ToS8(GPUF32View source, GPUS8View target) {
    const uint64_t i = glyptora_valueIndex();
    if (i < elementCount(source)) blocks::convertF32ToS8(source, target, i);
}

extern "C" __global__ void __launch_bounds__(128) glyptora_g_U8ToS8(GPUU8View source, GPUS8View target) {
    const uint64_t i = glyptora_valueIndex();
    if (i < elementCount(source)) blocks::convertU8ToS8(source, target, i);
}

