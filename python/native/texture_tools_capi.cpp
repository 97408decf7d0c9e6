// C interface over the command-line tool's support code (format names, level chains, containers,
// block decoders) for the Python package, which loads it with ctypes beside libglyptora. Calling
// the tool's own code keeps the package's files byte for byte equal to `glyptora convert`.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "frontend/request_decoding.h"
#include "tools/block_decode.h"
#include "tools/containers.h"
#include "tools/formats.h"
#include "tools/image_io.h"
#include "tools/mip_chain.h"
#include "tools/output_file.h"

#define GLYPTORA_TOOLS_API extern "C" __attribute__((visibility("default")))

using namespace glyptora_tools;

struct GlyptoraToolsFormat {
    const char* word;         // the library's destination word, "unorm_bc7"
    int32_t blockWidth;
    int32_t blockHeight;
    int32_t blockBytes;
    int32_t isFloat;          // BC6H: float pixels in and out
    int32_t isSigned;
    int32_t isSrgb;
    int32_t isAstc;
    const char* unavailable;  // why the tool refuses the format, or null
};

namespace {

void setError(char* error, size_t size, const std::string& text) {
    if (error && size) std::snprintf(error, size, "%s", text.c_str());
}

// The level layout of a texture, sized for its blocks.
EncodedTexture layout(const FormatDesc& format, uint32_t width, uint32_t height, uint32_t levels) {
    EncodedTexture texture;
    texture.format = &format;
    texture.width = width;
    texture.height = height;
    texture.levels = levels;
    layoutLevels(texture);
    return texture;
}

}  // namespace

// Finds a library word or alias ("bc7", "astc6x6_srgb"); 0 when unknown.
GLYPTORA_TOOLS_API int glyptora_tools_find_format(const char* name, GlyptoraToolsFormat* out) {
    const FormatDesc* f = name ? findFormat(name) : nullptr;
    if (!f || !out) return 0;
    *out = {f->word, f->blockWidth, f->blockHeight, f->blockBytes(), f->family == BlockFamily::BC6H ? 1 : 0,
            f->isSigned ? 1 : 0, f->isSrgb ? 1 : 0, f->family == BlockFamily::ASTC ? 1 : 0, unavailableReason(*f)};
    return 1;
}

// "fastest" ... "highest" or "0" ... "3" to 0 ... 3; -1 otherwise.
GLYPTORA_TOOLS_API int glyptora_tools_parse_quality(const char* text) { return text ? parseQuality(text) : -1; }

GLYPTORA_TOOLS_API const char* glyptora_tools_quality_word(int level) {
    return level >= 0 && level < 4 ? kQualityWords[level] : nullptr;
}

GLYPTORA_TOOLS_API uint32_t glyptora_tools_full_level_count(uint32_t width, uint32_t height) {
    return fullLevelCount(width, height);
}

GLYPTORA_TOOLS_API uint64_t glyptora_tools_source_bytes(uint32_t width, uint32_t height, uint32_t levels,
                                                        int isFloat) {
    return sourceChainBytes(width, height, levels, isFloat != 0);
}

GLYPTORA_TOOLS_API uint64_t glyptora_tools_max_source_bytes(void) { return kMaxSourceBytes; }

GLYPTORA_TOOLS_API uint32_t glyptora_tools_max_image_side(void) { return kMaxImageSide; }

// Bytes of every level's blocks; 0 for an unknown word.
GLYPTORA_TOOLS_API uint64_t glyptora_tools_texture_bytes(const char* word, uint32_t width, uint32_t height,
                                                         uint32_t levels) {
    const FormatDesc* f = word ? findFormat(word) : nullptr;
    if (!f) return 0;
    return glyptora_internal::levelChainSize(glyptora_internal::geometryOf(*f), 0, width, height, 1, levels);
}

// Builds the level chain the command hands to the library from RGBA pixels (bytes, or floats
// when isFloat) into `chain`, sized by glyptora_tools_source_bytes. 0 when out of memory.
GLYPTORA_TOOLS_API int glyptora_tools_build_chain(const void* rgba, int isFloat, uint32_t width, uint32_t height,
                                                  uint32_t levels, int srgb, void* chain) {
    try {
        Image image;
        image.width = width;
        image.height = height;
        image.isFloat = isFloat != 0;
        const size_t values = size_t(width) * height * 4;
        if (image.isFloat) image.f32.assign(static_cast<const float*>(rgba), static_cast<const float*>(rgba) + values);
        else image.u8.assign(static_cast<const uint8_t*>(rgba), static_cast<const uint8_t*>(rgba) + values);
        const SourceChain built = buildSourceChain(image, levels, srgb != 0);
        std::memcpy(chain, built.bytes.data(), built.bytes.size());
        return 1;
    } catch (const std::exception&) {
        return 0;
    }
}

// Decodes one level into RGBA bytes (floats for BC6H); 0 when the format has no decoder.
GLYPTORA_TOOLS_API int glyptora_tools_decode_level(const char* word, const void* blocks, uint32_t width,
                                                   uint32_t height, void* rgba) {
    const FormatDesc* f = word ? findFormat(word) : nullptr;
    if (!f) return 0;
    try {
        const auto* in = static_cast<const uint8_t*>(blocks);
        const size_t values = size_t(width) * height * 4;
        if (f->family == BlockFamily::BC6H) {
            std::vector<float> pixels;
            if (!decodeLevelFloat(*f, in, width, height, pixels)) return 0;
            std::memcpy(rgba, pixels.data(), values * sizeof(float));
        } else {
            std::vector<uint8_t> pixels;
            if (!decodeLevel(*f, in, width, height, pixels)) return 0;
            std::memcpy(rgba, pixels.data(), values);
        }
        return 1;
    } catch (const std::exception&) {
        return 0;
    }
}

// Writes the blocks of every level as a "dds", "ktx2" or "astc" file, all-or-nothing as the
// command writes its outputs. 0 with a one-line reason in `error` on failure.
GLYPTORA_TOOLS_API int glyptora_tools_write_texture(const char* path, const char* container, const char* word,
                                                    uint32_t width, uint32_t height, uint32_t levels,
                                                    const void* blocks, char* error, size_t errorSize) {
    const FormatDesc* f = word ? findFormat(word) : nullptr;
    Container kind;
    if (!f || !path || !container || !containerForPath(std::string(".") + container, kind)) {
        setError(error, errorSize, "unknown format or container");
        return 0;
    }
    try {
        std::string reason;
        if (!containerAccepts(kind, *f, reason)) {
            setError(error, errorSize, reason);
            return 0;
        }
        EncodedTexture texture = layout(*f, width, height, levels);
        std::memcpy(texture.blocks.data(), blocks, texture.blocks.size());
        PendingOutput pending;
        if (!pending.open(path, reason) || !pending.commit(serialise(kind, texture), reason)) {
            setError(error, errorSize, reason);
            return 0;
        }
        return 1;
    } catch (const std::exception& e) {
        setError(error, errorSize, std::string("cannot write output: ") + e.what());
        return 0;
    }
}
