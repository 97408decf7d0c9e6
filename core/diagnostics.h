#pragma once
// The core's printf-style diagnostic output: fall-back notices, refusals, driver messages
// and assertion reports go to the process's standard output; the one line that explains
// why a conversion failed goes to standard error.
namespace glyptora_internal {
void diagnosticPrint(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// Prints "Glyptora: " and the formatted text as one line on standard error.
void errorLine(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
}  // namespace glyptora_internal
