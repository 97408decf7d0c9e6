#pragma once
// The conversion server: the loop behind the library's ServerMain export.
namespace glyptora_internal {

// Serves this user's clients one at a time until the server has been idle for its time-out
// (HALVORAN_GLYPTORA_PROCESS_TIMEOUT) with no client inside a transaction. Returns at once
// when standard input is a terminal (the server runs only detached), when another server
// already serves this user, or when the endpoint cannot be opened.
void runConversionServer();

}  // namespace glyptora_internal
