#include "core/string_builder.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "core/assert.h"

namespace glyptora_internal {

StringBuilder::StringBuilder(size_t size_hint) {
    GLYPTORA_ASSERT(size_hint != 0);
    if (size_hint == 0) size_hint = 1;
    m_data = static_cast<char*>(std::malloc(size_hint));
    if (!m_data) throw std::bad_alloc();
    m_data[0] = '\0';
    m_capacity = size_hint;
}

StringBuilder::~StringBuilder() { std::free(m_data); }

void StringBuilder::reset() {
    m_length = 0;
    m_data[0] = '\0';
}

// Grows to at least `needed` bytes (terminator included), doubling to keep appends linear.
void StringBuilder::reserve(size_t needed) {
    if (needed <= m_capacity) return;
    size_t capacity = m_capacity * 2;
    if (capacity < needed) capacity = needed;
    char* grown = static_cast<char*>(std::realloc(m_data, capacity));
    if (!grown) throw std::bad_alloc();
    m_data = grown;
    m_capacity = capacity;
}

StringBuilder& StringBuilder::format(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    formatList(fmt, args);
    va_end(args);
    return *this;
}

StringBuilder& StringBuilder::formatList(const char* fmt, va_list args) {
    reset();
    return appendList(fmt, args);
}

StringBuilder& StringBuilder::append(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    appendList(fmt, args);
    va_end(args);
    return *this;
}

StringBuilder& StringBuilder::appendList(const char* fmt, va_list args) {
    va_list measure;
    va_copy(measure, args);
    int count = std::vsnprintf(nullptr, 0, fmt, measure);
    va_end(measure);
    if (count <= 0) return *this;
    reserve(m_length + size_t(count) + 1);
    std::vsnprintf(m_data + m_length, m_capacity - m_length, fmt, args);
    m_length += size_t(count);
    return *this;
}

StringBuilder& StringBuilder::append(const char* text, size_t count) {
    reserve(m_length + count + 1);
    std::memcpy(m_data + m_length, text, count);
    m_length += count;
    m_data[m_length] = '\0';
    return *this;
}

}  // namespace glyptora_internal
