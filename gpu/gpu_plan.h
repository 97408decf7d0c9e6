#pragma once
// How one block format runs on the GPU: its kernels, launch geometry and timing labels.
// The format table names one plan per format that has kernels.
namespace glyptora_internal {

struct GpuPlan {
    const char* chunkLabel;     // timing scope of the per-chunk encoder, "s_encode_bc1a_gpu()"
    const char* launchLabel;    // timing scope of one launch, "encode_bc1_gpu()"
    int launchDivisor;          // tiles per launch = clockRate x multiProcessorCount / divisor
    int blockBytes;
    bool signedKernels;         // kernels read signed 8-bit views (else unsigned 8-bit)
    const char* channelKernel;  // takes the block count, launched first; or null
    const char* colourKernel;   // launched second; or null
};

}  // namespace glyptora_internal
