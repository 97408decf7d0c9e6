#pragma once
// Texture file containers: DDS (legacy FourCC header for unsigned BC1-BC5, DX10 header for
// the rest), KTX 2.0 and the .astc file of ASTC encoders.
#include <cstdint>
#include <string>
#include <vector>

#include "tools/formats.h"

namespace glyptora_tools {

enum class Container { DDS, KTX2, ASTC };

// Compressed blocks of every level, level 0 first, as the library writes them. A level holds
// every slice: array layer after array layer, and in each layer the six faces of a cube map
// in the order +X -X +Y -Y +Z -Z.
struct EncodedTexture {
    const FormatDesc* format = nullptr;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t levels = 0;
    uint32_t layers = 1;         // array layers (cube maps in a cube map array)
    uint32_t faces = 1;          // 6 for a cube map
    bool isArray = false;        // written as an array texture, even with one layer
    bool premultiplied = false;  // colour is premultiplied by alpha
    std::vector<uint8_t> blocks;
    std::vector<uint64_t> levelOffsets;
    std::vector<uint64_t> levelSizes;  // whole levels, every slice

    uint32_t slices() const { return layers * faces; }
    uint64_t sliceBytes(uint32_t m) const { return levelSizes[m] / slices(); }
    const uint8_t* slice(uint32_t m, uint32_t s) const { return blocks.data() + levelOffsets[m] + s * sliceBytes(m); }
};

// Fills levelOffsets and levelSizes from the format, size and slices, and sizes `blocks`.
void layoutLevels(EncodedTexture& texture);

// The extension of the file `path` names, from its last dot, in lower case (".dds"); empty without one.
std::string lowerExtension(const std::string& path);

// Container chosen by the file extension (".dds", ".ktx2", ".astc", any case); false when unknown.
bool containerForPath(const std::string& path, Container& container);
const char* containerExtension(Container container);
const char* containerName(Container container);

// Whether `format` can be stored in `container`; sets `reason` when not.
bool containerAccepts(Container container, const FormatDesc& format, std::string& reason);

// Whether the container can hold the texture's layers and faces; sets `reason` when not.
bool containerHoldsSlices(Container container, const EncodedTexture& texture, std::string& reason);

// The whole file. The .astc container holds level 0 only.
std::vector<uint8_t> serialise(Container container, const EncodedTexture& texture);

// KTX2 supercompression schemes.
constexpr uint32_t kKtx2NoSupercompression = 0;
constexpr uint32_t kKtx2Zstandard = 2;

// A KTX2 file whose levels are stored as `stored[m]` (level m as compressed by `scheme`).
std::vector<uint8_t> serialiseKtx2(const EncodedTexture& texture, uint32_t scheme,
                                   const std::vector<std::vector<uint8_t>>& stored);

// Constants of the KTX2 writer, shared with its tests and the reader.
extern const uint8_t kKtx2Identifier[12];
constexpr uint32_t kAstcFileMagic = 0x5CA1AB13u;
// DDS header values shared by the writer and the reader.
namespace dds {
enum : uint32_t {
    kHeaderSize = 124, kPixelFormatSize = 32, kPfFourCC = 0x4,
    kCaps2Cubemap = 0x200, kCaps2AllFaces = 0xFC00, kCaps2Volume = 0x200000,
    kDimensionTexture2D = 3, kMiscTextureCube = 0x4, kAlphaModePremultiplied = 2,
};
}  // namespace dds
// Bit of the Data Format Descriptor's flags byte for premultiplied alpha.
constexpr uint8_t kDfdFlagPremultiplied = 1;

}  // namespace glyptora_tools
