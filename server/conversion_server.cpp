#include "server/conversion_server.h"

#include <cstdlib>
#include <memory>

#include "server/idle_watchdog.h"
#include "server/message_channel.h"
#include "server/named_lock.h"
#include "server/process_control.h"
#include "server/request_handler.h"
#include "server/request_record.h"
#include "server/server_endpoint.h"

namespace glyptora_internal {

namespace {

// Answers are at most 511 characters (a 512-byte buffer with its zero on the client side).
constexpr size_t kAnswerLimit = 511;

void serveOneClient(MessageConnection& client) {
    // One byte more than a record, so that a longer message still arrives (cut) rather than failing.
    uint8_t record[kRequestRecordSize + 1];
    std::string error;
    const long size = client.receive(record, sizeof record, error);
    if (size < 0) return;  // the client went away
    std::string answer = serveRequest(record, size_t(size));
    if (answer.size() > kAnswerLimit) answer.resize(kAnswerLimit);
    client.send(answer.data(), answer.size(), error);  // a client that left does not matter
}

}  // namespace

void runConversionServer() {
    if (standardInputIsTerminal()) return;
    ServerEndpoint endpoint;
    std::string error;
    if (!resolveServerEndpoint(endpoint, error)) return;
    const std::unique_ptr<NamedLock> transactionLock = NamedLock::open(endpoint.transactionLockPath, error);
    if (!transactionLock) return;
    std::unique_ptr<MessageListener> listener = MessageListener::create(endpoint, error);
    if (!listener) return;

    {
        MessageListener& wakeable = *listener;
        IdleWatchdog watchdog(*transactionLock, parseIdleTimeout(std::getenv("HALVORAN_GLYPTORA_PROCESS_TIMEOUT")),
                              [&wakeable] { wakeable.wake(); });
        for (;;) {
            std::unique_ptr<MessageConnection> client = listener->accept();
            if (!client || watchdog.endRequested()) break;
            if (!watchdog.beginRequest()) continue;
            serveOneClient(*client);
            client.reset();
            watchdog.endRequest();
        }
    }
    // Close the endpoint while the watchdog's hold on the transaction lock keeps clients out;
    // the next client then finds no server and starts a new one.
    listener.reset();
}

}  // namespace glyptora_internal
