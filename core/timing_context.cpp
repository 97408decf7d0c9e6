#include "core/timing_context.h"

#include <cstring>

namespace glyptora {

void TimingContext::record(const char* label, double seconds) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_entries.push_back({label, seconds});
}

std::vector<TimingContext::Entry> TimingContext::entries() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_entries;
}

double TimingContext::total(const char* label) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    double sum = 0;
    for (const Entry& e : m_entries)
        if (e.label == label) sum += e.seconds;
    return sum;
}

}  // namespace glyptora
