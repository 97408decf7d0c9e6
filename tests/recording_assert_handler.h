#pragma once
// Installed while it lives: records every failed internal check (expression, source name,
// line, function, formatted message) and lets the code go on.
#include <cstdarg>
#include <string>
#include <vector>

#include "core/assert.h"
#include "core/string_builder.h"

class RecordingHandler : public glyptora_internal::AssertHandler {
public:
    RecordingHandler() : previous_(glyptora_internal::setAssertHandler(this)) {}
    ~RecordingHandler() override { glyptora_internal::setAssertHandler(previous_); }
    int assertion(const char* exp, const char* file, int line, const char* func, const char* msg,
                  va_list args) override {
        glyptora_internal::StringBuilder text;
        if (msg) text.appendList(msg, args);
        expressions.push_back(exp), files.push_back(file), lines.push_back(line);
        functions.push_back(func ? func : ""), messages.push_back(text.str());
        return 2;
    }
    std::vector<std::string> expressions, files, functions, messages;
    std::vector<int> lines;

private:
    glyptora_internal::AssertHandler* previous_;
};
