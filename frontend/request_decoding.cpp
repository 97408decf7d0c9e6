#include "frontend/request_decoding.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

namespace glyptora_internal {

namespace {

bool startsWith(const char* s, const char* prefix) { return std::strncmp(s, prefix, std::strlen(prefix)) == 0; }
bool contains(const char* s, const char* part) { return std::strstr(s, part) != nullptr; }
bool equals(const char* s, const char* other) { return std::strcmp(s, other) == 0; }

const char* const kAstcFootprints[] = {"4x4", "5x4", "5x5", "6x5", "6x6", "8x5", "8x6",
                                      "8x8", "10x5", "10x6", "10x8", "10x10", "12x10", "12x12"};
const int kAstcSizes[14][2] = {{4, 4}, {5, 4}, {5, 5}, {6, 5}, {6, 6}, {8, 5}, {8, 6},
                               {8, 8}, {10, 5}, {10, 6}, {10, 8}, {10, 10}, {12, 10}, {12, 12}};

bool isAstcName(const char* destination) {
    return startsWith(destination, "unorm_astc") || startsWith(destination, "srgb_astc");
}

}  // namespace

int32_t decodeFormatCode(const char* d) {
    if (!startsWith(d, "unorm_bc") && !startsWith(d, "snorm_bc") && !startsWith(d, "srgb_bc") &&
        !startsWith(d, "ufloat_bc") && !startsWith(d, "float_bc")) {
        if (!isAstcName(d)) return kFormatUnknown;
        for (int i = 0; i < 14; ++i)
            if (contains(d, kAstcFootprints[i])) return kFormatASTCFirst + i;
        return kFormatUnknown;
    }
    if (contains(d, "bc1")) return kFormatBC1;
    if (contains(d, "bc2")) return kFormatBC2;
    if (contains(d, "bc3")) return kFormatBC3;
    if (equals(d, "unorm_bc4")) return kFormatBC4;
    if (equals(d, "snorm_bc4")) return kFormatBC4S;
    if (equals(d, "unorm_bc5")) return kFormatBC5;
    if (equals(d, "snorm_bc5")) return kFormatBC5S;
    if (equals(d, "ufloat_bc6")) return kFormatBC6HU;
    if (equals(d, "float_bc6")) return kFormatBC6HS;
    if (contains(d, "bc7")) return kFormatBC7;
    return kFormatUnknown;
}

bool isAstcCode(int32_t code) { return code >= kFormatASTCFirst && code <= kFormatASTCLast; }

FormatInfo formatInfo(int32_t code) {
    if (code == kFormatUncompressed) return {1, 1, 4};
    if (isAstcCode(code)) {
        const int* size = kAstcSizes[code - kFormatASTCFirst];
        return {size[0], size[1], 16};
    }
    const bool eightBytes = code == 1 || code == 2 || code == 6 || code == 7;
    return {4, 4, eightBytes ? 8 : 16};
}

uint64_t levelChainSize(int32_t code, uint32_t dimension, uint32_t width, uint32_t height, uint32_t depth,
                        uint32_t mipCount) {
    const FormatInfo info = formatInfo(code);
    uint64_t total = 0;
    if (int32_t(mipCount) < 1) return 0;
    for (uint32_t m = 0; m < mipCount; ++m) {
        const uint32_t shift = m < 32 ? m : 31;
        if (m == 33) {  // every further level is 1x1 with the same depth as level 32
            const uint64_t d = dimension == 2 ? 1 : depth;
            return total + uint64_t(mipCount - m) * d * uint64_t(info.bytesPerUnit);
        }
        uint64_t w = std::max<uint64_t>(uint64_t(width) >> shift, 1);
        uint64_t h = std::max<uint64_t>(uint64_t(height) >> shift, 1);
        uint64_t d = dimension == 2 ? std::max<uint64_t>(uint64_t(depth) >> shift, 1) : depth;
        w = (w + uint64_t(info.blockWidth) - 1) / uint64_t(info.blockWidth);
        h = (h + uint64_t(info.blockHeight) - 1) / uint64_t(info.blockHeight);
        total += w * h * d * uint64_t(info.bytesPerUnit);
    }
    return total;
}

bool isAcceptedSourceFormat(const char* s) {
    return equals(s, "unorm_8_8_8_8") || equals(s, "snorm_8_8_8_8") || equals(s, "srgb_8_8_8_8") ||
           equals(s, "float_32_32_32_32");
}

bool isFloatSourceFormat(const char* s) { return startsWith(s, "float_") || startsWith(s, "ufloat_"); }

int32_t decodeValueType(const char* s) {
    if (isFloatSourceFormat(s)) return 2;
    if (startsWith(s, "snorm_")) return 1;
    return 0;
}

int decodeQualityLevel(const char* destination, const char* options) {
    if (startsWith(options, "fastest")) return 0;
    if (startsWith(options, "normal")) return 1;
    if (startsWith(options, "production")) return 2;
    if (startsWith(options, "highest")) return 3;
    long long n = 1;
    if (std::isdigit(static_cast<unsigned char>(options[0]))) {
        n = 0;
        for (const char* p = options; std::isdigit(static_cast<unsigned char>(*p)); ++p) {
            n = n * 10 + (*p - '0');
            if (n > 1000000) n = 1000000;  // any large value clamps to 3 below
        }
    }
    if (isAstcName(destination)) n += 1;
    if (n < 0) return 1;
    if (n > 3) return 3;
    return int(n);
}

void decodeChannelWeights(const char* d, const char* options, int32_t code, uint32_t flags, float weights[4]) {
    weights[0] = weights[1] = weights[2] = weights[3] = 1.0f;
    const bool perceptualFormat = equals(d, "unorm_bc1") || equals(d, "unorm_bc2") || equals(d, "unorm_bc3") ||
                                  equals(d, "srgb_bc1") || equals(d, "srgb_bc2") || equals(d, "srgb_bc3");
    if (perceptualFormat && contains(options, "perceptual")) {
        weights[0] = 0.2126f;
        weights[1] = 0.7152f;
        weights[2] = 0.0722f;
        return;
    }
    // ASTC 4x4 (code 17) is deliberately left without the alpha weight.
    if (code >= 18 && code <= 30 && !(flags & kFlagLuminanceAlpha)) {
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
    return env && equals(env, "1");
}

}  // namespace glyptora_internal
