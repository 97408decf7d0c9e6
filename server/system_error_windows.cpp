#include <windows.h>

#include "server/system_error.h"

namespace glyptora_internal {

// The system message table's text in the default language.
std::string systemErrorText(int code) {
    char buffer[512];
    const DWORD length = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                        DWORD(code), MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), buffer,
                                        sizeof buffer, nullptr);
    return tidySystemErrorText(std::string(buffer, length), code);
}

std::string lastSystemErrorText() { return systemErrorText(int(GetLastError())); }

}  // namespace glyptora_internal
