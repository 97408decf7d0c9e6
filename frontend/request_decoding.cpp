#include "frontend/request_decoding.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "core/diagnostics.h"
#include "gpu/gpu_encoders.h"

namespace glyptora_internal {

namespace {

bool startsWith(const char* s, const char* prefix) { return std::strncmp(s, prefix, std::strlen(prefix)) == 0; }

// Tile counts and per-image sizes are 32-bit signed in the tile buffer and the task loop.
constexpr uint64_t kMaxTiles = INT32_MAX;
constexpr uint32_t kMaxExtent = INT32_MAX;

// The encoder entry's mode argument for a quality level.
int modeArgumentFor(QualityFlag flag, int quality) {
    switch (flag) {
        case QualityFlag::Fast: return quality < 1;
        case QualityFlag::Slow: return quality >= 2;
        case QualityFlag::Level: return quality;
    }
    return quality;
}

// Levels from here on are all the same 1x1 level (sides are shifted by at most 31), so long
// chains are counted without visiting each of their levels.
constexpr int kLastDistinctLevel = 32;

// Counts tiles level by level; any count above kMaxTiles comes back as kMaxTiles + 1, so
// that no product of three 32-bit sides can wrap into a small number.
uint64_t countTiles(const ConversionRequest& r) {
    uint64_t tiles = 0;
    for (int m = 0; m < r.levelCount && tiles <= kMaxTiles; ++m) {
        const LevelExtent e = r.level(m);
        const uint64_t across = (uint64_t(e.width) + r.format->blockWidth - 1) / uint64_t(r.format->blockWidth);
        const uint64_t down = (uint64_t(e.height) + r.format->blockHeight - 1) / uint64_t(r.format->blockHeight);
        uint64_t level = 0;
        if (__builtin_mul_overflow(across, down, &level) || __builtin_mul_overflow(level, uint64_t(e.depth), &level))
            return kMaxTiles + 1;
        if (m >= kLastDistinctLevel) {  // the rest of a long chain at once
            if (__builtin_mul_overflow(level, uint64_t(r.levelCount - m), &level) || level > kMaxTiles)
                return kMaxTiles + 1;
            return std::min(tiles + level, kMaxTiles + 1);
        }
        tiles += level;
    }
    return std::min(tiles, kMaxTiles + 1);
}

}  // namespace

int32_t decodeFormatCode(const char* destination) {
    const FormatRow* row = decodeDestination(destination);
    return row ? row->code : kFormatUnknown;
}

uint64_t levelChainSize(BlockGeometry geometry, uint32_t dimension, uint32_t width, uint32_t height, uint32_t depth,
                        uint32_t mipCount) {
    if (int32_t(mipCount) < 1) return 0;
    uint64_t total = 0;
    for (uint32_t m = 0; m < mipCount; ++m) {
        if (m == 33) {  // every further level is 1x1 with the same depth as level 32
            const uint64_t d = dimension == 2 ? 1 : depth;
            return total + uint64_t(mipCount - m) * d * uint64_t(geometry.bytesPerUnit);
        }
        const uint32_t shift = std::min(m, 31u);
        uint64_t w = std::max<uint64_t>(uint64_t(width) >> shift, 1);
        uint64_t h = std::max<uint64_t>(uint64_t(height) >> shift, 1);
        const uint64_t d = dimension == 2 ? std::max<uint64_t>(uint64_t(depth) >> shift, 1) : depth;
        w = (w + uint64_t(geometry.blockWidth) - 1) / uint64_t(geometry.blockWidth);
        h = (h + uint64_t(geometry.blockHeight) - 1) / uint64_t(geometry.blockHeight);
        total += w * h * d * uint64_t(geometry.bytesPerUnit);
    }
    return total;
}

bool isAcceptedSourceFormat(const char* s) {
    for (const char* name : {"unorm_8_8_8_8", "snorm_8_8_8_8", "srgb_8_8_8_8", "float_32_32_32_32"})
        if (std::strcmp(s, name) == 0) return true;
    return false;
}

glyptora::ValueType decodeValueType(const char* s) {
    if (startsWith(s, "float_") || startsWith(s, "ufloat_")) return glyptora::kValueF32;
    if (startsWith(s, "snorm_")) return glyptora::kValueS8;
    return glyptora::kValueU8;
}

int decodeQualityLevel(const FormatRow& format, const char* options) {
    const char* const words[] = {"fastest", "normal", "production", "highest"};
    for (int level = 0; level < 4; ++level)
        if (startsWith(options, words[level])) return level;
    long long n = 1;
    if (std::isdigit(static_cast<unsigned char>(options[0]))) {
        n = 0;
        for (const char* p = options; std::isdigit(static_cast<unsigned char>(*p)); ++p) {
            n = n * 10 + (*p - '0');
            if (n > 1000000) n = 1000000;  // any large value clamps to 3 below
        }
    }
    // ASTC counts its levels from one higher: no quality word means level 2.
    if (format.family == FormatFamily::ASTC) n += 1;
    if (n < 0) return 1;
    return int(std::min<long long>(n, 3));
}

void decodeChannelWeights(const FormatRow& format, const FormatRow* named, const char* options, uint32_t flags,
                          float weights[4]) {
    weights[0] = weights[1] = weights[2] = weights[3] = 1.0f;
    if (named && named->perceptual && std::strstr(options, "perceptual")) {
        weights[0] = 0.2126f;
        weights[1] = 0.7152f;
        weights[2] = 0.0722f;
        return;
    }
    // ASTC footprints above 4x4 weigh alpha more; 4x4 is deliberately left out, and a
    // luminance-alpha source keeps its plain alpha.
    if (format.family == FormatFamily::ASTC && format.blockWidth * format.blockHeight > 16 &&
        !(flags & kFlagLuminanceAlpha)) {
        weights[3] = 2.0f;
        const char* env = std::getenv("HALVORAN_GLYPTORA_ASTC_WEIGHT_A");
        if (env && *env) {
            const double value = std::atof(env);
            if (value > 0.0) weights[3] = float(value);
        }
    }
}

bool resolveGpuChoice(uint32_t flags, bool gpuAvailable, bool* useGpu) {
    *useGpu = false;
    if (!(flags & kFlagGpu)) return true;
    if (gpuAvailable) {
        *useGpu = true;
        return true;
    }
    if (flags & kFlagGpuFallback) return true;
    const char* env = std::getenv("HALVORAN_GLYPTORA_GPU_ENCODING_AUTO");
    return env && std::strcmp(env, "1") == 0;
}


LevelExtent ConversionRequest::level(int m) const {
    const uint32_t shift = std::min(uint32_t(m), 31u);
    LevelExtent e;
    e.width = std::max<uint32_t>(width >> shift, 1);
    e.height = std::max<uint32_t>(height >> shift, 1);
    e.depth = dimension == 2 ? std::max<uint32_t>(depth >> shift, 1) : depth;
    return e;
}

Status decodeConversionRequest(const char* destination, const char* source, const char* options, uint32_t flags,
                               uint32_t dimension, uint32_t width, uint32_t height, uint32_t depth,
                               uint32_t mipCount, ConversionRequest& r) {
    r = ConversionRequest{};
    r.format = decodeDestination(destination);
    if (!r.format) {
        errorLine("unknown destination format \"%s\".", destination);
        return Status::UnknownDestinationFormat;
    }
    if (!isAcceptedSourceFormat(source)) {
        errorLine("unknown source format \"%s\" (unorm_8_8_8_8, snorm_8_8_8_8, srgb_8_8_8_8 or float_32_32_32_32).",
                  source);
        return Status::UnknownSourceFormat;
    }
    if (!resolveGpuChoice(flags, (flags & kFlagGpu) ? isGpuEncodingAvailable() : false, &r.useGpu)) {
        errorLine("GPU encoding was asked for and no usable CUDA GPU is present (flag 0x40 or "
                  "HALVORAN_GLYPTORA_GPU_ENCODING_AUTO=1 allow the CPU instead).");
        return Status::GpuUnavailable;
    }
    if (!r.format->hasEncoder()) {
        errorLine("no encoder for \"%s\" in this build yet.", destination);
        return Status::EncoderMissing;
    }

    const FormatRow* named = findFormatRow(destination);
    r.oneBitAlpha = named && named->oneBitAlpha;
    r.luminanceAlpha = r.format->family == FormatFamily::ASTC && (flags & kFlagLuminanceAlpha);
    r.quality = decodeQualityLevel(*r.format, options);
    r.modeArgument = modeArgumentFor(r.format->entry->quality, r.quality);
    // The GPU is asked for only in the modes that have a GPU path.
    r.useGpu = r.useGpu && (r.format->entry->quality == QualityFlag::Level || r.modeArgument == 0);
    decodeChannelWeights(*r.format, named, options, flags, r.weights);
    r.valueType = decodeValueType(source);
    r.flags = flags;
    r.dimension = dimension;
    r.width = width;
    r.height = height;
    r.depth = depth;
    // Mip counts below 1 as signed numbers, or no layers (depth 0 but for a volume, which keeps
    // one slice a level as the size rule counts it), leave nothing to encode.
    r.levelCount = int32_t(mipCount) < 1 || (depth == 0 && dimension != 2) ? 0 : int(mipCount);

    r.totalTiles = countTiles(r);
    if (width > kMaxExtent || height > kMaxExtent || depth > kMaxExtent || r.totalTiles > kMaxTiles) {
        errorLine("a %ux%u texture of depth %u with %u level(s) is too large for \"%s\": at most %llu blocks and "
                  "%u pixels a side.",
                  width, height, depth, mipCount, destination, static_cast<unsigned long long>(kMaxTiles),
                  kMaxExtent);
        return Status::TooLarge;
    }
    for (int m = 0; m < r.levelCount; ++m) {
        if (m == kLastDistinctLevel) {
            r.totalPixels += r.level(m).pixels() * uint64_t(r.levelCount - m);
            break;
        }
        r.totalPixels += r.level(m).pixels();
    }
    r.sourceBytes = r.totalPixels * r.bytesPerPixel();
    return Status::Ok;
}

}  // namespace glyptora_internal
