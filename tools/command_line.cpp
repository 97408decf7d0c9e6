#include "tools/command_line.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace glyptora_tools {

void fail(const std::string& file, const std::string& reason) {
    std::fprintf(stderr, "glyptora: %s: %s\n", file.c_str(), reason.c_str());
    std::fflush(stderr);
}

int usageError(const std::string& reason) {
    std::fprintf(stderr, "glyptora: %s\n", reason.c_str());
    return kExitUsage;
}

bool optionValue(int argc, char** argv, int& i, const char* shortName, const char* longName, std::string& value,
                 bool& matched, std::string& error) {
    const std::string arg = argv[i];
    matched = false;
    const std::string longEq = std::string(longName) + "=";
    if (arg.rfind(longEq, 0) == 0) {
        matched = true;
        value = arg.substr(longEq.size());
        return true;
    }
    if (arg == longName || (shortName && arg == shortName)) {
        matched = true;
        if (i + 1 >= argc) {
            error = "option " + arg + " needs a value";
            return false;
        }
        value = argv[++i];
        return true;
    }
    return true;
}

bool parseInteger(const std::string& text, long low, long high, long& value) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < low || v > high) return false;
    value = v;
    return true;
}

std::string formatBytes(uint64_t bytes) {
    char buffer[64];
    if (bytes < 10 * 1024) std::snprintf(buffer, sizeof buffer, "%llu bytes", static_cast<unsigned long long>(bytes));
    else if (bytes < 10ull * 1024 * 1024) std::snprintf(buffer, sizeof buffer, "%.1f KiB", double(bytes) / 1024.0);
    else std::snprintf(buffer, sizeof buffer, "%.1f MiB", double(bytes) / (1024.0 * 1024.0));
    return buffer;
}

std::string baseName(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string stem(const std::string& path) { return withoutExtension(baseName(path)); }

std::string withoutExtension(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    const size_t dot = path.find_last_of('.');
    const size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
    if (dot == std::string::npos || dot <= nameStart) return path;
    return path.substr(0, dot);
}

}  // namespace glyptora_tools
