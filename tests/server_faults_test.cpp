// The server route under faults: clients and servers killed in the middle of a transaction,
// and several client processes at once. Real processes throughout, in a private runtime
// directory.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "glyptora.h"
#include "support/server_test_world.h"

using server_test::World;
using namespace std::chrono_literals;

namespace {

// Large enough that the server is still converting when the test strikes.
constexpr const char* kSlowSize = "192";
constexpr long kBusyTicks = 10;

class ServerFaults : public testing::Test {
protected:
    World world{"1000"};
    std::set<int> clients{getpid()};

    // One quick request from this process; true when it succeeded.
    bool quickRequest() {
        const std::vector<uint8_t> pixels(8 * 8 * 4, 0x5A);
        std::vector<uint8_t> blocks(64);
        return GlyptoraConvert(blocks.data(), pixels.data(), L"unorm_bc7", L"unorm_8_8_8_8", L"fastest",
                               GLYPTORA_FLAG_SERVER, 0, 8, 8, 1, 1) == 1;
    }

    int startClient(const std::vector<std::string>& arguments, const std::string& errorFile) {
        std::vector<std::string> command{GLYPTORA_SERVER_TEST_CLIENT};
        command.insert(command.end(), arguments.begin(), arguments.end());
        const int id = World::spawn(command, world.directory() + "/" + errorFile);
        clients.insert(id);
        return id;
    }

    std::string errorsOf(const std::string& errorFile) {
        std::ifstream file(world.directory() + "/" + errorFile);
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }

    void TearDown() override { world.expectCleanEnd(clients); }
};

}  // namespace

// A client killed while the server converts its request stops neither the server nor the
// next client, and its sections are cleaned up by the next client.
TEST_F(ServerFaults, KilledClientDoesNotStopTheServer) {
    ASSERT_TRUE(quickRequest());
    const int server = world.serverId();
    const int client = startClient({"slow", kSlowSize}, "slow.err");
    ASSERT_TRUE(World::waitUntilBusy(server, kBusyTicks));
    kill(client, SIGKILL);
    ASSERT_TRUE(World::waitForEnd(client, 10s));
    EXPECT_EQ(World::sectionsOf({client}).size(), 2u);  // left behind by the kill
    EXPECT_TRUE(quickRequest());
    EXPECT_EQ(world.serverId(), server);
}

// A server killed while converting gives its client the error line (no hang), and the next
// request starts a new server.
TEST_F(ServerFaults, KilledServerGivesTheErrorLine) {
    ASSERT_TRUE(quickRequest());
    const int server = world.serverId();
    const int client = startClient({"slow", kSlowSize}, "slow.err");
    ASSERT_TRUE(World::waitUntilBusy(server, kBusyTicks));
    kill(server, SIGKILL);
    int status = -1;
    ASSERT_TRUE(World::waitForEnd(client, 20s, &status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
    EXPECT_EQ(errorsOf("slow.err"), "Error: Server does not respond (Connection reset by peer)\n");
    // The kill takes effect asynchronously: a dying server may still hold its listening socket
    // after its client saw the reset, and a connection made then would be reset too.
    ASSERT_TRUE(World::waitForEnd(server, 10s));
    EXPECT_TRUE(quickRequest());
    EXPECT_NE(world.serverId(), 0);
    EXPECT_NE(world.serverId(), server);
}

// Four client processes of 250 requests each, all at once, are served by the one server with
// every result equal to the in-process one.
TEST_F(ServerFaults, FourClientsAtOnce) {
    ASSERT_TRUE(quickRequest());
    const int server = world.serverId();
    std::vector<int> running;
    for (int seed = 1; seed <= 4; ++seed)
        running.push_back(startClient({"repeat", "250", std::to_string(seed)}, "repeat" + std::to_string(seed)));
    for (size_t i = 0; i < running.size(); ++i) {
        int status = -1;
        ASSERT_TRUE(World::waitForEnd(running[i], 60s, &status));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << errorsOf("repeat" + std::to_string(i + 1));
    }
    EXPECT_EQ(world.serverId(), server);
}
