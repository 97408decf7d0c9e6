// Builds without nvcc carry no kernels; the embedded image is generated otherwise.
#include "gpu/kernel_image.h"

#if !defined(GLYPTORA_HAVE_CUDA_KERNELS)
namespace glyptora_internal {
KernelImage embeddedKernelImage() { return {}; }
}  // namespace glyptora_internal
#endif
