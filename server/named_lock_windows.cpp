// A named mutex. It belongs to the thread that took it: the object releases it when destroyed
// on that thread, and Windows releases it when that thread ends (the next waiter obtains it
// as abandoned, which counts as obtained here).
#include <windows.h>

#include "server/named_lock.h"
#include "server/system_error.h"

namespace glyptora_internal {

namespace {

HANDLE mutexOf(intptr_t handle) { return reinterpret_cast<HANDLE>(handle); }

bool obtained(DWORD wait) { return wait == WAIT_OBJECT_0 || wait == WAIT_ABANDONED; }

}  // namespace

std::unique_ptr<NamedLock> NamedLock::open(const std::string& name, std::string& error) {
    const HANDLE mutex = CreateMutexA(nullptr, FALSE, name.c_str());
    if (!mutex) {
        error = lastSystemErrorText();
        return nullptr;
    }
    return std::unique_ptr<NamedLock>(new NamedLock(reinterpret_cast<intptr_t>(mutex)));
}

NamedLock::~NamedLock() {
    ReleaseMutex(mutexOf(m_handle));  // fails, harmlessly, when this thread does not hold it
    CloseHandle(mutexOf(m_handle));
}

bool NamedLock::lock(std::string& error) {
    if (obtained(WaitForSingleObject(mutexOf(m_handle), INFINITE))) return true;
    error = lastSystemErrorText();
    return false;
}

bool NamedLock::tryLock() { return obtained(WaitForSingleObject(mutexOf(m_handle), 0)); }

void NamedLock::unlock() { ReleaseMutex(mutexOf(m_handle)); }

bool NamedLock::record(const std::string&) { return true; }

}  // namespace glyptora_internal
