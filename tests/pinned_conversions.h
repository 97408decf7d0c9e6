#pragma once
// The conversions whose blocks are pinned by a hash (conversion_pinned_test) and dumped for the
// comparison of the Linux and Windows builds (windows/block_dump.cpp): a format at each of the
// four quality words, or at one options text.
#include <cstdint>

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

}  // namespace pinned
