#pragma once
// The process services the client and the server need: who we are, whether another process
// still runs, where this library lives, and starting the server detached from its client.
#include <string>
#include <vector>

namespace glyptora_internal {

int currentProcessId();

// False once the process has ended (also while it waits to be reaped).
bool processIsRunning(int processId);

// True when standard input is a terminal (on Windows: the process has a console window):
// the server runs only detached from one.
bool standardInputIsTerminal();

// Absolute path of the module (shared library or executable) that holds this code;
// `isMainExecutable` tells which of the two it is. Empty when it cannot be found.
std::string moduleHoldingThisCode(bool* isMainExecutable);

// Starts `program` with `arguments` in a process of its own, detached from this one: its own
// session, standard streams on the null device, no descriptor of this process inherited, not
// a child to be reaped. On Windows the arguments follow the quoted program name verbatim,
// separated by blanks (each program there parses its own command line). `processId` receives its id. False with `error` set when the
// program could not be started.
bool startDetachedProcess(const std::string& program, const std::vector<std::string>& arguments, int& processId,
                          std::string& error);

}  // namespace glyptora_internal
