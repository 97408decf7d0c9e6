// Pins the blocks of every format that has an encoder, at every quality, for a few source
// images and value types, as a hash per (format, options). Any change to routing, fix-ups,
// weights or an encoder that alters one block fails here.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <cstdio>
#include <string>
#include <vector>

#include "glyptora.h"

namespace {

struct Source {
    const wchar_t* format;
    std::vector<uint8_t> bytes;
    uint32_t width, height, depth, levels, dimension;
};

uint64_t fnv1a(uint64_t h, const std::vector<uint8_t>& bytes) {
    for (uint8_t b : bytes) h = (h ^ b) * 0x100000001b3ull;
    return h;
}

// A smooth picture with texture and, optionally, varying alpha, for every level of a chain.
template <typename T, typename Value>
std::vector<uint8_t> picture(uint32_t w, uint32_t h, uint32_t depth, uint32_t levels, uint32_t dimension,
                             Value value) {
    std::vector<T> values;
    for (uint32_t m = 0; m < levels; ++m) {
        const uint32_t lw = std::max(w >> m, 1u), lh = std::max(h >> m, 1u);
        const uint32_t ld = dimension == 2 ? std::max(depth >> m, 1u) : depth;
        for (uint32_t z = 0; z < ld; ++z)
            for (uint32_t y = 0; y < lh; ++y)
                for (uint32_t x = 0; x < lw; ++x)
                    for (int c = 0; c < 4; ++c) values.push_back(value(x + 3 * m, y + 5 * z, c));
    }
    std::vector<uint8_t> bytes(values.size() * sizeof(T));
    std::memcpy(bytes.data(), values.data(), bytes.size());
    return bytes;
}

double wave(uint32_t x, uint32_t y, int c) {
    return 0.5 + 0.3 * std::sin(0.37 * x + 0.11 * y * (c + 1)) + 0.2 * std::cos(0.23 * y - 0.5 * c) *
                                                                      std::sin(1.7 * (x ^ y) + c);
}

std::vector<Source> sources() {
    std::vector<Source> s;
    s.push_back({L"unorm_8_8_8_8",
                 picture<uint8_t>(37, 29, 1, 3, 0,
                                  [](uint32_t x, uint32_t y, int c) {
                                      return uint8_t(c == 3 ? 255 : std::clamp(wave(x, y, c), 0.0, 1.0) * 255);
                                  }),
                 37, 29, 1, 3, 0});
    s.push_back({L"srgb_8_8_8_8",
                 picture<uint8_t>(16, 12, 2, 2, 1,
                                  [](uint32_t x, uint32_t y, int c) {
                                      return uint8_t(std::clamp(wave(y, x, c), 0.0, 1.0) * 255);
                                  }),
                 16, 12, 2, 2, 1});
    s.push_back({L"snorm_8_8_8_8",
                 picture<int8_t>(9, 11, 1, 2, 0,
                                 [](uint32_t x, uint32_t y, int c) {
                                     return int8_t(std::lround((wave(x, y, c) * 2 - 1) * 127));
                                 }),
                 9, 11, 1, 2, 0});
    s.push_back({L"float_32_32_32_32",
                 picture<float>(10, 6, 4, 2, 2,
                                [](uint32_t x, uint32_t y, int c) {
                                    return float(wave(x, y, c) * 1.6 - 0.3);  // beyond [0, 1] both ways
                                }),
                 10, 6, 4, 2, 2});
    return s;
}

uint64_t chainBytes(uint32_t blockBytes, const Source& s) {
    uint64_t total = 0;
    for (uint32_t m = 0; m < s.levels; ++m) {
        const uint64_t w = (std::max(s.width >> m, 1u) + 3) / 4, h = (std::max(s.height >> m, 1u) + 3) / 4;
        const uint64_t d = s.dimension == 2 ? std::max(s.depth >> m, 1u) : s.depth;
        total += w * h * d * blockBytes;
    }
    return total;
}

uint64_t hashConversions(const std::wstring& format, const std::wstring& options, uint32_t blockBytes) {
    uint64_t h = 0xcbf29ce484222325ull;
    for (const Source& s : sources()) {
        std::vector<uint8_t> out(chainBytes(blockBytes, s), 0xA5);
        EXPECT_EQ(GlyptoraConvert(out.data(), s.bytes.data(), format.c_str(), s.format, options.c_str(), 0,
                                  s.dimension, s.width, s.height, s.depth, s.levels),
                  1u);
        h = fnv1a(h, out);
    }
    return h;
}

struct Pinned {
    const wchar_t* format;
    const wchar_t* options;
    uint32_t blockBytes;
    uint64_t hash;
};

const Pinned kPinned[] = {
#include "conversion_pinned_hashes.inc"
};

}  // namespace

TEST(ConversionPinned, EveryFormatAndQualityKeepsItsBlocks) {
    std::string actual;
    for (const Pinned& p : kPinned) {
        const uint64_t h = hashConversions(p.format, p.options, p.blockBytes);
        char line[160];
        std::snprintf(line, sizeof line, "    {L\"%ls\", L\"%ls\", %u, 0x%016llxull},\n", p.format, p.options,
                      p.blockBytes, static_cast<unsigned long long>(h));
        actual += line;
        EXPECT_EQ(h, p.hash) << p.format << " / " << p.options;
    }
    if (HasFailure()) std::printf("Actual hashes:\n%s", actual.c_str());
}
