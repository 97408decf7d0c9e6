#pragma once
// Names of the kernels in the embedded module. The kernels are extern "C" functions, so the
// module's symbol is the plain name below (looked up with cuModuleGetFunction).
namespace glyptora_internal::kernel_names {

// BC1 to BC5, one thread per 4x4 block, 64 threads per CUDA block.
inline constexpr const char* kCompressDXT1a = "glyptora_compressDXT1a";          // (GPUU8View, uint2* out)
inline constexpr const char* kCompressDXT3 = "glyptora_compressDXT3";            // (GPUU8View, uint2* out)
inline constexpr const char* kCompressDXT5Alpha = "glyptora_compressDXT5_Alpha"; // (GPUU8View, uint32 n, uint2* out)
inline constexpr const char* kCompressDXT5Color = "glyptora_compressDXT5_Color"; // (GPUU8View, uint2* out)
inline constexpr const char* kCompressBC4 = "glyptora_compressBC4";              // (GPUU8View, uint32 n, uint2* out)
inline constexpr const char* kCompressBC4S = "glyptora_compressBC4S";            // (GPUS8View, uint32 n, uint2* out)
inline constexpr const char* kCompressBC5 = "glyptora_compressBC5";              // (GPUU8View, uint32 n, uint2* out)
inline constexpr const char* kCompressBC5S = "glyptora_compressBC5S";            // (GPUS8View, uint32 n, uint2* out)

// Element conversions, one thread per channel value, 128 threads per CUDA block.
inline constexpr const char* kF32ToU8 = "glyptora_g_F32ToU8";  // (GPUF32View source, GPUU8View target)
inline constexpr const char* kS8ToU8 = "glyptora_g_S8ToU8";    // (GPUS8View source, GPUU8View target)
inline constexpr const char* kF32ToS8 = "glyptora_g_F32ToS8";  // (GPUF32View source, GPUS8View target)
inline constexpr const char* kU8ToS8 = "glyptora_g_U8ToS8";    // (GPUU8View source, GPUS8View target)

// BC7 stages (gpu/bc7_gpu_stages.h), one thread per block, 128 threads per CUDA block:
// stage s of the sequence is kBC7Stages[s - 1]; each takes (gpu_bc7::StageArgs), whose index
// names the shape, candidate or rotation of the launch.
inline constexpr const char* kBC7Stages[14] = {
    "glyptora_bc7_stage1",  "glyptora_bc7_stage2",  "glyptora_bc7_stage3",  "glyptora_bc7_stage4",
    "glyptora_bc7_stage5",  "glyptora_bc7_stage6",  "glyptora_bc7_stage7",  "glyptora_bc7_stage8",
    "glyptora_bc7_stage9",  "glyptora_bc7_stage10", "glyptora_bc7_stage11", "glyptora_bc7_stage12",
    "glyptora_bc7_stage13", "glyptora_bc7_stage14"};

// BC6H (gpu/bc6h_gpu_stages.h), 128 threads per CUDA block: the texels of a view into the
// float scratch, one thread per texel, by source type (u8, s8, f32), each taking
// (view, float* texels); the block encoders, one thread per block, unsigned then signed,
// each taking (glyptora_bc6h::bc6h_gpu).
inline constexpr const char* kBC6HTexels[3] = {"glyptora_bc6h_texels_u8", "glyptora_bc6h_texels_s8",
                                               "glyptora_bc6h_texels_f32"};
inline constexpr const char* kBC6HEncode[2] = {"glyptora_bc6h_encode_unsigned", "glyptora_bc6h_encode_signed"};

// The FLT_MAX fill of scratch arrays, one thread per float, 128 threads per CUDA block.
inline constexpr const char* kFillFltMax = "glyptora_g_fill_flt_max";  // (float* values, uint64 count)

}  // namespace glyptora_internal::kernel_names
