#pragma once
// Platform interface: debugger presence and breaking into it.
namespace glyptora_internal {
bool isDebuggerAttached();
void debugBreak();
// The decision after a failed check's printed `report` when no debugger is attached: 1 to
// break, 2 to go on. Linux goes on (a library must not end its host); Windows asks the user
// in a message box (Abort, Retry to debug, Ignore), and Abort ends the process with code 2.
int askAfterAssertion(const char* report);
}
