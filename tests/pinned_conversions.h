#pragma once
// The conversions whose blocks are pinned by a hash (conversion_pinned_test) and dumped for the
// comparison of the Linux and Windows builds (windows/block_dump.cpp): a format at each of the
// four quality words, or at one options text; and the source chains both convert.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace pinned {

inline constexpr const wchar_t* kQualities[4] = {L"fastest", L"normal", L"production", L"highest"};

struct Row {
    const wchar_t* format;
    uint32_t blockBytes;
    uint64_t hashes[4];               // at each quality word, or at `options` alone
    const wchar_t* options = nullptr;  // null: the four quality words
    int count() const { return options ? 1 : 4; }
    const wchar_t* optionsAt(int i) const { return options ? options : kQualities[i]; }
};

inline constexpr Row kRows[] = {
#include "conversion_pinned_hashes.inc"
};

// A source texture: its format, every level's values one after the other, and its extent.
struct Source {
    const wchar_t* format;
    std::vector<uint8_t> bytes;
    uint32_t width, height, depth, levels, dimension;
};

inline uint32_t levelSide(uint32_t side, uint32_t level) { return std::max(side >> level, 1u); }

// A source of values of type T, `value(x, y, z, level, channel)` for each channel of each texel
// of each slice of each level (volumes, dimension 2, halve their depth; layers keep it).
template <typename T, typename Value>
Source makeSource(const wchar_t* format, uint32_t w, uint32_t h, uint32_t depth, uint32_t levels, uint32_t dimension,
                  Value value) {
    std::vector<T> values;
    for (uint32_t m = 0; m < levels; ++m)
        for (uint32_t z = 0; z < (dimension == 2 ? levelSide(depth, m) : depth); ++z)
            for (uint32_t y = 0; y < levelSide(h, m); ++y)
                for (uint32_t x = 0; x < levelSide(w, m); ++x)
                    for (int c = 0; c < 4; ++c) values.push_back(value(x, y, z, m, c));
    std::vector<uint8_t> bytes(values.size() * sizeof(T));
    std::memcpy(bytes.data(), values.data(), bytes.size());
    return {format, bytes, w, h, depth, levels, dimension};
}

// Bytes of the blocks of a source's whole chain, blocks of bw x bh texels.
inline uint64_t chainBytes(const Source& s, uint32_t blockBytes, uint32_t bw = 4, uint32_t bh = 4) {
    uint64_t total = 0;
    for (uint32_t m = 0; m < s.levels; ++m)
        total += uint64_t((levelSide(s.width, m) + bw - 1) / bw) * ((levelSide(s.height, m) + bh - 1) / bh) *
                 (s.dimension == 2 ? levelSide(s.depth, m) : s.depth) * blockBytes;
    return total;
}

}  // namespace pinned
