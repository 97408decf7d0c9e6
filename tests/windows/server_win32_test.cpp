// The Win32 conversion server and client: real rundll32 server processes started by
// Glyptora.dll, the named pipe, the mutex and paging-file sections, and the answers of the
// request handler. Under wine the pipe and mutex names are those of the wine prefix.
#include <windows.h>
// Process snapshots need the declarations of windows.h first.
#include <tlhelp32.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "glyptora.h"
#include "server/request_handler.h"
#include "server/request_record.h"
#include "server/shared_section.h"
#include "server/system_error.h"

using namespace glyptora_internal;
using namespace std::chrono_literals;

namespace {

constexpr char kPipe[] = "\\\\.\\Pipe\\HalvoranGlyptora";

// True while a server lives: its pipe exists (asked without connecting, which would use up
// the server's instance), or the event it keeps open for its lifetime, which also covers the
// moments between two pipe instances.
bool serverListening() {
    if (WaitNamedPipeA(kPipe, 1) || GetLastError() != ERROR_FILE_NOT_FOUND) return true;
    const HANDLE alive = OpenEventA(SYNCHRONIZE, FALSE, "HalvoranGlyptoraServer");
    if (alive) CloseHandle(alive);
    return alive != nullptr;
}

// Ids of the running rundll32.exe processes (a snapshot shows names, not command lines; the
// test starts no rundll32.exe of its own).
std::vector<DWORD> rundll32Processes() {
    std::vector<DWORD> ids;
    const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    if (snapshot == INVALID_HANDLE_VALUE) return ids;
    PROCESSENTRY32 entry{};
    entry.dwSize = sizeof entry;
    for (BOOL more = Process32First(snapshot, &entry); more; more = Process32Next(snapshot, &entry))
        if (_stricmp(entry.szExeFile, "rundll32.exe") == 0) ids.push_back(entry.th32ProcessID);
    CloseHandle(snapshot);
    return ids;
}

template <typename Condition>
bool waitFor(Condition condition, std::chrono::milliseconds limit) {
    const auto giveUp = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > giveUp) return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

std::vector<uint8_t> noise(size_t bytes, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<uint8_t> pixels(bytes);
    for (uint8_t& p : pixels) p = uint8_t(random());
    return pixels;
}

// The blocks of one conversion of a 32 x 16 texture, empty when it failed.
std::vector<uint8_t> convert(const std::vector<uint8_t>& pixels, const wchar_t* format, size_t bytes, uint32_t flags,
                             const wchar_t* options = L"normal") {
    std::vector<uint8_t> out(bytes, 0xCD);
    if (!GlyptoraConvert(out.data(), pixels.data(), format, L"unorm_8_8_8_8", options, flags, 0, 32, 16, 1, 1))
        out.clear();
    return out;
}

std::string serve(const ServerRequest& request) {
    RequestRecord record;
    std::string error;
    EXPECT_TRUE(encodeRequestRecord(request, record, error)) << error;
    return serveRequest(record.data(), record.size());
}

class Win32Server : public testing::Test {
protected:
    // Servers of this test end one second after their last client.
    void SetUp() override {
        _putenv_s("HALVORAN_GLYPTORA_PROCESS_TIMEOUT", "1000");
        // A server left by an earlier run (with another time-out) ends by itself first.
        ASSERT_TRUE(waitFor([] { return !serverListening(); }, 60s));
    }
};

}  // namespace

TEST(Win32SystemErrorText, SystemTextTrimmedOrHexCode) {
    const std::string text = systemErrorText(ERROR_FILE_NOT_FOUND);
    ASSERT_FALSE(text.empty());
    EXPECT_NE(text, "0x00000002");
    EXPECT_EQ(text.find_first_of("\r\n"), std::string::npos) << text;
    EXPECT_NE(text.back(), ' ');
    EXPECT_EQ(systemErrorText(0x2000FFFF), "0x2000FFFF");  // a customer code the system has no text for
    SetLastError(ERROR_ACCESS_DENIED);
    EXPECT_EQ(lastSystemErrorText(), systemErrorText(ERROR_ACCESS_DENIED));
}

// The handler on real paging-file sections, and its lines for sections that do not exist.
TEST(Win32RequestHandler, ConvertsSectionsAndNamesMissingOnes) {
    const std::vector<uint8_t> pixels = noise(32 * 16 * 4, 1);
    const std::vector<uint8_t> expected = convert(pixels, L"unorm_bc1", 8 * 4 * 8, 0);
    const std::string dst = "GlyptoraWin32TestDst", src = "GlyptoraWin32TestSrc";
    std::string error;
    const auto destination = SharedSection::create(dst, expected.size(), error);
    const auto source = SharedSection::create(src, pixels.size(), error);
    ASSERT_TRUE(destination && source) << error;
    EXPECT_EQ(SharedSection::create(dst, 64, error), nullptr);  // the name is taken
    SectionView view;
    ASSERT_TRUE(source->map(true, view, error)) << error;
    std::memcpy(view.data(), pixels.data(), pixels.size());

    ServerRequest request{dst, src, "unorm_bc1", "unorm_8_8_8_8", "normal", 0x20, 0, 32, 16, 1, 1, 0};
    ASSERT_EQ(serve(request), "Success");
    ASSERT_TRUE(destination->map(false, view, error)) << error;
    EXPECT_EQ(std::vector<uint8_t>(view.data(), view.data() + expected.size()), expected);

    const std::string missing = "HalvoranGlyptoraDstPixels_0";
    const std::string notFound = " (" + systemErrorText(ERROR_FILE_NOT_FOUND) + ")";
    ServerRequest r = request;
    r.destinationSection = missing;
    EXPECT_EQ(serve(r), "Cannot open file mapping: " + missing + notFound);
    r = request;
    r.sourceSection = missing;
    EXPECT_EQ(serve(r), "Cannot open file mapping: " + missing + notFound);
    r = request;
    r.destinationFormat = "unorm_bc9";
    EXPECT_EQ(serve(r), "Cannot convert format");
}

// Flag 32 starts the server through rundll32, gets the in-process blocks, serves other
// processes too, ends after its idle time and starts again for the next request.
TEST_F(Win32Server, StartsServesEndsAndRestarts) {
    const std::vector<uint8_t> pixels = noise(32 * 16 * 4, 2);
    const std::vector<DWORD> before = rundll32Processes();
    const struct {
        const wchar_t* format;
        size_t bytes;
    } formats[] = {{L"unorm_bc1", 8 * 4 * 8}, {L"unorm_bc3", 8 * 4 * 16}, {L"snorm_bc5", 8 * 4 * 16},
                   {L"unorm_bc7", 8 * 4 * 16}, {L"unorm_astc_6x6", 6 * 3 * 16}};
    for (const auto& f : formats) {
        const std::vector<uint8_t> inProcess = convert(pixels, f.format, f.bytes, 0);
        ASSERT_FALSE(inProcess.empty());
        EXPECT_EQ(convert(pixels, f.format, f.bytes, GLYPTORA_FLAG_SERVER), inProcess) << f.format;
    }
    EXPECT_TRUE(serverListening());
    const std::vector<DWORD> during = rundll32Processes();
    EXPECT_EQ(during.size(), before.size() + 1) << "one rundll32.exe server";

    // Two client processes at once, queued on the mutex, each checking its blocks.
    PROCESS_INFORMATION clients[2]{};
    for (int i = 0; i < 2; ++i) {
        std::string command = "\"" GLYPTORA_SERVER_TEST_CLIENT "\" repeat 6 " + std::to_string(10 + i);
        STARTUPINFOA startup{};
        startup.cb = sizeof startup;
        ASSERT_TRUE(CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                                   &clients[i]));
    }
    for (PROCESS_INFORMATION& client : clients) {
        ASSERT_EQ(WaitForSingleObject(client.hProcess, 120000), WAIT_OBJECT_0);
        DWORD code = 99;
        GetExitCodeProcess(client.hProcess, &code);
        EXPECT_EQ(code, 0u);
        CloseHandle(client.hThread);
        CloseHandle(client.hProcess);
    }
    EXPECT_EQ(rundll32Processes().size(), before.size() + 1) << "still the same server";

    // Idle for its second: the pipe goes and the process ends.
    EXPECT_TRUE(waitFor([] { return !serverListening(); }, 20s));
    EXPECT_TRUE(waitFor([&] { return rundll32Processes().size() == before.size(); }, 20s));

    // The next request starts a new one.
    const std::vector<uint8_t> again = convert(pixels, L"unorm_bc1", 8 * 4 * 8, GLYPTORA_FLAG_SERVER, L"fastest");
    EXPECT_EQ(again, convert(pixels, L"unorm_bc1", 8 * 4 * 8, 0, L"fastest"));
    EXPECT_TRUE(serverListening());
    EXPECT_TRUE(waitFor([] { return !serverListening(); }, 20s));
}

// A time-out of 0: the server ends as soon as its client has left.
TEST_F(Win32Server, TimeOutZeroEndsAtOnce) {
    _putenv_s("HALVORAN_GLYPTORA_PROCESS_TIMEOUT", "0");
    const std::vector<uint8_t> pixels = noise(32 * 16 * 4, 4);
    EXPECT_EQ(convert(pixels, L"unorm_bc4", 8 * 4 * 8, GLYPTORA_FLAG_SERVER), convert(pixels, L"unorm_bc4", 8 * 4 * 8, 0));
    EXPECT_TRUE(waitFor([] { return !serverListening(); }, 5s));
}

// Requests that cannot go to the server fail in the client, which leaves the destination alone.
TEST_F(Win32Server, ClientRefusals) {
    const std::vector<uint8_t> pixels = noise(32 * 16 * 4, 3);
    EXPECT_TRUE(convert(pixels, L"unorm_8_8_8_8", 32 * 16 * 4, GLYPTORA_FLAG_SERVER).empty());  // not a block format
    // A source format that is not one of the four is refused before any server is asked.
    std::vector<uint8_t> out(8 * 4 * 8, 0xCD);
    EXPECT_EQ(GlyptoraConvert(out.data(), pixels.data(), L"unorm_bc1", L"unorm_8_8_8_8_and_32_characters_",
                              L"normal", GLYPTORA_FLAG_SERVER, 0, 32, 16, 1, 1),
              0u);
    EXPECT_EQ(out, std::vector<uint8_t>(8 * 4 * 8, 0xCD));
    EXPECT_FALSE(serverListening());  // none of them needed a server
}
