#include <cerrno>
#include <cstdio>
#include <cstring>

#include "server/system_error.h"

namespace glyptora_internal {

std::string systemErrorText(int code) {
    char buffer[256];
    // The GNU strerror_r returns its text, which may or may not live in `buffer`.
    const char* text = strerror_r(code, buffer, sizeof buffer);
    std::string message = text ? text : "";
    if (message.empty() || message.rfind("Unknown error", 0) == 0) {
        char hex[16];
        std::snprintf(hex, sizeof hex, "0x%08X", unsigned(code));
        return hex;
    }
    const char* blanks = " \t\r\n";
    const size_t first = message.find_first_not_of(blanks);
    const size_t last = message.find_last_not_of(blanks);
    return first == std::string::npos ? std::string() : message.substr(first, last - first + 1);
}

std::string lastSystemErrorText() { return systemErrorText(errno); }

}  // namespace glyptora_internal
