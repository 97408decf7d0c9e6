#pragma once
// A lock shared by the processes of one user, named by a path. It belongs to the object
// that took it and is released when that object is destroyed or its process dies, so a
// holder that crashes never leaves it taken.
#include <cstdint>
#include <memory>
#include <string>

namespace glyptora_internal {

class NamedLock {
public:
    // Opens (creating when needed) the lock `name`; null with `error` set when that fails.
    static std::unique_ptr<NamedLock> open(const std::string& name, std::string& error);
    ~NamedLock();
    NamedLock(const NamedLock&) = delete;
    NamedLock& operator=(const NamedLock&) = delete;

    // Waits without limit until the lock is taken; false with `error` set when that fails.
    bool lock(std::string& error);
    // Takes the lock when nobody holds it; never waits.
    bool tryLock();
    void unlock();

    // Replaces the lock file's contents with `text` (the server records its process id).
    // A Windows mutex holds no text: there it does nothing.
    bool record(const std::string& text);

private:
    explicit NamedLock(intptr_t handle) : m_handle(handle) {}
    intptr_t m_handle;  // a file descriptor, or a Windows mutex HANDLE
};

}  // namespace glyptora_internal
