#pragma once
// The server's message channel: clients connect one at a time, send one request and read one
// answer; every send and receive carries one whole message.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "server/server_endpoint.h"

namespace glyptora_internal {

// One connection, seen from either end.
class MessageConnection {
public:
    ~MessageConnection();
    MessageConnection(const MessageConnection&) = delete;
    MessageConnection& operator=(const MessageConnection&) = delete;

    bool send(const void* data, size_t size, std::string& error);
    // Receives one message; a longer one is cut to `capacity`. Returns its size, or -1 with
    // `error` set (also when the other end has closed the connection).
    long receive(void* buffer, size_t capacity, std::string& error);

private:
    friend class MessageListener;
    friend std::unique_ptr<MessageConnection> connectToServer(const ServerEndpoint&, bool&, std::string&);
    explicit MessageConnection(intptr_t handle) : m_handle(handle) {}
    intptr_t m_handle;  // a socket, or a Windows pipe HANDLE
};

class MessageListener {
public:
    // Opens the endpoint for one server. Only one server at a time holds it: while another
    // lives, the result is null with `error` empty. A channel left by a server that died is
    // replaced. The server's process id is recorded beside the channel.
    static std::unique_ptr<MessageListener> create(const ServerEndpoint& endpoint, std::string& error);
    // Closes the endpoint: new clients find no server from here on.
    ~MessageListener();
    MessageListener(const MessageListener&) = delete;
    MessageListener& operator=(const MessageListener&) = delete;

    // Waits for the next client of this user; null once wake() was called or when the
    // endpoint cannot take clients any more.
    std::unique_ptr<MessageConnection> accept();
    // Releases a thread blocked in accept(); callable from any thread.
    void wake();

private:
    struct Handles;
    explicit MessageListener(std::unique_ptr<Handles> handles);
    std::unique_ptr<Handles> m_handles;
};

// Connects to the user's server. Null when that fails; `noServer` then tells whether simply no
// server is listening (so one should be started) as opposed to any other failure.
std::unique_ptr<MessageConnection> connectToServer(const ServerEndpoint& endpoint, bool& noServer, std::string& error);

}  // namespace glyptora_internal
