#include "server/server_endpoint.h"

namespace glyptora_internal {

// Pipe and mutex names live in the session's namespace, private to the logged-on user.
bool resolveServerEndpoint(ServerEndpoint& endpoint, std::string&) {
    endpoint.directory.clear();
    endpoint.channelPath = std::string("\\\\.\\Pipe\\") + kServerBaseName;
    endpoint.transactionLockPath = kServerBaseName;
    // Not a lock here but an event that the live server keeps open: a client that finds no
    // pipe while it exists waits for the server's next pipe instance instead of starting one.
    endpoint.instanceLockPath = std::string(kServerBaseName) + "Server";
    return true;
}

}  // namespace glyptora_internal
