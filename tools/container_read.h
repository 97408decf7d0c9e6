#pragma once
// Reads texture files back: DDS (legacy FourCC and DX10 headers, arrays, cube maps), KTX 2.0
// (arrays, cube maps, Zstandard supercompression) and .astc. Every field is checked against
// the file's size before it is used; a corrupt or unsupported file gives a one-line reason.
#include <cstdint>
#include <string>
#include <vector>

#include "tools/containers.h"

namespace glyptora_tools {

struct TextureFile {
    Container container = Container::DDS;
    EncodedTexture texture;          // blocks decompressed, in the library's order
    uint32_t supercompression = kKtx2NoSupercompression;
    uint64_t fileBytes = 0;
    std::vector<uint64_t> storedLevelBytes;  // bytes each level takes in the file
};

// The container is recognised by its signature, not by the file name.
bool readTextureFile(const std::string& path, TextureFile& file, std::string& error);
bool parseTextureFile(const std::vector<uint8_t>& bytes, TextureFile& file, std::string& error);

// "none", "Zstandard", ... for a KTX2 supercompression scheme.
const char* supercompressionName(uint32_t scheme);

}  // namespace glyptora_tools
