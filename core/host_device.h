#pragma once
// Marks functions that both the CPU encoders and the CUDA kernels compile.
#if defined(__CUDACC__)
#define GLYPTORA_HD __host__ __device__
#define GLYPTORA_DEVICE_CODE 1
#else
#define GLYPTORA_HD
#endif
#if defined(__CUDA_ARCH__)
#define GLYPTORA_ON_DEVICE 1
#endif
