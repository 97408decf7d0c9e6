#include "tools/containers.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace glyptora_tools {

const uint8_t kKtx2Identifier[12] = {0xAB, 0x4B, 0x54, 0x58, 0x20, 0x32, 0x30, 0xBB, 0x0D, 0x0A, 0x1A, 0x0A};

namespace {

class Writer {
public:
    explicit Writer(std::vector<uint8_t>& out) : m_out(out) {}
    void u8(uint8_t v) { m_out.push_back(v); }
    void u16(uint16_t v) { bytes(&v, 2); }
    void u24(uint32_t v) {
        u8(uint8_t(v));
        u8(uint8_t(v >> 8));
        u8(uint8_t(v >> 16));
    }
    void u32(uint32_t v) { bytes(&v, 4); }
    void u64(uint64_t v) { bytes(&v, 8); }
    void bytes(const void* p, size_t n) {
        const size_t at = m_out.size();
        m_out.resize(at + n);
        if (n) std::memcpy(m_out.data() + at, p, n);  // little-endian host
    }
    void zeros(size_t n) { m_out.insert(m_out.end(), n, 0); }
    void padTo(size_t alignment) {
        while (m_out.size() % alignment) m_out.push_back(0);
    }
    size_t size() const { return m_out.size(); }
    void patch32(size_t at, uint32_t v) { std::memcpy(m_out.data() + at, &v, 4); }
    void patch64(size_t at, uint64_t v) { std::memcpy(m_out.data() + at, &v, 8); }

private:
    std::vector<uint8_t>& m_out;
};

uint32_t fourCC(const char* s) {
    return uint32_t(uint8_t(s[0])) | uint32_t(uint8_t(s[1])) << 8 | uint32_t(uint8_t(s[2])) << 16 |
           uint32_t(uint8_t(s[3])) << 24;
}

// DDS: "DDS ", 124-byte header, optional 20-byte DX10 header, then slice after slice (array
// layer, and cube face within a layer), each with every level from level 0. Arrays and cube
// maps take the DX10 header, whose array size counts layers (whole cube maps for cubes).
std::vector<uint8_t> writeDds(const EncodedTexture& t) {
    const FormatDesc& f = *t.format;
    const bool cube = t.faces == 6;
    const bool dx10 = !f.fourCC || t.isArray || cube || t.premultiplied;
    const bool complex = t.levels > 1 || cube || t.slices() > 1;
    std::vector<uint8_t> out;
    Writer w(out);
    enum : uint32_t {
        kCaps = 0x1, kHeight = 0x2, kWidth = 0x4, kPixelFormat = 0x1000, kMipMapCount = 0x20000, kLinearSize = 0x80000,
        kCapsComplex = 0x8, kCapsTexture = 0x1000, kCapsMipMap = 0x400000,
    };
    w.u32(fourCC("DDS "));
    w.u32(dds::kHeaderSize);
    w.u32(kCaps | kHeight | kWidth | kPixelFormat | kLinearSize | (t.levels > 1 ? uint32_t(kMipMapCount) : 0u));
    w.u32(t.height);
    w.u32(t.width);
    w.u32(uint32_t(t.sliceBytes(0)));  // linear size of level 0
    w.u32(0);                          // depth
    w.u32(t.levels);
    w.zeros(11 * 4);
    // Pixel format.
    w.u32(dds::kPixelFormatSize);
    w.u32(dds::kPfFourCC);
    w.u32(fourCC(dx10 ? "DX10" : f.fourCC));
    w.zeros(5 * 4);
    w.u32(kCapsTexture | (complex ? uint32_t(kCapsComplex) : 0u) | (t.levels > 1 ? uint32_t(kCapsMipMap) : 0u));
    w.u32(cube ? uint32_t(dds::kCaps2Cubemap | dds::kCaps2AllFaces) : 0u);
    w.zeros(3 * 4);  // caps3, caps4, reserved
    if (dx10) {
        w.u32(f.dxgiFormat);
        w.u32(dds::kDimensionTexture2D);
        w.u32(cube ? uint32_t(dds::kMiscTextureCube) : 0u);
        w.u32(t.layers);
        w.u32(t.premultiplied ? uint32_t(dds::kAlphaModePremultiplied) : 0u);  // else unknown
    }
    for (uint32_t s = 0; s < t.slices(); ++s)
        for (uint32_t m = 0; m < t.levels; ++m) w.bytes(t.slice(m, s), size_t(t.sliceBytes(m)));
    return out;
}

// Data Format Descriptor values.
enum : uint32_t {
    kModelBC1A = 128, kModelBC2 = 129, kModelBC3 = 130, kModelBC4 = 131, kModelBC5 = 132, kModelBC6H = 133,
    kModelBC7 = 134, kModelASTC = 162,
    kPrimariesBT709 = 1, kTransferLinear = 1, kTransferSrgb = 2,
    kQualifierLinear = 0x10, kQualifierSigned = 0x40, kQualifierFloat = 0x80,
    kChannelAlpha = 15,
};

struct Sample {
    uint32_t bitOffset, bitLength, channel, qualifiers, lower, upper;
};

void dfdSamples(const FormatDesc& f, uint32_t& model, std::vector<Sample>& samples) {
    const uint32_t sign = f.isSigned ? uint32_t(kQualifierSigned) : 0u;
    const uint32_t lower = f.isSigned ? 0x80000000u : 0u, upper = f.isSigned ? 0x7FFFFFFFu : 0xFFFFFFFFu;
    const uint32_t alphaQualifier = f.isSrgb ? uint32_t(kQualifierLinear) : 0u;
    switch (f.family) {
        case BlockFamily::BC1:
            model = kModelBC1A;
            samples = {{0, 64, kChannelAlpha, alphaQualifier, 0, 0xFFFFFFFFu}};
            break;
        case BlockFamily::BC2:
        case BlockFamily::BC3:
            model = f.family == BlockFamily::BC2 ? kModelBC2 : kModelBC3;
            samples = {{0, 64, kChannelAlpha, alphaQualifier, 0, 0xFFFFFFFFu}, {64, 64, 0, 0, 0, 0xFFFFFFFFu}};
            break;
        case BlockFamily::BC4:
            model = kModelBC4;
            samples = {{0, 64, 0, sign, lower, upper}};
            break;
        case BlockFamily::BC5:
            model = kModelBC5;
            samples = {{0, 64, 0, sign, lower, upper}, {64, 64, 1, sign, lower, upper}};
            break;
        case BlockFamily::BC6H:
            model = kModelBC6H;
            samples = {{0, 128, 0, uint32_t(kQualifierFloat) | sign, f.isSigned ? 0xBF800000u : 0u, 0x3F800000u}};
            break;
        case BlockFamily::BC7:
            model = kModelBC7;
            samples = {{0, 128, 0, 0, 0, 0xFFFFFFFFu}};
            break;
        case BlockFamily::ASTC:
            model = kModelASTC;
            samples = {{0, 128, 0, 0, 0, 0xFFFFFFFFu}};
            break;
    }
}

void writeDfd(Writer& w, const FormatDesc& f, bool premultiplied, bool supercompressed) {
    uint32_t model = 0;
    std::vector<Sample> samples;
    dfdSamples(f, model, samples);
    const uint32_t blockSize = 24 + 16 * uint32_t(samples.size());
    w.u32(4 + blockSize);                // total size of the descriptor
    w.u32(0);                            // vendor 0 (Khronos), descriptor type 0 (basic)
    w.u32(2u | (blockSize << 16));       // version 2, block size
    w.u8(uint8_t(model));
    w.u8(uint8_t(kPrimariesBT709));
    w.u8(uint8_t(f.isSrgb ? uint32_t(kTransferSrgb) : uint32_t(kTransferLinear)));
    w.u8(premultiplied ? kDfdFlagPremultiplied : 0);
    w.u8(uint8_t(f.blockWidth - 1));
    w.u8(uint8_t(f.blockHeight - 1));
    w.u8(0);
    w.u8(0);
    w.u8(supercompressed ? 0 : uint8_t(f.blockBytes()));  // bytes of plane 0; 0 (unsized) when supercompressed
    w.zeros(7);
    for (const Sample& s : samples) {
        w.u16(uint16_t(s.bitOffset));
        w.u8(uint8_t(s.bitLength - 1));
        w.u8(uint8_t(s.channel | s.qualifiers));
        w.u32(0);  // sample position
        w.u32(s.lower);
        w.u32(s.upper);
    }
}

// KTX 2.0: header, index, level index (level 0 first), DFD, key/value data, then the level
// data from the smallest level to level 0, each level aligned to its block size (to nothing
// when supercompressed). A level holds every layer and face.
std::vector<uint8_t> writeKtx2(const EncodedTexture& t, uint32_t scheme, const std::vector<std::vector<uint8_t>>* stored) {
    const FormatDesc& f = *t.format;
    std::vector<uint8_t> out;
    Writer w(out);
    w.bytes(kKtx2Identifier, 12);
    w.u32(f.vkFormat);
    w.u32(1);  // type size of block-compressed formats
    w.u32(t.width);
    w.u32(t.height);
    w.u32(0);  // pixel depth: 2D
    w.u32(t.isArray ? t.layers : 0u);  // layer count: 0 when not an array
    w.u32(t.faces);
    w.u32(t.levels);
    w.u32(scheme);
    const size_t indexAt = w.size();
    w.zeros(4 * 4 + 2 * 8);  // dfd offset/length, kvd offset/length, sgd offset/length
    const size_t levelIndexAt = w.size();
    w.zeros(size_t(t.levels) * 24);

    const size_t dfdAt = w.size();
    writeDfd(w, f, t.premultiplied, scheme != kKtx2NoSupercompression);
    const size_t dfdLength = w.size() - dfdAt;

    const size_t kvdAt = w.size();
    static const char kKey[] = "KTXwriter";
    static const char kValue[] = "Glyptora";
    w.u32(uint32_t(sizeof(kKey) + sizeof(kValue)));  // both with their terminating zero
    w.bytes(kKey, sizeof(kKey));
    w.bytes(kValue, sizeof(kValue));
    w.padTo(4);
    const size_t kvdLength = w.size() - kvdAt;

    w.patch32(indexAt + 0, uint32_t(dfdAt));
    w.patch32(indexAt + 4, uint32_t(dfdLength));
    w.patch32(indexAt + 8, uint32_t(kvdAt));
    w.patch32(indexAt + 12, uint32_t(kvdLength));
    // No supercompression global data: offset and length stay 0.

    const size_t alignment = stored ? 1 : size_t(f.blockBytes());  // lcm(block size, 4)
    for (uint32_t m = t.levels; m-- > 0;) {
        w.padTo(alignment);
        const size_t at = w.size();
        if (stored) w.bytes((*stored)[m].data(), (*stored)[m].size());
        else w.bytes(t.blocks.data() + t.levelOffsets[m], size_t(t.levelSizes[m]));
        w.patch64(levelIndexAt + size_t(m) * 24 + 0, at);
        w.patch64(levelIndexAt + size_t(m) * 24 + 8, w.size() - at);
        w.patch64(levelIndexAt + size_t(m) * 24 + 16, t.levelSizes[m]);
    }
    return out;
}

// .astc: 16-byte header (magic, block size, 24-bit image size) and the blocks of level 0.
std::vector<uint8_t> writeAstc(const EncodedTexture& t) {
    const FormatDesc& f = *t.format;
    std::vector<uint8_t> out;
    Writer w(out);
    w.u32(kAstcFileMagic);
    w.u8(uint8_t(f.blockWidth));
    w.u8(uint8_t(f.blockHeight));
    w.u8(1);
    w.u24(t.width);
    w.u24(t.height);
    w.u24(1);
    w.bytes(t.blocks.data() + t.levelOffsets[0], size_t(t.levelSizes[0]));
    return out;
}

}  // namespace

std::string lowerExtension(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    const size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
    std::string ext = path.substr(dot);
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return ext;
}

void layoutLevels(EncodedTexture& t) {
    t.levelOffsets.clear();
    t.levelSizes.clear();
    uint64_t offset = 0;
    for (uint32_t m = 0; m < t.levels; ++m) {
        const uint32_t w = std::max<uint32_t>(t.width >> m, 1), h = std::max<uint32_t>(t.height >> m, 1);
        const uint64_t size = levelBytes(*t.format, w, h) * t.slices();
        t.levelOffsets.push_back(offset);
        t.levelSizes.push_back(size);
        offset += size;
    }
    t.blocks.assign(size_t(offset), 0);
}

bool containerForPath(const std::string& path, Container& container) {
    const std::string ext = lowerExtension(path);
    if (ext == ".dds") container = Container::DDS;
    else if (ext == ".ktx2") container = Container::KTX2;
    else if (ext == ".astc") container = Container::ASTC;
    else return false;
    return true;
}

const char* containerExtension(Container c) {
    switch (c) {
        case Container::DDS: return ".dds";
        case Container::KTX2: return ".ktx2";
        case Container::ASTC: return ".astc";
    }
    return "";
}

const char* containerName(Container c) {
    switch (c) {
        case Container::DDS: return "DDS";
        case Container::KTX2: return "KTX2";
        case Container::ASTC: return "ASTC";
    }
    return "";
}

bool containerAccepts(Container c, const FormatDesc& f, std::string& reason) {
    if (c == Container::ASTC && f.family != BlockFamily::ASTC) {
        reason = "the .astc container holds ASTC formats only (use .dds or .ktx2 for " + std::string(f.word) + ")";
        return false;
    }
    if (c == Container::DDS && f.family == BlockFamily::ASTC) {
        reason = "ASTC formats are written to .ktx2 or .astc, not .dds";
        return false;
    }
    return true;
}

bool containerHoldsSlices(Container c, const EncodedTexture& t, std::string& reason) {
    if (c == Container::ASTC && (t.slices() > 1 || t.isArray)) {
        reason = "the .astc container holds one image (use .ktx2 for arrays and cube maps)";
        return false;
    }
    return true;
}

std::vector<uint8_t> serialise(Container c, const EncodedTexture& t) {
    switch (c) {
        case Container::DDS: return writeDds(t);
        case Container::KTX2: return writeKtx2(t, kKtx2NoSupercompression, nullptr);
        case Container::ASTC: return writeAstc(t);
    }
    return {};
}

std::vector<uint8_t> serialiseKtx2(const EncodedTexture& t, uint32_t scheme,
                                   const std::vector<std::vector<uint8_t>>& stored) {
    return writeKtx2(t, scheme, scheme == kKtx2NoSupercompression ? nullptr : &stored);
}

}  // namespace glyptora_tools
