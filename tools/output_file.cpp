#include "tools/output_file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace glyptora_tools {

namespace {

// The temporary file in progress, for the signal handler (one output at a time).
char g_signalTempPath[PATH_MAX + 1];
volatile sig_atomic_t g_signalTempPathSet = 0;

void setSignalTempPath(const std::string& path) {
    g_signalTempPathSet = 0;
    if (path.empty() || path.size() > PATH_MAX) return;
    std::memcpy(g_signalTempPath, path.c_str(), path.size() + 1);
    g_signalTempPathSet = 1;
}

void onSignal(int signalNumber) {
    if (g_signalTempPathSet) ::unlink(g_signalTempPath);
    ::signal(signalNumber, SIG_DFL);
    ::raise(signalNumber);
}

std::string folderOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

std::string nameOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Follows symbolic links from `path` to the file they finally name (which need not exist
// yet): the output replaces that file and the links stay links.
bool followLinks(std::string path, std::string& target, std::string& error) {
    for (int hops = 0; hops < 40; ++hops) {
        struct stat info;
        if (::lstat(path.c_str(), &info) != 0 || !S_ISLNK(info.st_mode)) {
            target = path;
            return true;
        }
        char link[PATH_MAX];
        const ssize_t n = ::readlink(path.c_str(), link, sizeof link);
        if (n <= 0 || size_t(n) >= sizeof link) {
            error = std::string("cannot follow the output's symbolic link: ") +
                    (n < 0 ? std::strerror(errno) : "target name too long");
            return false;
        }
        const std::string next(link, size_t(n));
        path = next[0] == '/' ? next : folderOf(path) + "/" + next;
    }
    error = "cannot follow the output's symbolic link: too many levels of links";
    return false;
}

}  // namespace

PendingOutput::~PendingOutput() { discard(); }

bool PendingOutput::open(const std::string& requestedPath, std::string& error) {
    discard();
    if (nameOf(requestedPath).empty()) {
        error = "output path names a folder, not a file";
        return false;
    }
    std::string path;
    if (!followLinks(requestedPath, path, error)) return false;
    const std::string name = nameOf(path);
    if (name.empty()) {
        error = "output path links to a folder, not a file";
        return false;
    }
    struct stat info;
    const bool exists = ::stat(path.c_str(), &info) == 0;
    if (exists && S_ISDIR(info.st_mode)) {
        error = "output path is a folder";
        return false;
    }
    m_path = path;
    std::string templ = folderOf(path) + "/." + name + ".glyptora-XXXXXX";
    std::vector<char> buffer(templ.begin(), templ.end());
    buffer.push_back('\0');
    const int fd = ::mkstemp(buffer.data());
    if (fd < 0) {
        error = std::string("cannot write output: ") + std::strerror(errno);
        return false;
    }
    m_fd = fd;
    m_tempPath = buffer.data();
    setSignalTempPath(m_tempPath);
    // mkstemp creates the file private to the user: a replaced output keeps its permissions,
    // a new one gets the usual ones.
    mode_t mode;
    if (exists) {
        mode = info.st_mode & 07777;
    } else {
        const mode_t mask = ::umask(0);
        ::umask(mask);
        mode = 0666 & ~mask;
    }
    ::fchmod(fd, mode);
    return true;
}

bool PendingOutput::commit(const std::vector<uint8_t>& data, std::string& error) {
    if (m_fd < 0) {
        error = "output was not opened";
        return false;
    }
    const auto failed = [&] {
        error = std::string("cannot write output: ") + std::strerror(errno);
        discard();
        return false;
    };
    const uint8_t* p = data.data();
    size_t left = data.size();
    while (left > 0) {
        const ssize_t n = ::write(m_fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return failed();
        p += n;
        left -= size_t(n);
    }
    if (::fsync(m_fd) != 0 && errno != EINVAL && errno != EROFS) return failed();
    if (::close(std::exchange(m_fd, -1)) != 0 || ::rename(m_tempPath.c_str(), m_path.c_str()) != 0) return failed();
    g_signalTempPathSet = 0;
    m_tempPath.clear();
    return true;
}

void PendingOutput::discard() {
    if (m_fd >= 0) ::close(std::exchange(m_fd, -1));
    g_signalTempPathSet = 0;
    if (!m_tempPath.empty()) ::unlink(std::exchange(m_tempPath, std::string()).c_str());
}

void removePendingOutputOnSignal() {
    struct sigaction action;
    std::memset(&action, 0, sizeof(action));
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGHUP, &action, nullptr);
}

}  // namespace glyptora_tools
