// The Windows twin of output_file.cpp: the temporary file is created exclusively beside the
// destination and moved over it with MoveFileEx (replace, write through). Windows paths have
// no symbolic links to follow in practice, so the destination is replaced as named.
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>
#include <windows.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "server/system_error.h"
#include "tools/output_file.h"

namespace glyptora_tools {

namespace {

// The temporary file in progress, for the signal handler (one output at a time).
char g_signalTempPath[MAX_PATH * 4];
volatile sig_atomic_t g_signalTempPathSet = 0;

void setSignalTempPath(const std::string& path) {
    g_signalTempPathSet = 0;
    if (path.empty() || path.size() >= sizeof g_signalTempPath) return;
    std::memcpy(g_signalTempPath, path.c_str(), path.size() + 1);
    g_signalTempPathSet = 1;
}

void onSignal(int signalNumber) {
    if (g_signalTempPathSet) _unlink(g_signalTempPath);
    std::signal(signalNumber, SIG_DFL);
    std::raise(signalNumber);
}

size_t lastSeparator(const std::string& path) { return path.find_last_of("/\\"); }

std::string folderOf(const std::string& path) {
    const size_t slash = lastSeparator(path);
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

std::string nameOf(const std::string& path) {
    const size_t slash = lastSeparator(path);
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string errnoText() { return std::string("cannot write output: ") + std::strerror(errno); }

// Writes all of `data` through the file's handle and flushes it to the disk.
bool writeToDisk(int fd, const std::vector<uint8_t>& data) {
    const HANDLE file = reinterpret_cast<HANDLE>(_get_osfhandle(fd));
    for (size_t done = 0; done < data.size();) {
        const DWORD chunk = DWORD(std::min<size_t>(data.size() - done, size_t(1) << 30));
        DWORD written = 0;
        if (!WriteFile(file, data.data() + done, chunk, &written, nullptr)) return false;
        done += written;
    }
    return FlushFileBuffers(file) != FALSE;
}

}  // namespace

PendingOutput::~PendingOutput() { discard(); }

bool PendingOutput::open(const std::string& path, std::string& error) {
    discard();
    const std::string name = nameOf(path);
    if (name.empty()) {
        error = "output path names a folder, not a file";
        return false;
    }
    const DWORD attributes = GetFileAttributesA(path.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY)) {
        error = "output path is a folder";
        return false;
    }
    m_path = path;
    const std::string stem = folderOf(path) + "." + name + ".glyptora-" + std::to_string(GetCurrentProcessId()) + "-";
    for (unsigned attempt = 0; attempt < 100; ++attempt) {
        const std::string candidate = stem + std::to_string(attempt);
        const int fd = _open(candidate.c_str(), _O_WRONLY | _O_CREAT | _O_EXCL | _O_BINARY, _S_IREAD | _S_IWRITE);
        if (fd >= 0) {
            m_fd = fd;
            m_tempPath = candidate;
            setSignalTempPath(m_tempPath);
            return true;
        }
        if (errno != EEXIST) break;
    }
    error = errnoText();
    return false;
}

bool PendingOutput::commit(const std::vector<uint8_t>& data, std::string& error) {
    if (m_fd < 0) {
        error = "output was not opened";
        return false;
    }
    const bool written = writeToDisk(m_fd, data);
    const int fd = m_fd;
    m_fd = -1;
    if (_close(fd) != 0 || !written ||
        !MoveFileExA(m_tempPath.c_str(), m_path.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
        error = "cannot write output: " + glyptora_internal::lastSystemErrorText();
        discard();
        return false;
    }
    g_signalTempPathSet = 0;
    m_tempPath.clear();
    return true;
}

void PendingOutput::discard() {
    if (m_fd >= 0) _close(std::exchange(m_fd, -1));
    g_signalTempPathSet = 0;
    if (!m_tempPath.empty()) _unlink(std::exchange(m_tempPath, std::string()).c_str());
}

void removePendingOutputOnSignal() {
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    std::signal(SIGBREAK, onSignal);
}

}  // namespace glyptora_tools
