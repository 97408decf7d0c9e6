#pragma once
// Where one user's conversion server is found. All names derive from "HalvoranGlyptora":
// the server's listening channel, the lock that clients hold for a whole transaction, and
// the lock that the one live server holds for its lifetime (its file also records its
// process id), plus the names of a client's two pixel sections. On Windows the channel is
// the pipe \\.\Pipe\HalvoranGlyptora, the transaction lock the mutex HalvoranGlyptora; the
// pipe's first-instance rule admits one server, which keeps the event HalvoranGlyptoraServer
// open while it lives (the instance "lock"), and there is no directory.
#include <string>

namespace glyptora_internal {

inline constexpr char kServerBaseName[] = "HalvoranGlyptora";

struct ServerEndpoint {
    std::string directory;    // the per-user directory holding the three below
    std::string channelPath;  // the server's listening socket
    std::string transactionLockPath;
    std::string instanceLockPath;
};

// Finds (and creates where needed) this user's endpoint. POSIX: $XDG_RUNTIME_DIR when it is set and
// private to this user, else /tmp/glyptora-<uid>, created with mode 0700. That directory must
// belong to this user and be closed to everybody else; otherwise false, and `error` says why.
bool resolveServerEndpoint(ServerEndpoint& endpoint, std::string& error);

// "HalvoranGlyptoraDstPixels_<pid>" and "HalvoranGlyptoraSrcPixels_<pid>".
std::string destinationSectionName(int processId);
std::string sourceSectionName(int processId);

}  // namespace glyptora_internal
