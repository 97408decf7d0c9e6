#pragma once
// The library reports a failed internal check and goes on; under a fuzzer every such report
// is a finding, so the fuzzers install a handler that prints it and aborts.
#include <cstdio>
#include <cstdlib>

#include "core/assert.h"
#include "fuzz_check.h"

namespace glyptora_fuzz {

class AbortOnAssertion final : public glyptora_internal::AssertHandler {
public:
    int assertion(const char* exp, const char* file, int line, const char* func, const char* msg,
                  va_list args) override {
        std::fprintf(stderr, "internal check failed: %s (%s:%d, %s)", exp, file, line, func);
        if (msg) {
            std::fputs(": ", stderr);
            std::vfprintf(stderr, msg, args);
        }
        std::fputc('\n', stderr);
        std::abort();
    }
};

}  // namespace glyptora_fuzz

// Every fuzzer that includes this installs the handler before its first input.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static glyptora_fuzz::AbortOnAssertion handler;
    glyptora_internal::setAssertHandler(&handler);
    return 0;
}
