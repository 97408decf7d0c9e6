#include <windows.h>

#include "core/debugger.h"

namespace glyptora_internal {

// Looked up by name, as kernel32 of every Windows version has it but a stripped-down
// environment need not.
bool isDebuggerAttached() {
    using IsDebuggerPresentFunction = BOOL(WINAPI*)();
    const HMODULE kernel = GetModuleHandleA("kernel32.dll");
    const auto isDebuggerPresent =
        kernel ? reinterpret_cast<IsDebuggerPresentFunction>(
                     reinterpret_cast<void*>(GetProcAddress(kernel, "IsDebuggerPresent")))
               : nullptr;
    return isDebuggerPresent && isDebuggerPresent();
}

void debugBreak() { DebugBreak(); }

int askAfterAssertion(const char* report) {
    // Messages already queued for this thread would otherwise be handled by the box's own loop.
    MSG message;
    while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) {
        TranslateMessage(&message);
        DispatchMessageA(&message);
    }
    switch (MessageBoxA(nullptr, report, "Assertion failed", MB_ABORTRETRYIGNORE | MB_ICONERROR | MB_TOPMOST)) {
    case IDRETRY:
        return 1;
    case IDIGNORE:
        return 2;
    default:
        ExitProcess(2);
    }
}

}  // namespace glyptora_internal
