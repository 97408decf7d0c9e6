#include <cstdlib>
#include <string>

#include "server/process_control.h"
#include "server/server_start.h"

namespace glyptora_internal {

namespace {

// The library file that a program linking this code statically finds beside itself.
constexpr char kLibraryFileName[] = "Glyptora.dll";

}  // namespace

// "%SystemRoot%\System32\rundll32.exe" "<library path>",ServerMain
bool startServerProcess(int& processId, std::string& error) {
    bool isMainExecutable = false;
    std::string library = moduleHoldingThisCode(&isMainExecutable);
    if (library.empty()) {
        error = "cannot find the library's own path";
        return false;
    }
    if (isMainExecutable) library = library.substr(0, library.find_last_of("\\/") + 1) + kLibraryFileName;
    const char* systemRoot = std::getenv("SystemRoot");
    const std::string program = std::string(systemRoot ? systemRoot : "") + "\\System32\\rundll32.exe";
    if (!startDetachedProcess(program, {"\"" + library + "\",ServerMain"}, processId, error)) {
        error = "cannot start " + program + ": " + error;
        return false;
    }
    return true;
}

}  // namespace glyptora_internal
