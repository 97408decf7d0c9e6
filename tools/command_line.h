#pragma once
// What the glyptora command's subcommands share: exit statuses, the one-line error messages,
// option parsing and the wording of sizes and file names.
#include <cstdint>
#include <string>

namespace glyptora_tools {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

// "glyptora: FILE: REASON" on standard error.
void fail(const std::string& file, const std::string& reason);
// "glyptora: REASON" on standard error; returns kExitUsage.
int usageError(const std::string& reason);

// Reads the value of an option given as "--name VALUE" or "--name=VALUE" (or "-n VALUE" when
// `shortName` is set) at argv[i]. `matched` tells whether argv[i] is that option; false with
// `error` set when its value is missing.
bool optionValue(int argc, char** argv, int& i, const char* shortName, const char* longName, std::string& value,
                 bool& matched, std::string& error);

// A whole decimal number in [low, high]; false otherwise.
bool parseInteger(const std::string& text, long low, long high, long& value);

// "900 bytes", "12.5 KiB", "3.2 MiB".
std::string formatBytes(uint64_t bytes);

// "dir/name.png" -> "name.png"; "dir/name.png" -> "name"; "dir/name.png" -> "dir/name".
std::string baseName(const std::string& path);
std::string stem(const std::string& path);
std::string withoutExtension(const std::string& path);

}  // namespace glyptora_tools
