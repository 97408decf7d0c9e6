#pragma once
// Decodes compressed levels back to pixels with the library's own block decoders.
#include <cstdint>
#include <vector>

#include "tools/formats.h"

namespace glyptora_tools {

// Whether the library has a block decoder for `format` (decodeLevel, or decodeLevelFloat for
// the float formats).
bool canDecode(const FormatDesc& format);

// Decodes one level of `width` x `height` pixels (blocks in row-major order) into RGBA8, row
// by row. Signed formats give two's-complement bytes. Channels a format lacks read as 0
// (colour) and full coverage (alpha: 255, or 127 for signed formats). False when no decoder exists.
bool decodeLevel(const FormatDesc& format, const uint8_t* blocks, uint32_t width, uint32_t height,
                 std::vector<uint8_t>& rgba);

// The same for the float formats (BC6H): RGBA floats, alpha 1. False for other formats.
bool decodeLevelFloat(const FormatDesc& format, const uint8_t* blocks, uint32_t width, uint32_t height,
                      std::vector<float>& rgba);

}  // namespace glyptora_tools
