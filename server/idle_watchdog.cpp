#include "server/idle_watchdog.h"

#include <cstdlib>
#include <cstring>

namespace glyptora_internal {

namespace {

// While idle but unable to take the lock (a client holds it between its transaction's
// steps), the watchdog looks again this often.
constexpr auto kLockRetry = std::chrono::milliseconds(2);

}  // namespace

IdleTimeout parseIdleTimeout(const char* text) {
    IdleTimeout timeout;
    if (!text || !*text) return timeout;
    if (std::strcmp(text, "INFINITE") == 0) {
        timeout.infinite = true;
        return timeout;
    }
    const unsigned long value = std::strtoul(text, nullptr, 10);
    timeout.milliseconds = value > UINT32_MAX ? UINT32_MAX : uint32_t(value);
    return timeout;
}

IdleWatchdog::IdleWatchdog(NamedLock& transactionLock, IdleTimeout timeout, std::function<void()> askServerToEnd)
    : m_lock(transactionLock),
      m_timeout(timeout),
      m_askServerToEnd(std::move(askServerToEnd)),
      m_idleSince(std::chrono::steady_clock::now()),
      m_thread([this] { watch(); }) {}

IdleWatchdog::~IdleWatchdog() {
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_stop = true;
    }
    m_changed.notify_all();
    m_thread.join();
}

bool IdleWatchdog::beginRequest() {
    std::lock_guard<std::mutex> guard(m_mutex);
    if (m_ending) return false;
    m_serving = true;
    return true;
}

void IdleWatchdog::endRequest() {
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_serving = false;
        m_idleSince = std::chrono::steady_clock::now();
    }
    m_changed.notify_all();
}

bool IdleWatchdog::endRequested() {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_ending;
}

void IdleWatchdog::watch() {
    std::unique_lock<std::mutex> guard(m_mutex);
    while (!m_stop) {
        if (m_serving || m_timeout.infinite) {
            m_changed.wait(guard);
            continue;
        }
        const auto due = m_idleSince + std::chrono::milliseconds(m_timeout.milliseconds);
        if (std::chrono::steady_clock::now() < due) {
            m_changed.wait_until(guard, due);
            continue;
        }
        // Idle long enough. Taken under the mutex, so a client the server accepts meanwhile
        // sees either a server that stays or one that is ending, never both.
        if (m_lock.tryLock()) {
            m_ending = true;
            guard.unlock();
            m_askServerToEnd();
            return;  // the lock stays taken; the server releases it after closing its endpoint
        }
        m_changed.wait_for(guard, kLockRetry);
    }
}

}  // namespace glyptora_internal
