#pragma once
// Builds the level chain handed to the library: level 0 as loaded, each further level a box
// filter of the previous one (exact area average, so odd sizes weigh their edge pixels
// correctly). For sRGB destinations colour is averaged in linear light.
#include <cstdint>
#include <vector>

#include "tools/image_io.h"

namespace glyptora_tools {

struct SourceChain {
    bool isFloat = false;                // 16 bytes a pixel (four floats), else 4 (RGBA8)
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t levels = 0;
    std::vector<uint8_t> bytes;          // every level, one after the other
    std::vector<uint64_t> levelOffsets;  // byte offset of each level in `bytes`

    uint32_t levelWidth(uint32_t m) const { return width >> m ? width >> m : 1; }
    uint32_t levelHeight(uint32_t m) const { return height >> m ? height >> m : 1; }
    const uint8_t* level(uint32_t m) const { return bytes.data() + levelOffsets[m]; }
};

// Bytes the whole chain takes, so that callers can refuse it before building it.
uint64_t sourceChainBytes(uint32_t width, uint32_t height, uint32_t levels, bool isFloat);

// `srgb`: the destination stores sRGB-encoded colour. 8-bit images are taken as sRGB-encoded
// already; float images are linear and get their colour encoded (clamped to 0..1) for it.
SourceChain buildSourceChain(const Image& image, uint32_t levels, bool srgb);

float srgbToLinear(float v);
float linearToSrgb(float v);

}  // namespace glyptora_tools
