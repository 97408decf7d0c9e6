// flock() on a file: the lock belongs to the open file description, which no child process
// inherits (close-on-exec), and the kernel drops it when the holder's process ends.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "server/named_lock.h"
#include "server/system_error.h"

namespace glyptora_internal {

std::unique_ptr<NamedLock> NamedLock::open(const std::string& name, std::string& error) {
    const int handle = ::open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (handle < 0) {
        error = lastSystemErrorText();
        return nullptr;
    }
    return std::unique_ptr<NamedLock>(new NamedLock(handle));
}

NamedLock::~NamedLock() { ::close(m_handle); }

bool NamedLock::lock(std::string& error) {
    while (flock(m_handle, LOCK_EX) != 0) {
        if (errno == EINTR) continue;
        error = lastSystemErrorText();
        return false;
    }
    return true;
}

bool NamedLock::tryLock() {
    while (flock(m_handle, LOCK_EX | LOCK_NB) != 0)
        if (errno != EINTR) return false;
    return true;
}

void NamedLock::unlock() { flock(m_handle, LOCK_UN); }

bool NamedLock::record(const std::string& text) {
    return ftruncate(m_handle, 0) == 0 && pwrite(m_handle, text.data(), text.size(), 0) == ssize_t(text.size());
}

}  // namespace glyptora_internal
