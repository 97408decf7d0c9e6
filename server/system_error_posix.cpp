#include <cerrno>
#include <cstdio>
#include <cstring>

#include "server/system_error.h"

namespace glyptora_internal {

std::string systemErrorText(int code) {
    char buffer[256];
    // The GNU strerror_r returns its text, which may or may not live in `buffer`.
    const char* text = strerror_r(code, buffer, sizeof buffer);
    const std::string message = text ? text : "";
    return tidySystemErrorText(message.rfind("Unknown error", 0) == 0 ? std::string() : message, code);
}

std::string lastSystemErrorText() { return systemErrorText(errno); }

}  // namespace glyptora_internal
