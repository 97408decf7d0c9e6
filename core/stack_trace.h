#pragma once
// Platform interface: prints the calling thread's stack, skipping `skipFrames` frames of its callers.
namespace glyptora_internal {
void printStackTrace(int skipFrames);
}
