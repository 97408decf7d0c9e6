#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "server/server_endpoint.h"
#include "server/system_error.h"

namespace glyptora_internal {

namespace {

// The socket, the locks and the pid file are only safe in a directory nobody else can enter.
bool checkPrivateDirectory(const std::string& directory, std::string& error) {
    struct stat info;
    if (lstat(directory.c_str(), &info) != 0) {
        error = "Cannot use directory " + directory + " (" + lastSystemErrorText() + ")";
        return false;
    }
    if (!S_ISDIR(info.st_mode) || info.st_uid != getuid() || (info.st_mode & 077) != 0) {
        error = "Directory " + directory + " is not a private directory of this user";
        return false;
    }
    return true;
}

}  // namespace

bool resolveServerEndpoint(ServerEndpoint& endpoint, std::string& error) {
    // $XDG_RUNTIME_DIR when it is usable (it may belong to another user, as under sudo).
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime && runtime[0] == '/' && checkPrivateDirectory(runtime, error)) {
        endpoint.directory = runtime;
    } else {
        endpoint.directory = "/tmp/glyptora-" + std::to_string(getuid());
        if (mkdir(endpoint.directory.c_str(), 0700) != 0 && errno != EEXIST) {
            error = "Cannot create directory " + endpoint.directory + " (" + lastSystemErrorText() + ")";
            return false;
        }
        if (!checkPrivateDirectory(endpoint.directory, error)) return false;
    }
    const std::string base = endpoint.directory + "/" + kServerBaseName;
    endpoint.channelPath = base;
    endpoint.transactionLockPath = base + ".lock";
    endpoint.instanceLockPath = base + ".pid";
    if (endpoint.channelPath.size() >= sizeof(sockaddr_un{}.sun_path)) {
        error = "Socket path too long: " + endpoint.channelPath;
        return false;
    }
    return true;
}

}  // namespace glyptora_internal
