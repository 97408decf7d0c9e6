#include <string>
#include <vector>

#include "server/process_control.h"
#include "server/server_start.h"

namespace glyptora_internal {

namespace {

// The launcher executable that runs ServerMain of this library; it lies beside the library.
constexpr char kServerLauncher[] = "glyptora-server";

}  // namespace

// The launcher beside the module holding this code, given that module when it is the library
// (a program that links the code statically lets the launcher load the library beside it).
bool startServerProcess(int& processId, std::string& error) {
    bool isMainExecutable = false;
    const std::string module = moduleHoldingThisCode(&isMainExecutable);
    if (module.empty()) {
        error = "cannot find the library's own path";
        return false;
    }
    const std::string launcher = module.substr(0, module.rfind('/') + 1) + kServerLauncher;
    std::vector<std::string> arguments;
    if (!isMainExecutable) arguments.push_back(module);
    if (!startDetachedProcess(launcher, arguments, processId, error)) {
        error = "cannot start " + launcher + ": " + error;
        return false;
    }
    return true;
}

}  // namespace glyptora_internal
