// The server route end to end: real server processes started by the library, real sockets
// and shared memory, in a private runtime directory.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "dispatch/format_table.h"
#include "frontend/request_decoding.h"
#include "glyptora.h"
#include "server/message_channel.h"
#include "server/named_lock.h"
#include "server/request_record.h"
#include "support/server_test_world.h"

using namespace glyptora_internal;
using server_test::World;
using namespace std::chrono_literals;

#ifdef __SANITIZE_ADDRESS__
// One test loads a second copy of the library on purpose; its exported globals are not a
// one-definition-rule violation.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() { return "detect_odr_violation=0"; }
#endif

namespace {

struct Texture {
    uint32_t width, height, levels;
    bool isFloat;
    std::vector<uint8_t> pixels;
};

Texture noisyTexture(uint32_t width, uint32_t height, uint32_t levels, bool isFloat, unsigned seed) {
    Texture t{width, height, levels, isFloat, {}};
    const uint64_t pixels = levelChainSize(kUncompressedGeometry, 0, width, height, 1, levels) / 4;
    std::mt19937 random(seed);
    if (isFloat) {
        std::vector<float> values(pixels * 4);
        for (float& v : values) v = float(random() % 4096) / 1024.0f;
        t.pixels.resize(values.size() * 4);
        std::memcpy(t.pixels.data(), values.data(), t.pixels.size());
    } else {
        t.pixels.resize(pixels * 4);
        for (uint8_t& p : t.pixels) p = uint8_t(random());
    }
    return t;
}

// Converts through the exported function; the result is empty when the call failed.
std::vector<uint8_t> convert(const Texture& t, const std::wstring& format, const wchar_t* options, uint32_t flags) {
    const std::string narrow(format.begin(), format.end());
    const FormatRow* row = decodeDestination(narrow.c_str());
    std::vector<uint8_t> out(row ? levelChainSize(geometryOf(*row), 0, t.width, t.height, 1, t.levels) : 16, 0xCD);
    if (!GlyptoraConvert(out.data(), t.pixels.data(), format.c_str(),
                         t.isFloat ? L"float_32_32_32_32" : L"unorm_8_8_8_8", options, flags, 0, t.width, t.height, 1,
                         t.levels))
        out.clear();
    return out;
}

class ServerRoute : public testing::Test {
protected:
    World world{"1000"};
    void TearDown() override { world.expectCleanEnd({getpid()}); }
};

}  // namespace

// Every format with an encoder gives exactly the in-process blocks, all from one server that
// the first request started.
TEST_F(ServerRoute, EveryFormatMatchesInProcessOnOneServer) {
    ASSERT_EQ(world.serverId(), 0);
    const Texture bytes = noisyTexture(13, 7, 3, false, 1), floats = noisyTexture(9, 6, 2, true, 2);
    // The in-process blocks first: the server requests then follow one another well inside the
    // idle time-out however slow the in-process encoders run (sanitizers, a loaded machine).
    std::vector<std::pair<const FormatRow*, const Texture*>> cases;
    std::vector<std::vector<uint8_t>> expected;
    for (const FormatRow& row : allFormatRows()) {
        if (!row.hasEncoder()) continue;
        for (const Texture* t : {&bytes, &floats}) {
            const std::wstring name(row.word, row.word + std::strlen(row.word));
            cases.emplace_back(&row, t);
            expected.push_back(convert(*t, name, L"", 0));
            ASSERT_FALSE(expected.back().empty()) << row.word;
        }
    }
    int server = 0;
    for (size_t i = 0; i < cases.size(); ++i) {
        const char* word = cases[i].first->word;
        const std::wstring name(word, word + std::strlen(word));
        EXPECT_EQ(convert(*cases[i].second, name, L"", GLYPTORA_FLAG_SERVER), expected[i]) << word;
        if (!server) server = world.serverId();
        EXPECT_EQ(world.serverId(), server) << word;
    }
    EXPECT_NE(server, 0);
}

// The server ends after its idle time-out, "0" right after its last client, and the next
// request starts a new one.
TEST_F(ServerRoute, IdleTimeOutEndsTheServerAndTheNextRequestStartsAnother) {
    const Texture t = noisyTexture(8, 8, 1, false, 3);
    const std::vector<uint8_t> expected = convert(t, L"unorm_bc3", L"", 0);
    int previous = 0;
    for (const char* timeout : {"300", "0"}) {
        world.setIdleTimeout(timeout);
        EXPECT_EQ(convert(t, L"unorm_bc3", L"", GLYPTORA_FLAG_SERVER), expected) << timeout;
        // With "0" the server may have quit already: its id is read from what it recorded.
        const int server = world.recordedServerId();
        ASSERT_NE(server, 0);
        EXPECT_NE(server, previous);
        int status = -1;
        ASSERT_TRUE(World::waitForEnd(server, 10s, &status)) << timeout;
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        EXPECT_FALSE(world.socketExists());
        previous = server;
    }
}

// A format of 32 or more characters is refused before anything is sent; options are cut to
// 31 characters, which here drops the word "perceptual".
TEST_F(ServerRoute, FormatAndOptionLengths) {
    const Texture t = noisyTexture(16, 16, 1, false, 4);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(convert(t, L"unorm_bc1" + std::wstring(23, L'_'), L"", GLYPTORA_FLAG_SERVER).empty());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error: Destination format does not fit the request: \"unorm_bc1_______________________\" (at most 31 "
              "characters)\n");
    EXPECT_EQ(world.serverId(), 0);
    EXPECT_FALSE(world.socketExists());
    const std::wstring longest = L"unorm_bc1" + std::wstring(22, L'_');
    EXPECT_EQ(convert(t, longest, L"", GLYPTORA_FLAG_SERVER), convert(t, longest, L"", 0));

    const std::wstring cut = L"normal" + std::wstring(25, L' ');
    const std::vector<uint8_t> served = convert(t, L"unorm_bc1", (cut + L"perceptual").c_str(), GLYPTORA_FLAG_SERVER);
    EXPECT_EQ(served, convert(t, L"unorm_bc1", cut.c_str(), 0));
    EXPECT_NE(served, convert(t, L"unorm_bc1", (cut + L"perceptual").c_str(), 0));
}

// A request naming a section that does not exist gets the exact error answer over the wire.
TEST_F(ServerRoute, MissingSectionAnswer) {
    const Texture t = noisyTexture(4, 4, 1, false, 5);
    ASSERT_FALSE(convert(t, L"unorm_bc4", L"", GLYPTORA_FLAG_SERVER).empty());  // starts the server
    ServerEndpoint endpoint;
    std::string error;
    ASSERT_TRUE(resolveServerEndpoint(endpoint, error)) << error;
    const auto lock = NamedLock::open(endpoint.transactionLockPath, error);
    ASSERT_TRUE(lock && lock->lock(error)) << error;
    bool noServer = false;
    const auto server = connectToServer(endpoint, noServer, error);
    ASSERT_TRUE(server) << error;
    const ServerRequest request{
        "HalvoranGlyptoraDstPixels_0", "HalvoranGlyptoraSrcPixels_0", "unorm_bc4", "unorm_8_8_8_8", "", 0x20, 0, 4, 4,
        1, 1, 0};
    RequestRecord record;
    ASSERT_TRUE(encodeRequestRecord(request, record, error));
    ASSERT_TRUE(server->send(record.data(), record.size(), error)) << error;
    char answer[512];
    const long size = server->receive(answer, sizeof answer, error);
    ASSERT_GT(size, 0) << error;
    EXPECT_EQ(std::string(answer, size_t(size)),
              "Cannot open file mapping: HalvoranGlyptoraDstPixels_0 (No such file or directory)");
}

// Started from a terminal, the server returns at once without opening its endpoint.
TEST_F(ServerRoute, LauncherOnATerminalReturnsAtOnce) {
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(terminal, 0);
    ASSERT_EQ(grantpt(terminal), 0);
    ASSERT_EQ(unlockpt(terminal), 0);
    const int input = open(ptsname(terminal), O_RDWR | O_NOCTTY);
    ASSERT_GE(input, 0);
    const int launcher =
        World::spawn({GLYPTORA_BINARY_DIR "/lib/glyptora-server"}, world.directory() + "/launcher.err", input);
    ASSERT_NE(launcher, 0);
    int status = -1;
    EXPECT_TRUE(World::waitForEnd(launcher, 10s, &status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(world.serverId(), 0);
    EXPECT_FALSE(world.socketExists());
    close(input);
    close(terminal);
}

// A server that cannot be started gives the error line at once: a copy of the library with
// no launcher beside it, then with one that ends without serving.
TEST_F(ServerRoute, ServerThatCannotStartGivesTheErrorLine) {
    const std::string alone = world.directory() + "/alone";
    std::filesystem::create_directory(alone);
    std::filesystem::copy_file(GLYPTORA_BINARY_DIR "/lib/libglyptora.so", alone + "/libglyptora.so");
    void* library = dlopen((alone + "/libglyptora.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_TRUE(library) << dlerror();
    const auto convertThere = reinterpret_cast<decltype(&GlyptoraConvert)>(dlsym(library, "GlyptoraConvert"));
    ASSERT_TRUE(convertThere);
    const Texture t = noisyTexture(4, 4, 1, false, 6);
    const struct {
        const char* launcher;  // script written as glyptora-server, or null for none
        std::string line;
    } cases[] = {
        {nullptr,
         "Error: Server does not respond (cannot start " + alone + "/glyptora-server: No such file or directory)\n"},
        {"#!/bin/sh\nexit 0\n", "Error: Server does not respond (the server process ended)\n"},
    };
    for (const auto& c : cases) {
        if (c.launcher) {
            std::ofstream(alone + "/glyptora-server") << c.launcher;
            std::filesystem::permissions(alone + "/glyptora-server", std::filesystem::perms::owner_all);
        }
        std::vector<uint8_t> blocks(8, 0xCD);
        testing::internal::CaptureStderr();
        EXPECT_EQ(convertThere(blocks.data(), t.pixels.data(), L"unorm_bc1", L"unorm_8_8_8_8", L"",
                               GLYPTORA_FLAG_SERVER, 0, 4, 4, 1, 1),
                  0u);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.line);
        EXPECT_EQ(blocks, std::vector<uint8_t>(8, 0xCD));
    }
    dlclose(library);
}
