// Writes the blocks of a fixed set of conversions, through the exported GlyptoraConvert, to
// one file: every format and quality of the pinned-hash list and every ASTC footprint, from
// 8-bit and float sources with mip chains, layers and volumes. The sources are made with
// integer arithmetic only, so that the Linux and the Windows builds of this program convert
// the same bytes and their files must match byte for byte.
//
//   glyptora_block_dump <output file>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

#include "glyptora.h"
#include "pinned_conversions.h"

namespace {

// A conversion: format, options, block size and footprint.
struct Conversion {
    const wchar_t* format;
    const wchar_t* options;
    uint32_t blockBytes, blockWidth = 4, blockHeight = 4;
};

// The footprint is an ASTC name's trailing "WxH"; 4x4 for the BC formats.
Conversion conversion(const wchar_t* format, const wchar_t* options, uint32_t blockBytes) {
    Conversion c{format, options, blockBytes};
    const std::wstring name = format;
    if (name.find(L"astc") != std::wstring::npos)
        std::swscanf(name.c_str() + name.rfind(L'_') + 1, L"%ux%u", &c.blockWidth, &c.blockHeight);
    return c;
}

// Smooth ramps with a hashed ripple, per channel, in [0, 4095].
uint32_t texel(uint32_t x, uint32_t y, uint32_t z, int c) {
    uint32_t h = x * 0x9E3779B1u ^ y * 0x85EBCA77u ^ z * 0xC2B2AE3Du ^ uint32_t(c) * 0x27D4EB2Fu;
    h ^= h >> 15;
    h *= 0x2C1B3C6Du;
    h ^= h >> 13;
    const uint32_t ramp = (x * 97 + y * 61 * uint32_t(c + 1) + z * 331) % 4096;
    return (ramp * 3 + (h & 1023)) / 4;
}

std::vector<pinned::Source> sources() {
    using P = uint32_t;
    // Opaque, then alpha in steps (0, 127, 128, 254, 255 among them).
    return {pinned::makeSource<uint8_t>(L"unorm_8_8_8_8", 37, 29, 1, 3, 0, [](P x, P y, P z, P m, int c) {
                return c == 3 ? uint8_t(255) : uint8_t(texel(x + 7 * m, y, z, c) >> 4);
            }),
            pinned::makeSource<uint8_t>(L"srgb_8_8_8_8", 16, 12, 2, 2, 1, [](P x, P y, P z, P m, int c) {
                return c == 3 ? uint8_t((x * 37) % 256) : uint8_t(texel(x + 7 * m, y, z, c) >> 4);
            }),
            pinned::makeSource<int8_t>(L"snorm_8_8_8_8", 9, 11, 1, 2, 0, [](P x, P y, P z, P m, int c) {
                return int8_t(int(texel(x + 7 * m, y, z, c) >> 4) - 128);
            }),
            // Floats from -0.25 to 1.75 in steps of 1/2048, exact in binary.
            pinned::makeSource<float>(L"float_32_32_32_32", 10, 6, 4, 2, 2, [](P x, P y, P z, P m, int c) {
                return float(int(texel(x + 7 * m, y, z, c)) - 512) / 2048.0f;
            })};
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: glyptora_block_dump <output file>\n");
        return 2;
    }
    // The pinned list, plus every ASTC footprint at every quality.
    std::vector<Conversion> conversions;
    for (const pinned::Row& p : pinned::kRows)
        for (int i = 0; i < p.count(); ++i) conversions.push_back(conversion(p.format, p.optionsAt(i), p.blockBytes));
    std::vector<std::wstring> names;
    for (const wchar_t* footprint : {L"4x4", L"5x4", L"5x5", L"6x5", L"6x6", L"8x5", L"8x6", L"8x8", L"10x5", L"10x6",
                                     L"10x8", L"10x10", L"12x10", L"12x12"})
        names.push_back(std::wstring(L"unorm_astc_") + footprint);
    for (const std::wstring& name : names)
        for (const wchar_t* quality : pinned::kQualities) conversions.push_back(conversion(name.c_str(), quality, 16));

    std::vector<uint8_t> all;
    int failures = 0;
    const std::vector<pinned::Source> inputs = sources();
    for (const Conversion& p : conversions)
        for (const pinned::Source& s : inputs)
            for (uint32_t flags : {0u, 2u}) {
                // ASTC conversions also once with flag 2 (luminance and alpha in channels 0 and 1).
                if (flags && std::wstring(p.format).find(L"astc") == std::wstring::npos) continue;
                std::vector<uint8_t> out(pinned::chainBytes(s, p.blockBytes, p.blockWidth, p.blockHeight), 0xA5);
                if (!GlyptoraConvert(out.data(), s.bytes.data(), p.format, s.format, p.options, flags, s.dimension,
                                     s.width, s.height, s.depth, s.levels)) {
                    std::fprintf(stderr, "failed: %ls %ls from %ls\n", p.format, p.options, s.format);
                    ++failures;
                }
                all.insert(all.end(), out.begin(), out.end());
            }
    FILE* file = std::fopen(argv[1], "wb");
    if (!file || std::fwrite(all.data(), 1, all.size(), file) != all.size() || std::fclose(file) != 0) {
        std::fprintf(stderr, "cannot write %s\n", argv[1]);
        return 1;
    }
    std::printf("%zu conversions of %zu sources, %zu bytes of blocks\n", conversions.size(), inputs.size(), all.size());
    return failures ? 1 : 0;
}
