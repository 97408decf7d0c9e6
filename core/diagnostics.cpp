#include "core/diagnostics.h"

#include <cstdarg>
#include <cstdio>

namespace glyptora_internal {

void diagnosticPrint(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    std::vprintf(fmt, args);
    va_end(args);
    std::fflush(stdout);
}

void errorLine(const char* fmt, ...) {
    char text[512];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    std::fprintf(stderr, "Glyptora: %s\n", text);
}

}  // namespace glyptora_internal
