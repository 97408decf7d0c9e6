#pragma once
// Platform interface: starts this user's conversion server, a detached process that runs
// ServerMain of the library holding this code.
#include <string>

namespace glyptora_internal {

// `processId` receives the new process's id; false with `error` set when it could not start.
bool startServerProcess(int& processId, std::string& error);

}  // namespace glyptora_internal
