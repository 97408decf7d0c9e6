// Writes the blocks of a fixed set of conversions, through the exported GlyptoraConvert, to
// one file: every format and quality of the pinned-hash list and every ASTC footprint, from 8-bit and float sources
// with mip chains, layers and volumes. The sources are made with integer arithmetic only, so
// that the Linux and the Windows builds of this program convert the same bytes and their files
// must match byte for byte.
//
//   glyptora_block_dump <output file>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "glyptora.h"
#include "pinned_conversions.h"

namespace {

// A conversion: format, options and block size.
struct Conversion {
    const wchar_t* format;
    const wchar_t* options;
    uint32_t blockBytes;
};

struct Source {
    const wchar_t* format;
    std::vector<uint8_t> bytes;
    uint32_t width, height, depth, levels, dimension;
};

uint32_t levelSize(uint32_t size, uint32_t level) { return std::max(size >> level, 1u); }

// Smooth ramps with a hashed ripple, per channel, in [0, 4095].
uint32_t texel(uint32_t x, uint32_t y, uint32_t z, int c) {
    uint32_t h = x * 0x9E3779B1u ^ y * 0x85EBCA77u ^ z * 0xC2B2AE3Du ^ uint32_t(c) * 0x27D4EB2Fu;
    h ^= h >> 15;
    h *= 0x2C1B3C6Du;
    h ^= h >> 13;
    const uint32_t ramp = (x * 97 + y * 61 * uint32_t(c + 1) + z * 331) % 4096;
    return (ramp * 3 + (h & 1023)) / 4;
}

template <typename Value>
std::vector<uint8_t> chain(uint32_t w, uint32_t h, uint32_t d, uint32_t levels, uint32_t dimension, size_t bytesPerValue,
                           Value value) {
    std::vector<uint8_t> bytes;
    for (uint32_t m = 0; m < levels; ++m) {
        const uint32_t lw = levelSize(w, m), lh = levelSize(h, m), ld = dimension == 2 ? levelSize(d, m) : d;
        for (uint32_t z = 0; z < ld; ++z)
            for (uint32_t y = 0; y < lh; ++y)
                for (uint32_t x = 0; x < lw; ++x)
                    for (int c = 0; c < 4; ++c) {
                        uint8_t v[4];
                        value(texel(x + 7 * m, y, z, c), c, x, v);
                        bytes.insert(bytes.end(), v, v + bytesPerValue);
                    }
    }
    return bytes;
}

std::vector<Source> sources() {
    std::vector<Source> s;
    // Opaque, then alpha in steps (0, 127, 128, 254, 255 among them).
    s.push_back({L"unorm_8_8_8_8", chain(37, 29, 1, 3, 0, 1, [](uint32_t t, int c, uint32_t, uint8_t* v) {
                     v[0] = c == 3 ? 255 : uint8_t(t >> 4);
                 }), 37, 29, 1, 3, 0});
    s.push_back({L"srgb_8_8_8_8", chain(16, 12, 2, 2, 1, 1, [](uint32_t t, int c, uint32_t x, uint8_t* v) {
                     v[0] = c == 3 ? uint8_t((x * 37) % 256) : uint8_t(t >> 4);
                 }), 16, 12, 2, 2, 1});
    s.push_back({L"snorm_8_8_8_8", chain(9, 11, 1, 2, 0, 1, [](uint32_t t, int, uint32_t, uint8_t* v) {
                     v[0] = uint8_t(int8_t(int(t >> 4) - 128));
                 }), 9, 11, 1, 2, 0});
    // Floats from -0.25 to 1.75 in steps of 1/2048, exact in binary.
    s.push_back({L"float_32_32_32_32", chain(10, 6, 4, 2, 2, 4, [](uint32_t t, int, uint32_t, uint8_t* v) {
                     const float f = float(int(t) - 512) / 2048.0f;
                     std::memcpy(v, &f, 4);
                 }), 10, 6, 4, 2, 2});
    return s;
}

uint64_t chainBytes(uint32_t blockBytes, uint32_t blockWidth, uint32_t blockHeight, const Source& s) {
    uint64_t total = 0;
    for (uint32_t m = 0; m < s.levels; ++m) {
        const uint64_t w = (levelSize(s.width, m) + blockWidth - 1) / blockWidth;
        const uint64_t h = (levelSize(s.height, m) + blockHeight - 1) / blockHeight;
        total += w * h * (s.dimension == 2 ? levelSize(s.depth, m) : s.depth) * blockBytes;
    }
    return total;
}

// The footprint of an ASTC name's trailing "WxH"; 4x4 for the BC formats.
void blockSize(const std::wstring& format, uint32_t& width, uint32_t& height) {
    width = height = 4;
    const size_t x = format.rfind(L'x');
    if (format.find(L"astc") == std::wstring::npos || x == std::wstring::npos) return;
    const size_t underscore = format.rfind(L'_', x);
    width = uint32_t(std::stoul(format.substr(underscore + 1, x - underscore - 1)));
    height = uint32_t(std::stoul(format.substr(x + 1)));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: glyptora_block_dump <output file>\n");
        return 2;
    }
    // The pinned list, plus every ASTC footprint at every quality.
    std::vector<std::wstring> names;
    std::vector<Conversion> conversions;
    for (const pinned::Row& p : pinned::kRows)
        for (int i = 0; i < p.count(); ++i) conversions.push_back({p.format, p.optionsAt(i), p.blockBytes});
    for (const wchar_t* footprint : {L"4x4", L"5x4", L"5x5", L"6x5", L"6x6", L"8x5", L"8x6", L"8x8", L"10x5", L"10x6",
                                     L"10x8", L"10x10", L"12x10", L"12x12"})
        names.push_back(std::wstring(L"unorm_astc_") + footprint);
    for (const std::wstring& name : names)
        for (const wchar_t* quality : pinned::kQualities) conversions.push_back({name.c_str(), quality, 16});

    std::vector<uint8_t> all;
    int failures = 0;
    const std::vector<Source> inputs = sources();
    for (const Conversion& p : conversions) {
        uint32_t bw = 4, bh = 4;
        blockSize(p.format, bw, bh);
        for (const Source& s : inputs) {
            // ASTC conversions also once with flag 2 (luminance and alpha in channels 0 and 1).
            const bool astc = std::wstring(p.format).find(L"astc") != std::wstring::npos;
            for (uint32_t flags : {0u, 2u}) {
                if (flags && !astc) continue;
                std::vector<uint8_t> out(chainBytes(p.blockBytes, bw, bh, s), 0xA5);
                if (!GlyptoraConvert(out.data(), s.bytes.data(), p.format, s.format, p.options, flags, s.dimension,
                                     s.width, s.height, s.depth, s.levels)) {
                    std::fprintf(stderr, "failed: %ls %ls from %ls\n", p.format, p.options, s.format);
                    ++failures;
                }
                all.insert(all.end(), out.begin(), out.end());
            }
        }
    }
    FILE* file = std::fopen(argv[1], "wb");
    if (!file || std::fwrite(all.data(), 1, all.size(), file) != all.size() || std::fclose(file) != 0) {
        std::fprintf(stderr, "cannot write %s\n", argv[1]);
        return 1;
    }
    std::printf("%zu conversions of %zu sources, %zu bytes of blocks\n", conversions.size(), inputs.size(), all.size());
    return failures ? 1 : 0;
}
