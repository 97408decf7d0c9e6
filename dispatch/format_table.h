#pragma once
// The one table of destination formats. Each row says how a destination string selects it,
// its code and block geometry, its fix-ups, which quality flag its encoder takes, the encoder
// entry (CPU encoder, GPU plan, notices, timing label) and its container codes. Request
// decoding, the encoder dispatch, the GPU layer, the command-line tool and the container
// writers all read it; a new format is one row here and one encoder.
#include <cstdint>
#include <span>

#include "astc/astc_cpu.h"
#include "bc/bc1_encoder.h"
#include "bc/bc2_bc3_cpu.h"
#include "bc/bc4_bc5_cpu.h"
#include "bc6h/bc6h_cpu.h"
#include "bc7/bc7_cpu.h"
#include "gpu/gpu_kernel_names.h"
#include "gpu/gpu_plan.h"

namespace glyptora_internal {

enum class FormatFamily : uint8_t { BC1, BC2, BC3, BC4, BC5, BC6H, BC7, ASTC };

// How an encoder reads the quality level: BC1 to BC3 take a fast flag (level 0), BC4 to BC7
// a slow flag (level 2 or more), ASTC the level itself.
enum class QualityFlag : uint8_t { Fast, Slow, Level };

// What a CPU encoder is told besides its pixels.
struct EncoderMode {
    bool fast = false;  // fast block encoders (BC formats); the exhaustive searches otherwise
    int level = 1;      // quality level 0-3 (ASTC)
    bool isSigned = false;
    bool imageHasAlpha = false;
};

// Encodes every tile of the view; block t is written at t * block bytes of `out`.
using CpuEncoder = void (*)(const CPUViewBase& view, const EncoderMode& mode, uint8_t* out);

// One encoder entry, shared by the rows of its code.
struct EncoderEntry {
    const char* name;             // "BC1a", as the entry's messages name it
    QualityFlag quality;
    int blockBytes;
    bool astcFootprints;          // tile must be an ASTC footprint and the level below 4; else 4x4
    const char* cpuTimerLabel;    // "encode_bc1a_cpu()"
    const char* noGpuModeNotice;  // printed when the GPU is asked for in the mode without a GPU path
    CpuEncoder cpu;               // null while the format's encoder is not built
    const GpuPlan* gpu;           // null without kernels
};

// How a destination string selects a row; tried in table order, first hit wins.
enum class NameTest : uint8_t { Contains, Equals };

struct FormatRow {
    const char* word;  // canonical destination word, "unorm_bc1"
    FormatFamily family;
    NameTest test;
    const char* pattern;
    int32_t code;
    int blockWidth, blockHeight;
    bool isSigned, isSrgb;
    bool oneBitAlpha;  // exactly this word: alpha forced to one bit before encoding
    bool perceptual;   // exactly this word: the options' "perceptual" sets luminance weights
    const EncoderEntry* entry;
    const char* fourCC;  // legacy DDS FourCC, or null when a DX10 header is needed
    uint32_t dxgiFormat;  // DX10 header code (0: no DDS mapping)
    uint32_t vkFormat;    // KTX2 code
    const char* note;     // remark the tool prints beside the format

    int blockBytes() const { return entry->blockBytes; }
    bool hasEncoder() const { return entry->cpu != nullptr; }
};

namespace format_table {

namespace k = kernel_names;

inline constexpr GpuPlan kGpuBC1a{"s_encode_bc1a_gpu()", "encode_bc1_gpu()", 6, 8, false, nullptr, k::kCompressDXT1a};
inline constexpr GpuPlan kGpuBC2{"s_encode_bc2_gpu()", "encode_bc2_gpu()", 12, 16, false, nullptr, k::kCompressDXT3};
inline constexpr GpuPlan kGpuBC3{"s_encode_bc3_gpu()", "encode_bc3_gpu()", 12,
                                 16, false, k::kCompressDXT5Alpha, k::kCompressDXT5Color};
inline constexpr GpuPlan kGpuBC4{"s_encode_bc4_gpu()", "encode_bc4_gpu()", 1, 8, false, k::kCompressBC4, nullptr};
inline constexpr GpuPlan kGpuBC4S{"s_encode_bc4s_gpu()", "encode_bc4s_gpu()", 1, 8, true, k::kCompressBC4S, nullptr};
inline constexpr GpuPlan kGpuBC5{"s_encode_bc5_gpu()", "encode_bc5_gpu()", 1, 16, false, k::kCompressBC5, nullptr};
inline constexpr GpuPlan kGpuBC5S{"s_encode_bc5s_gpu()", "encode_bc5s_gpu()", 1, 16, true, k::kCompressBC5S, nullptr};
// BC7 runs the staged sequence (gpu/bc7_gpu_encode.h), which opens "bc7_encode_gpu()" itself.
inline constexpr GpuPlan kGpuBC7{"s_encode_bc7_gpu()", "bc7_encode_gpu()", 12, 16, false, nullptr, nullptr,
                                 GpuStages::BC7};
// BC6H runs its sequence (gpu/bc6h_gpu_encode.h) on the source type as it is, which opens
// "bc6h_encode_gpu()" itself.
inline constexpr GpuPlan kGpuBC6H{"s_encode_bc6h_gpu()", "bc6h_encode_gpu()", 12, 16, false, nullptr, nullptr,
                                  GpuStages::BC6H};

using Q = QualityFlag;

// The BC encoders take the fast flag alone.
template <void (*Encode)(const CPUViewBase&, bool, uint8_t*)>
void withFastFlag(const CPUViewBase& view, const EncoderMode& mode, uint8_t* out) {
    Encode(view, mode.fast, out);
}

inline void encodeBC6H(const CPUViewBase& view, const EncoderMode& mode, uint8_t* out) {
    glyptora_bc6h::encodeBC6HCPU(view, mode.fast, mode.isSigned, out);
}

inline void encodeBC7(const CPUViewBase& view, const EncoderMode& mode, uint8_t* out) {
    glyptora_bc7::encodeBC7CPU(view, mode.fast, mode.imageHasAlpha, out);
}

inline void encodeASTC(const CPUViewBase& view, const EncoderMode& mode, uint8_t* out) {
    glyptora_astc::encodeAstcCPU(view, mode.level, mode.imageHasAlpha, out);
}

inline constexpr EncoderEntry kBC1a{"BC1a", Q::Fast, 8, false, "encode_bc1a_cpu()",
                                    "BC1a Compressor: no fast-mode for bc1a-gpu, using cpu instead.\n",
                                    &withFastFlag<glyptora_dxt::encodeBC1aCPU>, &kGpuBC1a};
inline constexpr EncoderEntry kBC2{"BC2", Q::Fast, 16, false, "encode_bc2_cpu()",
                                   "BC2 Compressor: no fast-mode for bc2-gpu, using cpu instead.\n",
                                   &withFastFlag<glyptora_dxt::encodeBC2CPU>, &kGpuBC2};
inline constexpr EncoderEntry kBC3{"BC3", Q::Fast, 16, false, "encode_bc3_cpu()",
                                   "BC3 Compressor: no fast-mode for bc3-gpu, using cpu instead.\n",
                                   &withFastFlag<glyptora_dxt::encodeBC3CPU>, &kGpuBC3};
inline constexpr EncoderEntry kBC4{"BC4", Q::Slow, 8, false, "encode_bc4_cpu()",
                                   "BC4 Compressor: no production-mode for bc4-gpu, using cpu instead.\n",
                                   &withFastFlag<glyptora_dxt::encodeBC4CPU>, &kGpuBC4};
inline constexpr EncoderEntry kBC4S{"BC4S", Q::Slow, 8, false, "encode_bc4s_cpu()",
                                    "BC4S Compressor: no production-mode for bc4s-gpu, using cpu instead.\n",
                                    &withFastFlag<glyptora_dxt::encodeBC4SCPU>, &kGpuBC4S};
inline constexpr EncoderEntry kBC5{"BC5", Q::Slow, 16, false, "encode_bc5_cpu()",
                                   "BC5 Compressor: no production-mode for bc5-gpu, using cpu instead.\n",
                                   &withFastFlag<glyptora_dxt::encodeBC5CPU>, &kGpuBC5};
// The signed BC5 notice names "bc5-gpu"; it is kept word for word.
inline constexpr EncoderEntry kBC5S{"BC5S", Q::Slow, 16, false, "encode_bc5s_cpu()",
                                    "BC5S Compressor: no production-mode for bc5-gpu, using cpu instead.\n",
                                    &withFastFlag<glyptora_dxt::encodeBC5SCPU>, &kGpuBC5S};
inline constexpr EncoderEntry kBC6H{"BC6H", Q::Slow, 16, false, "encode_bc6h_cpu()",
                                    "BC6H Compressor: no slow-mode for bc6-gpu, using cpu instead.\n",
                                    &encodeBC6H, &kGpuBC6H};
inline constexpr EncoderEntry kBC7{"BC7", Q::Slow, 16, false, "encode_bc7_cpu()",
                                   "BC7 Compressor: no slow-mode for bc7-gpu, using cpu instead.\n",
                                   &encodeBC7, &kGpuBC7};
inline constexpr EncoderEntry kASTC{"ASTC", Q::Level, 16, true, "astc_encode_cpu()", nullptr, &encodeASTC, nullptr};

using F = FormatFamily;
using T = NameTest;

// ASTC rows, two per footprint (unorm, sRGB), codes 17 to 30 in footprint order; the
// destination selects them by the first footprint it contains.
#define GLYPTORA_ASTC_ROWS(w, h, code, vk)                                                                   \
    FormatRow{"unorm_astc_" #w "x" #h, F::ASTC, T::Contains, #w "x" #h, code, w, h, false, false, false,    \
              false, &kASTC, nullptr, 0, vk, nullptr},                                                       \
        FormatRow {                                                                                          \
        "srgb_astc_" #w "x" #h, F::ASTC, T::Contains, #w "x" #h, code, w, h, false, true, false, false,      \
            &kASTC, nullptr, 0, vk + 1, nullptr                                                              \
    }

// Order matters: the tests run top to bottom ("bc1" before "bc4", ASTC footprints in code order).
inline constexpr FormatRow kRows[] = {
    {"unorm_bc1", F::BC1, T::Contains, "bc1", 2, 4, 4, false, false, true, true, &kBC1a, "DXT1", 71, 133, nullptr},
    {"srgb_bc1", F::BC1, T::Contains, "bc1", 2, 4, 4, false, true, true, true, &kBC1a, nullptr, 72, 134, nullptr},
    {"unorm_bc2", F::BC2, T::Contains, "bc2", 3, 4, 4, false, false, false, true, &kBC2, "DXT3", 74, 135, nullptr},
    {"srgb_bc2", F::BC2, T::Contains, "bc2", 3, 4, 4, false, true, false, true, &kBC2, nullptr, 75, 136, nullptr},
    {"unorm_bc3", F::BC3, T::Contains, "bc3", 4, 4, 4, false, false, false, true, &kBC3, "DXT5", 77, 137, nullptr},
    {"srgb_bc3", F::BC3, T::Contains, "bc3", 4, 4, 4, false, true, false, true, &kBC3, nullptr, 78, 138, nullptr},
    {"unorm_bc4", F::BC4, T::Equals, "unorm_bc4", 6, 4, 4, false, false, false, false, &kBC4, "ATI1", 80, 139,
     nullptr},
    {"snorm_bc4", F::BC4, T::Equals, "snorm_bc4", 7, 4, 4, true, false, false, false, &kBC4S, nullptr, 81, 140,
     nullptr},
    {"unorm_bc5", F::BC5, T::Equals, "unorm_bc5", 9, 4, 4, false, false, false, false, &kBC5, "ATI2", 83, 141,
     nullptr},
    {"snorm_bc5", F::BC5, T::Equals, "snorm_bc5", 10, 4, 4, true, false, false, false, &kBC5S, nullptr, 84, 142,
     nullptr},
    {"ufloat_bc6", F::BC6H, T::Equals, "ufloat_bc6", 13, 4, 4, false, false, false, false, &kBC6H, nullptr, 95, 143,
     nullptr},
    {"float_bc6", F::BC6H, T::Equals, "float_bc6", 14, 4, 4, true, false, false, false, &kBC6H, nullptr, 96, 144,
     nullptr},
    {"unorm_bc7", F::BC7, T::Contains, "bc7", 15, 4, 4, false, false, false, false, &kBC7, nullptr, 98, 145,
     nullptr},
    {"srgb_bc7", F::BC7, T::Contains, "bc7", 15, 4, 4, false, true, false, false, &kBC7, nullptr, 99, 146,
     nullptr},
    GLYPTORA_ASTC_ROWS(4, 4, 17, 157),
    GLYPTORA_ASTC_ROWS(5, 4, 18, 159),
    GLYPTORA_ASTC_ROWS(5, 5, 19, 161),
    GLYPTORA_ASTC_ROWS(6, 5, 20, 163),
    GLYPTORA_ASTC_ROWS(6, 6, 21, 165),
    GLYPTORA_ASTC_ROWS(8, 5, 22, 167),
    GLYPTORA_ASTC_ROWS(8, 6, 23, 169),
    GLYPTORA_ASTC_ROWS(8, 8, 24, 171),
    GLYPTORA_ASTC_ROWS(10, 5, 25, 173),
    GLYPTORA_ASTC_ROWS(10, 6, 26, 175),
    GLYPTORA_ASTC_ROWS(10, 8, 27, 177),
    GLYPTORA_ASTC_ROWS(10, 10, 28, 179),
    GLYPTORA_ASTC_ROWS(12, 10, 29, 181),
    GLYPTORA_ASTC_ROWS(12, 12, 30, 183),
};

#undef GLYPTORA_ASTC_ROWS

}  // namespace format_table

inline constexpr int32_t kFormatUncompressed = 0;  // 4 bytes a pixel, used only for source sizes
inline constexpr int32_t kFormatUnknown = 31;

inline std::span<const FormatRow> allFormatRows() { return format_table::kRows; }

// The row a destination string decodes to (the first row of its code), or null (code 31).
const FormatRow* decodeDestination(const char* destination);
// The row whose word is exactly `word`, or null.
const FormatRow* findFormatRow(const char* word);
// The first row of `code`, or null.
const FormatRow* formatRowForCode(int32_t code);

}  // namespace glyptora_internal
