#pragma once
// The destination formats the command-line tool knows: the library's format words, short
// aliases, container codes (DXGI, FourCC, VkFormat) and whether the tool offers the format yet.
#include <cstdint>
#include <string>
#include <vector>

namespace glyptora_tools {

enum class BlockFamily { BC1, BC2, BC3, BC4, BC5, BC6H, BC7, ASTC };

struct FormatDesc {
    std::string word;       // library destination word, e.g. "unorm_bc1", "srgb_astc_6x6"
    BlockFamily family;
    int blockWidth;
    int blockHeight;
    int blockBytes;         // 8 or 16
    bool isSrgb;            // word starts with "srgb_"
    bool isSigned;          // snorm_bc4, snorm_bc5, float_bc6
    const char* fourCC;     // legacy DDS FourCC, or nullptr when a DX10 header is needed
    uint32_t dxgiFormat;    // DX10 header code (0: no DDS mapping)
    uint32_t vkFormat;      // KTX2 code
    bool available;         // the tool offers it (encoder and block decoder present)
    const char* note;       // why it is refused, or a remark printed for some qualities
};

// Every format of the library, in a fixed order.
const std::vector<FormatDesc>& allFormats();

// Looks up a library word or an alias ("bc1", "bc7_srgb", "bc6h", "astc6x6", ...), case-insensitively.
// Returns nullptr when the name is unknown.
const FormatDesc* findFormat(const std::string& name);

// Quality words the library takes, index = level 0..3.
extern const char* const kQualityWords[4];

// "fastest", "normal", "production", "highest" or "0".."3" → 0..3; -1 when not one of these.
int parseQuality(const std::string& text);

// Pixel texel-block grid size of one level.
inline uint32_t blocksAcross(uint32_t pixels, int blockSize) { return (pixels + uint32_t(blockSize) - 1) / uint32_t(blockSize); }

// Bytes of one level of `width` x `height` pixels in `format`.
uint64_t levelBytes(const FormatDesc& format, uint32_t width, uint32_t height);

// Number of levels of a full chain down to 1x1.
uint32_t fullLevelCount(uint32_t width, uint32_t height);

}  // namespace glyptora_tools
