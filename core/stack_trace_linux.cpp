#include "core/stack_trace.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>

#include <cstdlib>
#include <string_view>
#include <vector>

#include "core/diagnostics.h"
#include "core/string_builder.h"

namespace glyptora_internal {

// Walks at most 64 frames and prints one line per frame: module(offset) : symbol.
// Frames without symbol information end the trace, as there is nothing useful left to show.
void printStackTrace(int skipFrames) {
    diagnosticPrint("\nDumping stacktrace:\n");
    void* frames[64];
    int count = backtrace(frames, 64);
    std::vector<StringBuilder*> lines;
    lines.reserve(16);
    for (int i = skipFrames + 1; i < count; ++i) {
        if (!frames[i]) break;
        Dl_info info{};
        if (!dladdr(frames[i], &info) || !info.dli_sname) break;
        int status = 0;
        char* demangled = abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status);
        const char* name = (status == 0 && demangled) ? demangled : info.dli_sname;
        auto* line = new StringBuilder(512);
        line->format("%s(+0x%lx) : %s\n", info.dli_fname ? info.dli_fname : "?",
                     static_cast<unsigned long>(static_cast<char*>(frames[i]) - static_cast<char*>(info.dli_fbase)),
                     name);
        std::free(demangled);
        lines.push_back(line);
        if (std::string_view(info.dli_sname) == "main") break;
    }
    for (StringBuilder* line : lines) {
        diagnosticPrint("%s", line->str());
        delete line;
    }
}

}  // namespace glyptora_internal
