#include "core/debugger.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace glyptora_internal {

// A process is being debugged when /proc reports a tracer.
bool isDebuggerAttached() {
    FILE* status = std::fopen("/proc/self/status", "r");
    if (!status) return false;
    char line[256];
    bool traced = false;
    while (std::fgets(line, sizeof(line), status)) {
        if (std::strncmp(line, "TracerPid:", 10) == 0) {
            traced = std::atoi(line + 10) != 0;
            break;
        }
    }
    std::fclose(status);
    return traced;
}

void debugBreak() { std::raise(SIGTRAP); }

int askAfterAssertion(const char*) { return 2; }

}  // namespace glyptora_internal
