#pragma once
#include <cstdarg>
#include <cstddef>

namespace glyptora_internal {

// Growable, always zero-terminated text buffer with printf-style appending.
class StringBuilder {
public:
    explicit StringBuilder(size_t size_hint = 512);
    ~StringBuilder();
    StringBuilder(const StringBuilder&) = delete;
    StringBuilder& operator=(const StringBuilder&) = delete;

    StringBuilder& format(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    StringBuilder& formatList(const char* fmt, va_list args);
    StringBuilder& append(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    StringBuilder& appendList(const char* fmt, va_list args);
    StringBuilder& append(const char* text, size_t count);
    void reset();

    const char* str() const { return m_data; }
    size_t length() const { return m_length; }
    size_t capacity() const { return m_capacity; }

private:
    void reserve(size_t needed);
    char* m_data = nullptr;
    size_t m_length = 0;
    size_t m_capacity = 0;
};

}  // namespace glyptora_internal
