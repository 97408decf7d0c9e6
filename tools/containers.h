#pragma once
// Texture file containers: DDS (legacy FourCC header for unsigned BC1-BC5, DX10 header for
// the rest), KTX 2.0 and the .astc file of ASTC encoders.
#include <cstdint>
#include <string>
#include <vector>

#include "tools/formats.h"

namespace glyptora_tools {

enum class Container { DDS, KTX2, ASTC };

// Compressed blocks of every level, level 0 first, as the library writes them.
struct EncodedTexture {
    const FormatDesc* format = nullptr;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t levels = 0;
    std::vector<uint8_t> blocks;
    std::vector<uint64_t> levelOffsets;
    std::vector<uint64_t> levelSizes;
};

// Fills levelOffsets and levelSizes from the format and size, and sizes `blocks`.
void layoutLevels(EncodedTexture& texture);

// Container chosen by the file extension (".dds", ".ktx2", ".astc", any case); false when unknown.
bool containerForPath(const std::string& path, Container& container);
const char* containerExtension(Container container);
const char* containerName(Container container);

// Whether `format` can be stored in `container`; sets `reason` when not.
bool containerAccepts(Container container, const FormatDesc& format, std::string& reason);

// The whole file. The .astc container holds level 0 only.
std::vector<uint8_t> serialise(Container container, const EncodedTexture& texture);

// Constants of the KTX2 writer, shared with its tests.
extern const uint8_t kKtx2Identifier[12];

}  // namespace glyptora_tools
