#pragma once
// The destination formats as the command-line tool names them: the library's format words
// and short aliases, and quality words.
#include <cstdint>
#include <string>
#include <span>
#include <vector>

#include "dispatch/format_table.h"

namespace glyptora_tools {

// The library's format table is the tool's list of formats.
using FormatDesc = glyptora_internal::FormatRow;
using BlockFamily = glyptora_internal::FormatFamily;

// Why the tool refuses a format (no encoder, or no block decoder for --stats), or null
// when it offers it.
const char* unavailableReason(const FormatDesc& format);

// Every format of the library, in table order.
inline std::span<const FormatDesc> allFormats() { return glyptora_internal::allFormatRows(); }

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
