#include <climits>
#include <cwchar>

#include "frontend/wide_string.h"

namespace glyptora_internal {

// Converts character by character in the current C locale.
std::string narrowString(const wchar_t* wide) {
    std::string narrow;
    std::mbstate_t state{};
    char buffer[MB_LEN_MAX];
    for (const wchar_t* p = wide; *p; ++p) {
        const size_t n = std::wcrtomb(buffer, *p, &state);
        if (n == static_cast<size_t>(-1)) {
            narrow.push_back('?');
            state = std::mbstate_t{};
        } else {
            narrow.append(buffer, n);
        }
    }
    return narrow;
}

}  // namespace glyptora_internal
