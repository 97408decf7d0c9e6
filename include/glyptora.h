/* Glyptora: GPU block compression of textures held in memory. */
#ifndef GLYPTORA_H
#define GLYPTORA_H

#include <stdint.h>
#include <wchar.h>

#if defined(_WIN32)
#define GLYPTORA_API __declspec(dllexport)
#else
#define GLYPTORA_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Request flags. */
#define GLYPTORA_FLAG_LUMINANCE_ALPHA 0x2u /* ASTC only: channel 0 luminance, channel 1 alpha */
#define GLYPTORA_FLAG_GPU 0x10u           /* encode on the GPU where the format has a GPU path */
#define GLYPTORA_FLAG_SERVER 0x20u        /* convert in the detached server process */
#define GLYPTORA_FLAG_GPU_FALLBACK 0x40u  /* with GPU: use the CPU when no usable GPU is present */

/* Converts every mip level and layer of `source` (four channels per pixel, levels one
 * after the other) into the block format `destinationFormat` ("unorm_bc1", "srgb_bc7",
 * "unorm_astc_6x6", ...). `sourceFormat` is "unorm_8_8_8_8", "snorm_8_8_8_8",
 * "srgb_8_8_8_8" or "float_32_32_32_32"; `options` holds a quality ("fastest", "normal",
 * "production", "highest" or 0-3) and optionally "perceptual". `dimension` 2 makes depth a
 * volume depth that shrinks per level; any other value makes it a layer count.
 *
 * Sizes, per level m from 0 to mipCount - 1 (a mipCount of 0 or above 2^31 - 1 gives
 * none): w = max(width >> m, 1), h = max(height >> m, 1), d = depth, or max(depth >> m, 1)
 * when dimension is 2. The source holds w*h*d pixels of 4 bytes (16 for float) per level;
 * the destination ceil(w/bw)*ceil(h/bh)*d blocks of 8 bytes (BC1, BC4) or 16 (others), for
 * a bw x bh block. Example: 13x7, 3 levels, unorm_bc1: levels 13x7, 6x3, 3x1; source
 * (91+18+3)*4 = 448 bytes, destination (8+2+1)*8 = 88 bytes.
 *
 * Returns 1 on success, 0 on failure (nothing is written then; one line on standard error
 * says why, e.g. a request of more than 2^31 - 1 blocks, memory that cannot be allocated
 * or a format whose encoder is not built). No exception leaves the call. */
GLYPTORA_API uint32_t GlyptoraConvert(void* destination, const void* source, const wchar_t* destinationFormat,
                                      const wchar_t* sourceFormat, const wchar_t* options, uint32_t flags,
                                      uint32_t dimension, uint32_t width, uint32_t height, uint32_t depth,
                                      uint32_t mipCount);

/* Returns 1 when a CUDA device usable by the GPU encoders is present. */
GLYPTORA_API uint32_t GlyptoraIsGpuEncodingAvailable(void);

/* Read by hybrid-graphics drivers: run CUDA work on the discrete GPU. */
GLYPTORA_API extern const uint32_t NvOptimusEnablementCuda;

#ifdef __cplusplus
}
#endif

#endif
