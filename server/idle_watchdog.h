#pragma once
// Ends the server after a time without clients. Once the server has been idle for the
// time-out, the watchdog takes the clients' transaction lock, which proves that no client
// is inside a transaction, and asks the server to end; it keeps the lock until the server
// has closed its endpoint, so that a waiting client then starts a new server.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

#include "server/named_lock.h"

namespace glyptora_internal {

struct IdleTimeout {
    bool infinite = false;
    uint32_t milliseconds = 20000;
};

// From HALVORAN_GLYPTORA_PROCESS_TIMEOUT: unset or empty 20000 ms, exactly "INFINITE" no
// limit, anything else decimal milliseconds as strtoul reads them ("0": end at once).
IdleTimeout parseIdleTimeout(const char* text);

class IdleWatchdog {
public:
    // `askServerToEnd` releases the server's wait for the next client.
    IdleWatchdog(NamedLock& transactionLock, IdleTimeout timeout, std::function<void()> askServerToEnd);
    ~IdleWatchdog();
    IdleWatchdog(const IdleWatchdog&) = delete;
    IdleWatchdog& operator=(const IdleWatchdog&) = delete;

    // A client connected. False when the server is already ending (the client is turned away).
    bool beginRequest();
    // The client's request has been answered; the idle time starts again.
    void endRequest();
    bool endRequested();

private:
    void watch();

    NamedLock& m_lock;
    const IdleTimeout m_timeout;
    const std::function<void()> m_askServerToEnd;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_serving = false;
    bool m_ending = false;
    bool m_stop = false;
    std::chrono::steady_clock::time_point m_idleSince;
    std::thread m_thread;
};

}  // namespace glyptora_internal
