// The named pipe \\.\Pipe\HalvoranGlyptora in message mode. The server holds one instance at
// a time, created with the first-instance flag so that a second server cannot create it, and
// a fresh one for every client; a request and its answer are one message each.
#include <windows.h>

#include <atomic>
#include <chrono>

#include "server/message_channel.h"
#include "server/system_error.h"

namespace glyptora_internal {

namespace {

constexpr DWORD kAnswerBufferBytes = 512;
constexpr DWORD kRequestBufferBytes = 380;
// How long a client waits for a busy instance (the server is closing the previous one).
constexpr auto kBusyPatience = std::chrono::seconds(10);

HANDLE pipeOf(intptr_t handle) { return reinterpret_cast<HANDLE>(handle); }

HANDLE openPipe(const std::string& name) {
    return CreateFileA(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
}

// Whether a server lives: it holds the event named `name` open from before its first pipe
// instance until after its last.
bool serverAlive(const std::string& name) {
    const HANDLE event = OpenEventA(SYNCHRONIZE, FALSE, name.c_str());
    if (!event) return false;
    CloseHandle(event);
    return true;
}

}  // namespace

MessageConnection::~MessageConnection() { CloseHandle(pipeOf(m_handle)); }

// Flushed, so that the server's answer is read before it closes its end.
bool MessageConnection::send(const void* data, size_t size, std::string& error) {
    DWORD written = 0;
    if (size > MAXDWORD || !WriteFile(pipeOf(m_handle), data, DWORD(size), &written, nullptr) || written != size) {
        error = lastSystemErrorText();
        return false;
    }
    FlushFileBuffers(pipeOf(m_handle));
    return true;
}

long MessageConnection::receive(void* buffer, size_t capacity, std::string& error) {
    DWORD read = 0;
    const DWORD room = capacity > MAXDWORD ? MAXDWORD : DWORD(capacity);
    if (ReadFile(pipeOf(m_handle), buffer, room, &read, nullptr) || GetLastError() == ERROR_MORE_DATA)
        return long(read);  // a longer message arrives cut
    error = lastSystemErrorText();
    return -1;
}

struct MessageListener::Handles {
    std::string name;
    HANDLE alive = nullptr;                 // the server's event, see serverAlive()
    HANDLE pending = INVALID_HANDLE_VALUE;  // the instance made by create(), not yet used
    std::atomic<bool> woken{false};

    ~Handles() {
        if (pending != INVALID_HANDLE_VALUE) CloseHandle(pending);
        if (alive) CloseHandle(alive);
    }

    // One instance at a time, for clients on this machine only (the sections are local).
    HANDLE createInstance() const {
        return CreateNamedPipeA(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_FIRST_PIPE_INSTANCE,
                                PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS, 1,
                                kAnswerBufferBytes, kRequestBufferBytes, 0, nullptr);
    }
};

MessageListener::MessageListener(std::unique_ptr<Handles> handles) : m_handles(std::move(handles)) {}

MessageListener::~MessageListener() = default;

std::unique_ptr<MessageListener> MessageListener::create(const ServerEndpoint& endpoint, std::string& error) {
    auto handles = std::make_unique<Handles>();
    handles->name = endpoint.channelPath;
    handles->pending = handles->createInstance();
    if (handles->pending == INVALID_HANDLE_VALUE) {
        const DWORD code = GetLastError();
        // Access denied: the pipe exists, so another server lives.
        if (code == ERROR_ACCESS_DENIED || code == ERROR_PIPE_BUSY)
            error.clear();
        else
            error = "Cannot create pipe " + endpoint.channelPath + " (" + systemErrorText(int(code)) + ")";
        return nullptr;
    }
    handles->alive = CreateEventA(nullptr, TRUE, FALSE, endpoint.instanceLockPath.c_str());
    return std::unique_ptr<MessageListener>(new MessageListener(std::move(handles)));
}

std::unique_ptr<MessageConnection> MessageListener::accept() {
    for (;;) {
        HANDLE pipe = m_handles->pending;
        m_handles->pending = INVALID_HANDLE_VALUE;
        // A new instance once the previous client's is closed; another server that took the
        // name in between ends this one.
        if (pipe == INVALID_HANDLE_VALUE) pipe = m_handles->createInstance();
        if (pipe == INVALID_HANDLE_VALUE) return nullptr;
        // Checked with the instance in place: a wake() that found no instance is seen here,
        // a later one connects to it.
        if (m_handles->woken) {
            CloseHandle(pipe);
            return nullptr;
        }
        if (ConnectNamedPipe(pipe, nullptr) || GetLastError() == ERROR_PIPE_CONNECTED ||
            GetLastError() == ERROR_NO_DATA)  // a client that already left; its read fails
            return std::unique_ptr<MessageConnection>(new MessageConnection(reinterpret_cast<intptr_t>(pipe)));
        CloseHandle(pipe);
    }
}

// Opens the pipe once and closes it, which ends the server's wait in ConnectNamedPipe.
void MessageListener::wake() {
    m_handles->woken = true;
    for (int attempt = 0; attempt < 100; ++attempt) {
        const HANDLE pipe = openPipe(m_handles->name);
        if (pipe != INVALID_HANDLE_VALUE) {
            CloseHandle(pipe);
            return;
        }
        if (GetLastError() != ERROR_PIPE_BUSY) return;  // no instance: accept() sees `woken`
        WaitNamedPipeA(m_handles->name.c_str(), 100);
    }
}

std::unique_ptr<MessageConnection> connectToServer(const ServerEndpoint& endpoint, bool& noServer, std::string& error) {
    noServer = false;
    const auto giveUp = std::chrono::steady_clock::now() + kBusyPatience;
    for (;;) {
        const HANDLE pipe = openPipe(endpoint.channelPath);
        if (pipe != INVALID_HANDLE_VALUE) {
            DWORD mode = PIPE_READMODE_MESSAGE;
            SetNamedPipeHandleState(pipe, &mode, nullptr, nullptr);
            return std::unique_ptr<MessageConnection>(new MessageConnection(reinterpret_cast<intptr_t>(pipe)));
        }
        const DWORD code = GetLastError();
        const bool patient = std::chrono::steady_clock::now() < giveUp;
        // Busy: the server has not yet closed the previous client's instance (or is ending).
        if (code == ERROR_PIPE_BUSY && patient) {
            WaitNamedPipeA(endpoint.channelPath.c_str(), 100);
            continue;
        }
        // No pipe, but a live server: it is about to create its next instance.
        if (code == ERROR_FILE_NOT_FOUND && patient && serverAlive(endpoint.instanceLockPath)) {
            Sleep(1);
            continue;
        }
        noServer = code == ERROR_FILE_NOT_FOUND;
        error = systemErrorText(int(code));
        return nullptr;
    }
}

}  // namespace glyptora_internal
