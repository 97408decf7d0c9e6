#include "tools/container_read.h"

#include <cstring>

#include "tools/image_io.h"
#include "tools/ktx2_zstd.h"

namespace glyptora_tools {

namespace {

// More layers and faces than this are taken for a corrupt header.
constexpr uint64_t kMaxSlices = 1u << 16;

uint32_t u32At(const std::vector<uint8_t>& b, size_t at) {
    uint32_t v;
    std::memcpy(&v, b.data() + at, 4);  // little-endian host
    return v;
}

uint64_t u64At(const std::vector<uint8_t>& b, size_t at) {
    uint64_t v;
    std::memcpy(&v, b.data() + at, 8);
    return v;
}

uint32_t u24At(const std::vector<uint8_t>& b, size_t at) {
    return uint32_t(b[at]) | uint32_t(b[at + 1]) << 8 | uint32_t(b[at + 2]) << 16;
}

// The blocks a texture needs, level by level, before they are allocated.
uint64_t textureBytes(const EncodedTexture& t) {
    uint64_t total = 0;
    for (uint32_t m = 0; m < t.levels; ++m)
        total += levelBytes(*t.format, std::max<uint32_t>(t.width >> m, 1), std::max<uint32_t>(t.height >> m, 1)) *
                 t.slices();
    return total;
}

// Checks the size, level count and slices of `t` (format already set) and lays out its levels.
bool checkShape(EncodedTexture& t, std::string& error) {
    if (t.width == 0 || t.height == 0) {
        error = "texture has no pixels (" + std::to_string(t.width) + "x" + std::to_string(t.height) + ")";
        return false;
    }
    if (t.width > kMaxImageSide || t.height > kMaxImageSide) {
        error = "texture too large (" + std::to_string(t.width) + "x" + std::to_string(t.height) +
                "): the largest side accepted is " + std::to_string(kMaxImageSide);
        return false;
    }
    const uint32_t full = fullLevelCount(t.width, t.height);
    if (t.levels > full) {
        error = std::to_string(t.levels) + " levels for " + std::to_string(t.width) + "x" + std::to_string(t.height) +
                " (at most " + std::to_string(full) + ")";
        return false;
    }
    if (t.layers == 0 || uint64_t(t.layers) * t.faces > kMaxSlices) {
        error = "corrupt header: " + std::to_string(t.layers) + " layers";
        return false;
    }
    if (t.faces == 6 && t.width != t.height) {
        error = "cube map faces are not square (" + std::to_string(t.width) + "x" + std::to_string(t.height) + ")";
        return false;
    }
    if (textureBytes(t) > kMaxSourceBytes) {
        error = "texture too large: its blocks would take more than " + std::to_string(kMaxSourceBytes >> 20) + " MiB";
        return false;
    }
    return true;
}

std::string truncated(uint64_t need, uint64_t have) {
    return "file truncated: its data needs " + std::to_string(need) + " bytes, " + std::to_string(have) +
           " are there";
}

const FormatDesc* formatForDxgi(uint32_t dxgi) {
    // Typeless codes read as the unsigned format of their block.
    const uint32_t typeless[][2] = {{70, 71}, {73, 74}, {76, 77}, {79, 80}, {82, 83}, {94, 95}, {97, 98}};
    for (const auto& pair : typeless)
        if (dxgi == pair[0]) dxgi = pair[1];
    for (const FormatDesc& f : allFormats())
        if (f.dxgiFormat != 0 && f.dxgiFormat == dxgi) return &f;
    return nullptr;
}

const FormatDesc* formatForFourCC(const char* code) {
    struct Alias {
        const char* fourCC;
        const char* word;
    };
    static const Alias kAliases[] = {{"BC4U", "unorm_bc4"}, {"BC4S", "snorm_bc4"}, {"BC5U", "unorm_bc5"},
                                     {"BC5S", "snorm_bc5"}};
    for (const FormatDesc& f : allFormats())
        if (f.fourCC && std::memcmp(f.fourCC, code, 4) == 0) return &f;
    for (const Alias& a : kAliases)
        if (std::memcmp(a.fourCC, code, 4) == 0) return findFormat(a.word);
    return nullptr;
}

std::string printableFourCC(const char* code) {
    std::string s(code, 4);
    for (char& c : s)
        if (c < 0x20 || c > 0x7E) c = '?';
    return s;
}

bool parseDds(const std::vector<uint8_t>& b, TextureFile& file, std::string& error) {
    EncodedTexture& t = file.texture;
    if (b.size() < 128 || u32At(b, 4) != dds::kHeaderSize || u32At(b, 76) != dds::kPixelFormatSize) {
        error = "corrupt DDS header";
        return false;
    }
    if (!(u32At(b, 80) & dds::kPfFourCC)) {
        error = "uncompressed DDS files are not supported (block-compressed formats only)";
        return false;
    }
    const char* code = reinterpret_cast<const char*>(b.data() + 84);
    t.height = u32At(b, 12);
    t.width = u32At(b, 16);
    const uint32_t mipCount = u32At(b, 28);
    t.levels = mipCount ? mipCount : 1;
    const uint32_t caps2 = u32At(b, 112);
    size_t start = 128;
    if (std::memcmp(code, "DX10", 4) == 0) {
        if (b.size() < 148) {
            error = "corrupt DDS header: DX10 header cut short";
            return false;
        }
        const uint32_t dxgi = u32At(b, 128);
        t.format = formatForDxgi(dxgi);
        if (!t.format) {
            error = "unsupported DXGI format " + std::to_string(dxgi);
            return false;
        }
        if (u32At(b, 132) != dds::kDimensionTexture2D) {
            error = "only 2D textures are supported (DDS resource dimension " + std::to_string(u32At(b, 132)) + ")";
            return false;
        }
        t.faces = (u32At(b, 136) & dds::kMiscTextureCube) ? 6 : 1;
        t.layers = u32At(b, 140);
        t.isArray = t.layers > 1;
        t.premultiplied = (u32At(b, 144) & 7) == dds::kAlphaModePremultiplied;
        start = 148;
    } else {
        t.format = formatForFourCC(code);
        if (!t.format) {
            error = "unsupported DDS FourCC '" + printableFourCC(code) + "'";
            return false;
        }
        if (caps2 & dds::kCaps2Cubemap) {
            if ((caps2 & dds::kCaps2AllFaces) != dds::kCaps2AllFaces) {
                error = "cube maps without all six faces are not supported";
                return false;
            }
            t.faces = 6;
        }
    }
    if (caps2 & dds::kCaps2Volume) {
        error = "volume textures are not supported";
        return false;
    }
    if (t.format->family == BlockFamily::ASTC) {
        error = "ASTC in DDS is not supported";
        return false;
    }
    if (!checkShape(t, error)) return false;
    const uint64_t need = textureBytes(t);
    if (need > b.size() - start) {
        error = truncated(need, b.size() - start);
        return false;
    }
    // The file holds slice after slice, each with all its levels; the library's order is level
    // after level.
    layoutLevels(t);
    const uint8_t* in = b.data() + start;
    for (uint32_t s = 0; s < t.slices(); ++s)
        for (uint32_t m = 0; m < t.levels; ++m) {
            const uint64_t n = t.sliceBytes(m);
            std::memcpy(t.blocks.data() + t.levelOffsets[m] + s * n, in, size_t(n));
            in += n;
        }
    file.storedLevelBytes = t.levelSizes;
    return true;
}

bool parseKtx2(const std::vector<uint8_t>& b, TextureFile& file, std::string& error) {
    EncodedTexture& t = file.texture;
    if (b.size() < 80) {
        error = "corrupt KTX2 header";
        return false;
    }
    const uint32_t vkFormat = u32At(b, 12);
    for (const FormatDesc& f : allFormats())
        if (f.vkFormat == vkFormat) {
            t.format = &f;
            break;
        }
    if (!t.format) {
        error = "unsupported Vulkan format " + std::to_string(vkFormat);
        return false;
    }
    t.width = u32At(b, 20);
    t.height = u32At(b, 24);
    if (u32At(b, 28) != 0) {
        error = "3D textures are not supported";
        return false;
    }
    const uint32_t layerCount = u32At(b, 32), faceCount = u32At(b, 36), levelCount = u32At(b, 40);
    file.supercompression = u32At(b, 44);
    if (faceCount != 1 && faceCount != 6) {
        error = "corrupt KTX2 header: " + std::to_string(faceCount) + " faces";
        return false;
    }
    t.faces = faceCount;
    t.isArray = layerCount > 0;
    t.layers = layerCount ? layerCount : 1;
    t.levels = levelCount ? levelCount : 1;  // 0: level 0 only, the rest for the reader to make
    if (file.supercompression != kKtx2NoSupercompression && file.supercompression != kKtx2Zstandard) {
        error = std::string("unsupported KTX2 supercompression: ") + supercompressionName(file.supercompression);
        return false;
    }
    if (!checkShape(t, error)) return false;
    if (80 + 24 * uint64_t(t.levels) > b.size()) {
        error = "file truncated: the level index ends beyond the file";
        return false;
    }
    const uint64_t dfdOffset = u32At(b, 48), dfdLength = u32At(b, 52);
    if (dfdLength >= 16 && dfdOffset + dfdLength <= b.size())
        t.premultiplied = (b[size_t(dfdOffset) + 15] & kDfdFlagPremultiplied) != 0;
    layoutLevels(t);
    for (uint32_t m = 0; m < t.levels; ++m) {
        const uint64_t offset = u64At(b, 80 + 24 * size_t(m)), length = u64At(b, 88 + 24 * size_t(m));
        const uint64_t uncompressed = u64At(b, 96 + 24 * size_t(m));
        const std::string where = "level " + std::to_string(m) + ": ";
        if (offset > b.size() || length > b.size() - offset) {
            error = where + "data beyond the end of the file";
            return false;
        }
        if (uncompressed != t.levelSizes[m] ||
            (file.supercompression == kKtx2NoSupercompression && length != t.levelSizes[m])) {
            error = where + std::to_string(uncompressed) + " bytes where " + std::to_string(t.levelSizes[m]) +
                    " are expected";
            return false;
        }
        uint8_t* out = t.blocks.data() + t.levelOffsets[m];
        if (file.supercompression == kKtx2Zstandard) {
            std::vector<uint8_t> level;
            if (!inflateZstdLevel(b.data() + offset, length, uncompressed, level, error)) {
                error = where + error;
                return false;
            }
            std::memcpy(out, level.data(), level.size());
        } else {
            std::memcpy(out, b.data() + offset, size_t(length));
        }
        file.storedLevelBytes.push_back(length);
    }
    return true;
}

bool parseAstc(const std::vector<uint8_t>& b, TextureFile& file, std::string& error) {
    EncodedTexture& t = file.texture;
    if (b.size() < 16) {
        error = "corrupt .astc header";
        return false;
    }
    const int bw = b[4], bh = b[5], bd = b[6];
    for (const FormatDesc& f : allFormats())
        if (f.family == BlockFamily::ASTC && !f.isSrgb && f.blockWidth == bw && f.blockHeight == bh) t.format = &f;
    if (!t.format || bd != 1) {
        error = "unsupported ASTC block size " + std::to_string(bw) + "x" + std::to_string(bh) + "x" + std::to_string(bd);
        return false;
    }
    t.width = u24At(b, 7);
    t.height = u24At(b, 10);
    if (u24At(b, 13) != 1) {
        error = "3D textures are not supported";
        return false;
    }
    t.levels = 1;
    if (!checkShape(t, error)) return false;
    const uint64_t need = textureBytes(t);
    if (need > b.size() - 16) {
        error = truncated(need, b.size() - 16);
        return false;
    }
    layoutLevels(t);
    std::memcpy(t.blocks.data(), b.data() + 16, t.blocks.size());
    file.storedLevelBytes = t.levelSizes;
    return true;
}

}  // namespace

const char* supercompressionName(uint32_t scheme) {
    switch (scheme) {
        case kKtx2NoSupercompression: return "none";
        case 1: return "BasisLZ";
        case kKtx2Zstandard: return "Zstandard";
        case 3: return "ZLIB";
        default: return "unknown scheme";
    }
}

bool parseTextureFile(const std::vector<uint8_t>& bytes, TextureFile& file, std::string& error) {
    file = TextureFile();
    file.fileBytes = bytes.size();
    if (bytes.size() >= 4 && std::memcmp(bytes.data(), "DDS ", 4) == 0) {
        file.container = Container::DDS;
        return parseDds(bytes, file, error);
    }
    if (bytes.size() >= 12 && std::memcmp(bytes.data(), kKtx2Identifier, 12) == 0) {
        file.container = Container::KTX2;
        return parseKtx2(bytes, file, error);
    }
    if (bytes.size() >= 4 && u32At(bytes, 0) == kAstcFileMagic) {
        file.container = Container::ASTC;
        return parseAstc(bytes, file, error);
    }
    error = "not a DDS, KTX2 or .astc file";
    return false;
}

bool readTextureFile(const std::string& path, TextureFile& file, std::string& error) {
    std::vector<uint8_t> bytes;
    if (!readWholeFile(path, bytes, error)) return false;
    return parseTextureFile(bytes, file, error);
}

}  // namespace glyptora_tools
