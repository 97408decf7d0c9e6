#pragma once
#include <chrono>
#include <mutex>
#include <string>
#include <vector>

namespace glyptora {

// Optional collector of timed, labelled scopes ("encode_bc1a_cpu()", "host to device", ...).
class TimingContext {
public:
    struct Entry {
        std::string label;
        double seconds;
    };
    void record(const char* label, double seconds);
    std::vector<Entry> entries() const;
    double total(const char* label) const;

private:
    mutable std::mutex m_mutex;
    std::vector<Entry> m_entries;
};

// Times the enclosing scope into `context` under `label`; does nothing when context is null.
class ScopedTimer {
public:
    ScopedTimer(TimingContext* context, const char* label)
        : m_context(context), m_label(label), m_start(std::chrono::steady_clock::now()) {}
    ~ScopedTimer() {
        if (m_context)
            m_context->record(m_label,
                              std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count());
    }
    ScopedTimer(const ScopedTimer&) = delete;
    ScopedTimer& operator=(const ScopedTimer&) = delete;

private:
    TimingContext* m_context;
    const char* m_label;
    std::chrono::steady_clock::time_point m_start;
};

}  // namespace glyptora
