#pragma once
// The CUDA fat binary of the GPU kernels, embedded in the library at build time when nvcc
// is available (GLYPTORA_HAVE_CUDA_KERNELS); empty otherwise.
#include <cstddef>

namespace glyptora_internal {

struct KernelImage {
    const void* data = nullptr;
    size_t size = 0;
};

KernelImage embeddedKernelImage();

}  // namespace glyptora_internal
