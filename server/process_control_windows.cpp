#include <windows.h>

#include <vector>

#include "server/process_control.h"
#include "server/system_error.h"

namespace glyptora_internal {

int currentProcessId() { return int(GetCurrentProcessId()); }

bool processIsRunning(int processId) {
    if (processId <= 0) return false;
    const HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, DWORD(processId));
    if (!process) return GetLastError() == ERROR_ACCESS_DENIED;  // exists, but not ours to watch
    const bool running = WaitForSingleObject(process, 0) == WAIT_TIMEOUT;
    CloseHandle(process);
    return running;
}

bool standardInputIsTerminal() { return GetConsoleWindow() != nullptr; }

std::string moduleHoldingThisCode(bool* isMainExecutable) {
    HMODULE module = nullptr;
    if (!GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            reinterpret_cast<LPCSTR>(&moduleHoldingThisCode), &module))
        return std::string();
    if (isMainExecutable) *isMainExecutable = module == GetModuleHandleA(nullptr);
    std::vector<char> path(MAX_PATH);
    for (;;) {
        const DWORD length = GetModuleFileNameA(module, path.data(), DWORD(path.size()));
        if (length == 0) return std::string();
        if (length < path.size()) return std::string(path.data(), length);
        path.resize(path.size() * 2);  // cut: try again with more room
    }
}

bool startDetachedProcess(const std::string& program, const std::vector<std::string>& arguments, int& processId,
                          std::string& error) {
    std::string commandLine = "\"" + program + "\"";
    for (const std::string& argument : arguments) commandLine += " " + argument;
    std::vector<char> writable(commandLine.begin(), commandLine.end());
    writable.push_back('\0');
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started{};
    if (!CreateProcessA(nullptr, writable.data(), nullptr, nullptr, FALSE, DETACHED_PROCESS, nullptr, nullptr,
                        &startup, &started)) {
        error = lastSystemErrorText();
        return false;
    }
    CloseHandle(started.hThread);
    CloseHandle(started.hProcess);
    processId = int(started.dwProcessId);
    return true;
}

}  // namespace glyptora_internal
