#pragma once
// How one block format runs on the GPU: its kernels, launch geometry and timing labels.
// The format table names one plan per format that has kernels.
namespace glyptora_internal {

// How the blocks are made: one or two block kernels a launch, the staged BC7 sequence
// (gpu/bc7_gpu_encode.h) or the BC6H sequence (gpu/bc6h_gpu_encode.h), which reads the
// source view as it is and takes the signedness from the request.
enum class GpuStages : unsigned char { BlockKernels, BC7, BC6H };

struct GpuPlan {
    const char* chunkLabel;     // timing scope of the per-chunk encoder, "s_encode_bc1a_gpu()"
    const char* launchLabel;    // timing scope of one launch, "encode_bc1_gpu()"
    int launchDivisor;          // tiles per launch = clockRate x multiProcessorCount / divisor
    int blockBytes;
    bool signedKernels;         // kernels read signed 8-bit views (else unsigned 8-bit)
    const char* channelKernel;  // takes the block count, launched first; or null
    const char* colourKernel;   // launched second; or null
    GpuStages stages = GpuStages::BlockKernels;
};

}  // namespace glyptora_internal
