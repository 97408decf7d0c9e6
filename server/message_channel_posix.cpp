// A Unix-domain SOCK_SEQPACKET socket in the user's private directory: it keeps message
// boundaries, tells the server who connected (SO_PEERCRED) and reports a peer that died as
// the end of the connection. One live server holds the instance lock beside it.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "server/message_channel.h"
#include "server/named_lock.h"
#include "server/system_error.h"

namespace glyptora_internal {

namespace {

// How long a new server waits for the instance lock of one that is still closing its files.
constexpr auto kInstanceLockPatience = std::chrono::seconds(5);
// How long the server waits for a connected client's request, or to hand over its answer.
constexpr int kClientPatienceSeconds = 10;

sockaddr_un socketAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), std::min(path.size(), sizeof address.sun_path - 1));
    return address;
}

}  // namespace

MessageConnection::~MessageConnection() { ::close(m_handle); }

bool MessageConnection::send(const void* data, size_t size, std::string& error) {
    ssize_t sent;
    while ((sent = ::send(m_handle, data, size, MSG_NOSIGNAL)) < 0 && errno == EINTR) {
    }
    if (sent == ssize_t(size)) return true;
    error = sent < 0 ? lastSystemErrorText() : systemErrorText(EMSGSIZE);
    return false;
}

long MessageConnection::receive(void* buffer, size_t capacity, std::string& error) {
    ssize_t received;
    while ((received = ::recv(m_handle, buffer, capacity, 0)) < 0 && errno == EINTR) {
    }
    if (received > 0) return long(received);
    error = received == 0 ? systemErrorText(ECONNRESET) : lastSystemErrorText();
    return -1;
}

struct MessageListener::Handles {
    std::unique_ptr<NamedLock> instance;  // released last, after the socket is gone
    std::string path;
    int listening = -1;
    int wakeRead = -1;
    int wakeWrite = -1;

    ~Handles() {
        if (listening >= 0) {
            ::close(listening);
            ::unlink(path.c_str());
        }
        if (wakeRead >= 0) ::close(wakeRead);
        if (wakeWrite >= 0) ::close(wakeWrite);
    }
};

MessageListener::MessageListener(std::unique_ptr<Handles> handles) : m_handles(std::move(handles)) {}

MessageListener::~MessageListener() = default;

std::unique_ptr<MessageListener> MessageListener::create(const ServerEndpoint& endpoint, std::string& error) {
    auto handles = std::make_unique<Handles>();
    handles->instance = NamedLock::open(endpoint.instanceLockPath, error);
    if (!handles->instance) {
        error = "Cannot open lock " + endpoint.instanceLockPath + " (" + error + ")";
        return nullptr;
    }
    const auto giveUp = std::chrono::steady_clock::now() + kInstanceLockPatience;
    while (!handles->instance->tryLock()) {
        if (std::chrono::steady_clock::now() > giveUp) {
            error.clear();  // another server lives
            return nullptr;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    handles->instance->record(std::to_string(getpid()) + "\n");

    // Holding the instance lock, any socket file here is a dead server's.
    ::unlink(endpoint.channelPath.c_str());
    // Non-blocking, so that a client gone between poll() and accept() cannot block the server.
    const int listening = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const sockaddr_un address = socketAddress(endpoint.channelPath);
    if (listening < 0) {
        error = "Cannot create socket (" + lastSystemErrorText() + ")";
        return nullptr;
    }
    if (::bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        error = "Cannot bind " + endpoint.channelPath + " (" + lastSystemErrorText() + ")";
        ::close(listening);
        return nullptr;
    }
    handles->listening = listening;
    handles->path = endpoint.channelPath;
    ::chmod(endpoint.channelPath.c_str(), 0600);
    int wake[2];
    if (::listen(listening, 16) != 0 || ::pipe2(wake, O_CLOEXEC | O_NONBLOCK) != 0) {
        error = "Cannot listen on " + endpoint.channelPath + " (" + lastSystemErrorText() + ")";
        return nullptr;
    }
    handles->wakeRead = wake[0];
    handles->wakeWrite = wake[1];
    return std::unique_ptr<MessageListener>(new MessageListener(std::move(handles)));
}

std::unique_ptr<MessageConnection> MessageListener::accept() {
    for (;;) {
        pollfd waits[2] = {{m_handles->listening, POLLIN, 0}, {m_handles->wakeRead, POLLIN, 0}};
        if (::poll(waits, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return nullptr;
        }
        if (waits[1].revents) return nullptr;
        const int client = ::accept4(m_handles->listening, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) continue;  // the client gave up before we took it
        // Only this user's processes are served.
        ucred peer{};
        socklen_t size = sizeof peer;
        if (::getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || peer.uid != ::getuid()) {
            ::close(client);
            continue;
        }
        // A client that connects and then stalls must not hold the server for ever.
        const timeval patience{kClientPatienceSeconds, 0};
        ::setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        ::setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
        return std::unique_ptr<MessageConnection>(new MessageConnection(client));
    }
}

void MessageListener::wake() {
    const char one = 1;
    while (::write(m_handles->wakeWrite, &one, 1) < 0 && errno == EINTR) {
    }
}

std::unique_ptr<MessageConnection> connectToServer(const ServerEndpoint& endpoint, bool& noServer, std::string& error) {
    noServer = false;
    const int handle = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (handle < 0) {
        error = lastSystemErrorText();
        return nullptr;
    }
    const sockaddr_un address = socketAddress(endpoint.channelPath);
    if (::connect(handle, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return std::unique_ptr<MessageConnection>(new MessageConnection(handle));
    const int code = errno;
    ::close(handle);
    // No socket, a dead server's socket, or (briefly) a full queue: worth starting or retrying.
    noServer = code == ENOENT || code == ECONNREFUSED || code == EAGAIN || code == EINTR;
    error = systemErrorText(code);
    return nullptr;
}

}  // namespace glyptora_internal
