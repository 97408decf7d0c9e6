#include <windows.h>

#include "frontend/wide_string.h"

namespace glyptora_internal {

// Converts in the ANSI code page: measured first, then converted into a buffer of that size.
std::string narrowString(const wchar_t* wide) {
    const int bytes = WideCharToMultiByte(CP_ACP, 0, wide, -1, nullptr, 0, nullptr, nullptr);
    if (bytes <= 1) return std::string();
    std::string narrow(size_t(bytes), '\0');
    WideCharToMultiByte(CP_ACP, 0, wide, -1, narrow.data(), bytes, nullptr, nullptr);
    narrow.resize(size_t(bytes) - 1);  // without the terminating zero
    return narrow;
}

}  // namespace glyptora_internal
