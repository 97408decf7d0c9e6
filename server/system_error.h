#pragma once
// Text of a system error code, as the server puts it into its answers and the client into
// its "Error: " lines.
#include <string>

namespace glyptora_internal {

// The system's message for `code`, trimmed of blanks, tabs and line ends; "0x%08X" when the
// system has no message for it.
std::string systemErrorText(int code);

// The same for the calling thread's last error (errno; GetLastError() on Windows).
std::string lastSystemErrorText();

// The platform parts' common step: `message` trimmed of blanks, tabs and line ends, or
// `code` as "0x%08X" when no text is left.
std::string tidySystemErrorText(const std::string& message, int code);

}  // namespace glyptora_internal
