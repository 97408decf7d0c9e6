#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "server/process_control.h"
#include "server/system_error.h"

namespace glyptora_internal {

namespace {

// What the two processes of a start tell the client through the report pipe.
struct StartReport {
    enum Kind : int { Started, ForkFailed, ExecFailed } kind;
    int value;  // the server's process id, or the error code
};

void writeReport(int fd, StartReport report) {
    while (write(fd, &report, sizeof report) < 0 && errno == EINTR) {
    }
}

// Reads one whole report; false at the end of the pipe.
bool readReport(int fd, StartReport& report) {
    size_t got = 0;
    auto* bytes = reinterpret_cast<char*>(&report);
    while (got < sizeof report) {
        const ssize_t n = read(fd, bytes + got, sizeof report - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        got += size_t(n);
    }
    return true;
}

#ifndef CLOSE_RANGE_CLOEXEC
#define CLOSE_RANGE_CLOEXEC (1U << 2)
#endif

// Marks every descriptor above the standard streams close-on-exec, so the server inherits
// none of the host's files, pipes or sockets. Async-signal-safe: runs between fork and exec.
void closeOnExecAbove2(int descriptorLimit) {
#ifdef SYS_close_range
    if (syscall(SYS_close_range, 3u, ~0u, CLOSE_RANGE_CLOEXEC) == 0) return;
#endif
    for (int fd = 3; fd < descriptorLimit; ++fd) fcntl(fd, F_SETFD, FD_CLOEXEC);
}

[[noreturn]] void runServerProcess(const char* program, char* const* argv, int report, int descriptorLimit) {
    const int null = open("/dev/null", O_RDWR);
    for (int stream = 0; stream < 3; ++stream)
        if (null >= 0) dup2(null, stream);
    if (null > 2) close(null);
    closeOnExecAbove2(descriptorLimit);
    // Signals blocked or ignored by the host would otherwise stay so in the server.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    struct sigaction defaults;
    std::memset(&defaults, 0, sizeof defaults);
    defaults.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal) sigaction(signal, &defaults, nullptr);
    // Not keeping the host's working directory (and its mount) busy.
    if (chdir("/") == 0) execv(program, argv);
    writeReport(report, {StartReport::ExecFailed, errno});
    _exit(127);
}

}  // namespace

int currentProcessId() { return int(getpid()); }

bool processIsRunning(int processId) {
    if (processId <= 0) return false;
    if (kill(processId, 0) != 0 && errno == ESRCH) return false;
    // An ended process that nobody reaped yet still answers kill(); its state says "Z".
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/stat", processId);
    FILE* file = std::fopen(path, "re");
    if (!file) return errno != ENOENT;
    char line[512];
    const bool read = std::fgets(line, sizeof line, file) != nullptr;
    std::fclose(file);
    const char* close = read ? std::strrchr(line, ')') : nullptr;
    if (!close || close[1] != ' ') return true;
    return close[2] != 'Z' && close[2] != 'X';
}

bool standardInputIsTerminal() { return isatty(STDIN_FILENO) == 1; }

std::string moduleHoldingThisCode(bool* isMainExecutable) {
    Dl_info info;
    link_map* module = nullptr;
    if (!dladdr1(reinterpret_cast<void*>(&moduleHoldingThisCode), &info, reinterpret_cast<void**>(&module),
                 RTLD_DL_LINKMAP) ||
        !module)
        return std::string();
    // The main program's entry in the loader's list has an empty name.
    const bool main = module->l_name == nullptr || module->l_name[0] == '\0';
    if (isMainExecutable) *isMainExecutable = main;
    char resolved[PATH_MAX];
    if (!realpath(main ? "/proc/self/exe" : module->l_name, resolved)) return std::string();
    return resolved;
}

bool startDetachedProcess(const std::string& program, const std::vector<std::string>& arguments, int& processId,
                          std::string& error) {
    // Everything the new processes need is prepared here: between fork and exec they may
    // only make async-signal-safe calls.
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    rlimit limit{};
    const int descriptorLimit =
        getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < 65536 ? int(limit.rlim_cur) : 65536;

    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0) {
        error = lastSystemErrorText();
        return false;
    }
    const pid_t middle = fork();
    if (middle < 0) {
        error = lastSystemErrorText();
        close(report[0]);
        close(report[1]);
        return false;
    }
    if (middle == 0) {
        // A new session without a terminal; its child, the server, is then nobody's child
        // here once this process ends.
        close(report[0]);
        setsid();
        const pid_t server = fork();
        if (server == 0) runServerProcess(argv[0], argv.data(), report[1], descriptorLimit);
        writeReport(report[1], server < 0 ? StartReport{StartReport::ForkFailed, errno}
                                          : StartReport{StartReport::Started, int(server)});
        _exit(0);
    }
    close(report[1]);
    while (waitpid(middle, nullptr, 0) < 0 && errno == EINTR) {
    }
    StartReport started{StartReport::ForkFailed, EIO}, failure{};
    const bool known = readReport(report[0], started);
    // The pipe ends when the exec succeeded (close-on-exec) or the server reported why not.
    const bool execFailed = readReport(report[0], failure);
    close(report[0]);
    if (!known || started.kind != StartReport::Started) {
        error = systemErrorText(known ? started.value : EIO);
        return false;
    }
    if (execFailed) {
        error = systemErrorText(failure.value);
        return false;
    }
    processId = started.value;
    return true;
}

}  // namespace glyptora_internal
