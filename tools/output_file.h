#pragma once
// Output written all-or-nothing: the bytes go to a temporary file in the destination's
// folder, which is renamed over the destination only once everything was written. A failed
// or interrupted run leaves no partial output behind.
#include <cstdint>
#include <string>
#include <vector>

namespace glyptora_tools {

class PendingOutput {
public:
    PendingOutput() = default;
    ~PendingOutput();  // removes the temporary file unless committed
    PendingOutput(const PendingOutput&) = delete;
    PendingOutput& operator=(const PendingOutput&) = delete;

    // Creates the temporary file next to the file `path` names, symbolic links followed (the
    // link stays, its target is replaced). A replaced file keeps its permissions, a new one gets
    // 0666 less the umask. False with a reason when the folder is not writable.
    bool open(const std::string& path, std::string& error);
    // Writes `data`, flushes it to disk and renames the temporary file to the destination.
    bool commit(const std::vector<uint8_t>& data, std::string& error);
    // Removes the temporary file.
    void discard();

private:
    std::string m_path;
    std::string m_tempPath;
    int m_fd = -1;
};

// SIGINT, SIGTERM and SIGHUP remove the temporary file of the output in progress before the process ends.
void removePendingOutputOnSignal();

}  // namespace glyptora_tools
