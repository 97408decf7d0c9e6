#pragma once
// A private world for tests of the conversion server: a runtime directory of its own (no real
// user's server is touched), a chosen idle time-out, and this process as the subreaper of the
// detached servers it starts, so that tests can see them end and reap them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "server/process_control.h"

extern char** environ;

namespace server_test {

using namespace std::chrono_literals;

class World {
public:
    explicit World(const char* idleTimeout)
        : m_runtimeBefore(saved("XDG_RUNTIME_DIR")), m_timeoutBefore(saved("HALVORAN_GLYPTORA_PROCESS_TIMEOUT")) {
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        char pattern[] = "/tmp/glyptora-server-test-XXXXXX";
        m_directory = mkdtemp(pattern);
        setenv("XDG_RUNTIME_DIR", m_directory.c_str(), 1);
        setIdleTimeout(idleTimeout);
    }

    ~World() {
        if (const int server = serverId()) {
            if (!waitForEnd(server, 10s)) kill(server, SIGKILL);
            waitForEnd(server, 10s);
        }
        std::filesystem::remove_all(m_directory);
        restore("XDG_RUNTIME_DIR", m_runtimeBefore);
        restore("HALVORAN_GLYPTORA_PROCESS_TIMEOUT", m_timeoutBefore);
    }

    // Read by a server when it starts.
    void setIdleTimeout(const char* milliseconds) { setenv("HALVORAN_GLYPTORA_PROCESS_TIMEOUT", milliseconds, 1); }

    const std::string& directory() const { return m_directory; }
    bool socketExists() const { return std::filesystem::exists(m_directory + "/HalvoranGlyptora"); }

    // Process id the last server recorded, 0 when none did: its lock file keeps the id after it
    // ended, so a server that has already quit (time-out "0") is still found.
    int recordedServerId() const {
        std::ifstream file(m_directory + "/HalvoranGlyptora.pid");
        int id = 0;
        return file >> id ? id : 0;
    }

    // Process id of the running server, 0 when none runs.
    int serverId() const {
        const int id = recordedServerId();
        return glyptora_internal::processIsRunning(id) ? id : 0;
    }

    // Whatever a test did, the server ends by itself and leaves no socket and no sections of
    // the `clients` behind.
    void expectCleanEnd(const std::set<int>& clients) const {
        if (const int server = serverId()) {
            EXPECT_TRUE(waitForEnd(server, 10s));
        }
        EXPECT_FALSE(socketExists());
        EXPECT_EQ(sectionsOf(clients), std::vector<std::string>());
    }

    // Waits at most `limit` for the process to end and reaps it when it is our child; true
    // when it ended. `status` receives its wait status when it was reaped here.
    static bool waitForEnd(int id, std::chrono::milliseconds limit, int* status = nullptr) {
        const auto giveUp = std::chrono::steady_clock::now() + limit;
        for (;;) {
            int waitStatus = 0;
            const pid_t reaped = waitpid(id, &waitStatus, WNOHANG);
            if (reaped == id) {
                if (status) *status = waitStatus;
                return true;
            }
            if (reaped < 0 && !glyptora_internal::processIsRunning(id)) return true;
            if (std::chrono::steady_clock::now() > giveUp) return false;
            std::this_thread::sleep_for(2ms);
        }
    }

    // Starts `arguments` with standard error into `errorFile` (and standard input from
    // `input` when given); returns its process id.
    static int spawn(const std::vector<std::string>& arguments, const std::string& errorFile, int input = -1) {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 2, errorFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (input >= 0) posix_spawn_file_actions_adddup2(&actions, input, 0);
        std::vector<char*> argv;
        for (const std::string& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        pid_t id = 0;
        const int result = posix_spawn(&id, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        return result == 0 ? int(id) : 0;
    }

    // Processor time the process has used so far, in clock ticks.
    static long cpuTicks(int id) {
        std::ifstream file("/proc/" + std::to_string(id) + "/stat");
        std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        const size_t close = text.rfind(')');
        if (close == std::string::npos) return -1;
        std::istringstream fields(text.substr(close + 2));
        std::string field;
        long utime = 0, stime = 0;
        for (int i = 3; i <= 15 && fields >> field; ++i) {
            if (i == 14) utime = std::stol(field);
            if (i == 15) stime = std::stol(field);
        }
        return utime + stime;
    }

    // Waits until the server has spent `ticks` more processor time, i.e. is converting.
    static bool waitUntilBusy(int server, long ticks) {
        const long start = cpuTicks(server);
        for (int i = 0; i < 5000 && cpuTicks(server) < start + ticks; ++i) std::this_thread::sleep_for(2ms);
        return cpuTicks(server) >= start + ticks;
    }

    // Sections in /dev/shm named after any of the process ids.
    static std::vector<std::string> sectionsOf(const std::set<int>& ids) {
        std::vector<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
            const std::string name = entry.path().filename();
            for (int id : ids)
                for (const char* kind : {"HalvoranGlyptoraDstPixels_", "HalvoranGlyptoraSrcPixels_"})
                    if (name == kind + std::to_string(id)) found.push_back(name);
        }
        return found;
    }

private:
    static std::pair<bool, std::string> saved(const char* name) {
        const char* value = std::getenv(name);
        return {value != nullptr, value ? value : ""};
    }
    static void restore(const char* name, const std::pair<bool, std::string>& value) {
        if (value.first)
            setenv(name, value.second.c_str(), 1);
        else
            unsetenv(name);
    }

    const std::pair<bool, std::string> m_runtimeBefore, m_timeoutBefore;
    std::string m_directory;
};

}  // namespace server_test
