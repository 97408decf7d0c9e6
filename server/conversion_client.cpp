#include "server/conversion_client.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "server/message_channel.h"
#include "server/named_lock.h"
#include "server/process_control.h"
#include "server/request_record.h"
#include "server/server_endpoint.h"
#include "server/server_start.h"
#include "server/shared_section.h"

namespace glyptora_internal {

namespace {

// How long a client waits for a server to start and accept its request.
constexpr auto kServerPatience = std::chrono::seconds(10);
constexpr size_t kAnswerBytes = 512;

void printClientError(const std::string& text) {
    std::fprintf(stderr, "Error: %s\n", text.c_str());
    std::fflush(stderr);
}

// Connects to the running server, or starts one and waits for it. Null with the reason in
// `error` when there is none to talk to within the time limit.
std::unique_ptr<MessageConnection> connectOrStartServer(const ServerEndpoint& endpoint, std::string& error) {
    const auto giveUp = std::chrono::steady_clock::now() + kServerPatience;
    bool noServer = false;
    std::unique_ptr<MessageConnection> connection = connectToServer(endpoint, noServer, error);
    if (connection || !noServer) return connection;
    int serverId = 0;
    if (!startServerProcess(serverId, error)) return nullptr;
    auto pause = std::chrono::microseconds(100);
    for (;;) {
        const bool serverGone = !processIsRunning(serverId);
        connection = connectToServer(endpoint, noServer, error);
        if (connection || !noServer) return connection;
        if (serverGone) {
            error = "the server process ended";
            return nullptr;
        }
        if (std::chrono::steady_clock::now() > giveUp) {
            error = "no server within " + std::to_string(kServerPatience.count()) + " s: " + error;
            return nullptr;
        }
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::microseconds(5000));
    }
}

// One transaction under the user's transaction lock: reach the server, send the record, read
// the answer. False with `error` set to the text of the "Error: " line.
bool runTransaction(const RequestRecord& record, std::string& answer, std::string& error) {
    ServerEndpoint endpoint;
    if (!resolveServerEndpoint(endpoint, error)) return false;
    const std::unique_ptr<NamedLock> lock = NamedLock::open(endpoint.transactionLockPath, error);
    if (!lock || !lock->lock(error)) {
        error = "Cannot create mutex: " + endpoint.transactionLockPath + " (" + error + ")";
        return false;
    }
    const std::unique_ptr<MessageConnection> server = connectOrStartServer(endpoint, error);
    char reply[kAnswerBytes];
    long size = -1;
    if (server && server->send(record.data(), record.size(), error)) size = server->receive(reply, sizeof reply, error);
    if (size < 0) {
        error = "Server does not respond (" + error + ")";
        return false;
    }
    answer.assign(reply, strnlen(reply, size_t(size)));
    return true;
}

}  // namespace

bool convertInServer(const ServerConversion& c) {
    // The section names carry the process id, so one transaction at a time per process.
    static std::mutex oneAtATime;
    const std::lock_guard<std::mutex> guard(oneAtATime);

    const int processId = currentProcessId();
    ServerRequest request;
    request.destinationSection = destinationSectionName(processId);
    request.sourceSection = sourceSectionName(processId);
    request.destinationFormat = c.destinationFormat;
    request.sourceFormat = c.sourceFormat;
    request.options = c.options;
    request.flags = c.flags;
    request.dimension = c.dimension;
    request.width = c.width;
    request.height = c.height;
    request.depth = c.depth;
    request.mipCount = c.mipCount;
    request.clientProcessId = uint32_t(processId);
    RequestRecord record;
    std::string error;
    if (!encodeRequestRecord(request, record, error)) {
        printClientError(error);
        return false;
    }

    removeAbandonedSections();
    const auto destination = SharedSection::create(request.destinationSection, c.destinationBytes, error);
    if (!destination) {
        printClientError("Cannot create file mapping: " + request.destinationSection + " (" + error + ")");
        return false;
    }
    const auto source = SharedSection::create(request.sourceSection, c.sourceBytes, error);
    if (!source) {
        printClientError("Cannot create file mapping: " + request.sourceSection + " (" + error + ")");
        return false;
    }
    {
        SectionView view;
        if (!source->map(true, view, error)) {
            printClientError("Cannot map view of source file (client) (" + error + ")");
            return false;
        }
        if (view.size()) std::memcpy(view.data(), c.source, size_t(view.size()));
    }

    std::string answer;
    if (!runTransaction(record, answer, error)) {
        printClientError(error);
        return false;
    }
    if (answer != "Success") {
        printClientError(answer);
        return false;
    }
    SectionView view;
    if (!destination->map(false, view, error)) {
        printClientError("Cannot map view of destination file (client) (" + error + ")");
        return false;
    }
    if (view.size()) std::memcpy(c.destination, view.data(), size_t(view.size()));
    return true;
}

}  // namespace glyptora_internal
