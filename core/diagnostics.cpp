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

}  // namespace glyptora_internal
