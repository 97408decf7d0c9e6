#pragma once
// The core's printf-style diagnostic output: fall-back notices, refusals, driver
// messages and assertion reports all go to the process's standard output.
namespace glyptora_internal {
void diagnosticPrint(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
}
