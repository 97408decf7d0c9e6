#pragma once
// Platform interface: debugger presence and breaking into it.
namespace glyptora_internal {
bool isDebuggerAttached();
void debugBreak();
}
