#include <cstdio>

#include "server/system_error.h"

namespace glyptora_internal {

std::string tidySystemErrorText(const std::string& message, int code) {
    const char* blanks = " \t\r\n";
    const size_t first = message.find_first_not_of(blanks);
    if (first == std::string::npos) {
        char hex[16];
        std::snprintf(hex, sizeof hex, "0x%08X", unsigned(code));
        return hex;
    }
    const size_t last = message.find_last_not_of(blanks);
    return message.substr(first, last - first + 1);
}

}  // namespace glyptora_internal
