#include "core/assert.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#include "core/debugger.h"
#include "core/diagnostics.h"
#include "core/stack_trace.h"
#include "core/string_builder.h"

namespace glyptora_internal {

namespace {

std::atomic<AssertHandler*> s_userHandler{nullptr};

// Prints the report and a stack trace; breaks when a debugger is attached, otherwise
// leaves the decision to the platform (askAfterAssertion).
class DefaultAssertHandler final : public AssertHandler {
public:
    int assertion(const char* exp, const char* file, int line, const char* func, const char* msg,
                  va_list args) override {
        StringBuilder report;
        formatAssertionReport(report, exp, file, line, func, msg, args);
        diagnosticPrint("%s", report.str());
        printStackTrace(1);
        return isDebuggerAttached() ? 1 : askAfterAssertion(report.str());
    }
};

AssertHandler& defaultHandler() {
    static DefaultAssertHandler handler;  // thread-safe one-time creation
    return handler;
}

}  // namespace

AssertHandler* setAssertHandler(AssertHandler* handler) { return s_userHandler.exchange(handler); }
AssertHandler* userAssertHandler() { return s_userHandler.load(); }

const char* assertionFileName(const char* path, char* buffer, int bufferSize) {
    const char* base = path;
    for (const char* p = path; *p; ++p)
        if (*p == '/' || *p == '\\') base = p + 1;  // either separator, for Windows paths
    const char* dot = std::strchr(base, '.');
    int n = dot ? int(dot - base) : int(std::strlen(base));
    if (n >= bufferSize) n = bufferSize - 1;
    std::memcpy(buffer, base, size_t(n));
    buffer[n] = '\0';
    return buffer;
}

void formatAssertionReport(StringBuilder& out, const char* exp, const char* file, int line, const char* func,
                           const char* msg, va_list args) {
    out.append("*** Assertion failed: %s\n    On file: %s\n    On line: %d\n", exp, file, line);
    if (func) out.append("    On function: %s\n", func);
    if (msg) {
        out.append("    Message: ");
        out.appendList(msg, args);
        out.append("\n");
    }
}

int reportAssertion(const char* exp, const char* file, int line, const char* func, const char* msg, ...) {
    char name[128];
    assertionFileName(file, name, sizeof(name));
    AssertHandler* handler = s_userHandler.load();
    if (!handler) handler = &defaultHandler();
    va_list args;
    va_start(args, msg);
    int decision = handler->assertion(exp, name, line, func, msg, args);
    va_end(args);
    return decision;
}

}  // namespace glyptora_internal
