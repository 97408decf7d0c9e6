#pragma once
// Internal consistency checks of the core. A failed check goes to the current
// assertion handler; the handler decides whether to break into a debugger (1)
// or to continue (2). The library never terminates its host on an assertion.
#include <cstdarg>
#include "core/host_device.h"

namespace glyptora_internal {

class AssertHandler {
public:
    virtual ~AssertHandler() = default;
    // Returns 1 to break into the debugger, 2 to ignore and continue.
    virtual int assertion(const char* exp, const char* file, int line, const char* func,
                          const char* msg, va_list args) = 0;
};

// Installs a process-wide handler; nullptr restores the built-in one. Returns the previous user handler.
AssertHandler* setAssertHandler(AssertHandler* handler);
AssertHandler* userAssertHandler();

// Hands a failed check to the current handler; returns its decision.
int reportAssertion(const char* exp, const char* file, int line, const char* func, const char* msg, ...)
    __attribute__((format(printf, 5, 6)));

// The built-in handler's report text, without the stack trace.
void formatAssertionReport(class StringBuilder& out, const char* exp, const char* file, int line,
                           const char* func, const char* msg, va_list args);

// Base file name without folders and extension, e.g. "core/bits.h" -> "bits".
const char* assertionFileName(const char* path, char* buffer, int bufferSize);

void debugBreak();

}  // namespace glyptora_internal

#if defined(GLYPTORA_ON_DEVICE)
#define GLYPTORA_ASSERT(exp) ((void)0)
#define GLYPTORA_ASSERT_MSG(exp, ...) ((void)0)
#else
#define GLYPTORA_ASSERT(exp)                                                                         \
    do {                                                                                             \
        if (!(exp) && ::glyptora_internal::reportAssertion(#exp, __FILE__, __LINE__, __func__, nullptr) == 1) \
            ::glyptora_internal::debugBreak();                                                      \
    } while (false)
#define GLYPTORA_ASSERT_MSG(exp, ...)                                                                \
    do {                                                                                             \
        if (!(exp) && ::glyptora_internal::reportAssertion(#exp, __FILE__, __LINE__, __func__, __VA_ARGS__) == 1) \
            ::glyptora_internal::debugBreak();                                                      \
    } while (false)
#endif
