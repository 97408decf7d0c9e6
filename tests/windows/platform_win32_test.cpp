// The Windows twins of the platform interfaces that the server test does not reach: wide
// strings in the ANSI code page, run-time loading, the debugger check and the stack walk.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "core/debugger.h"
#include "core/stack_trace.h"
#include "frontend/wide_string.h"
#include "gpu/dynamic_library.h"
#include "server/process_control.h"

using namespace glyptora_internal;

TEST(Win32WideString, AnsiCodePage) {
    EXPECT_EQ(narrowString(L""), "");
    EXPECT_EQ(narrowString(L"unorm_astc_10x10"), "unorm_astc_10x10");
    if (GetACP() == 1252) {
        EXPECT_EQ(narrowString(L"caf\u00e9"), "caf\xe9");
        EXPECT_EQ(narrowString(L"\u4e2d"), "?");  // not in the code page
    }
}

TEST(Win32DynamicLibrary, LoadsAndLooksUp) {
    EXPECT_STREQ(defaultCudaDriverLibraryName(), "nvcuda.dll");
    EXPECT_EQ(DynamicLibrary::open("no_such_library_here.dll"), nullptr);
    DynamicLibrary* kernel = DynamicLibrary::open("kernel32.dll");
    ASSERT_NE(kernel, nullptr);
    EXPECT_NE(kernel->symbol("GetTickCount"), nullptr);
    EXPECT_EQ(kernel->symbol("NoSuchExport"), nullptr);
    delete kernel;
}

TEST(Win32Process, SelfAndModule) {
    EXPECT_EQ(currentProcessId(), int(GetCurrentProcessId()));
    EXPECT_TRUE(processIsRunning(currentProcessId()));
    EXPECT_FALSE(processIsRunning(0));
    bool isMain = false;
    const std::string module = moduleHoldingThisCode(&isMain);
    EXPECT_TRUE(isMain);  // linked statically into this test program
    EXPECT_NE(module.find("platform_win32_test.exe"), std::string::npos) << module;
    EXPECT_FALSE(isDebuggerAttached());
}

TEST(Win32StackTrace, HeaderThenFramesOfThisProgram) {
    testing::internal::CaptureStdout();
    printStackTrace(0);
    const std::string out = testing::internal::GetCapturedStdout();
    ASSERT_EQ(out.rfind("\nDumping stacktrace:\n", 0), 0u) << out;
    // Frames appear as "file(line) : symbol" while dbghelp finds debug information; each line
    // has that shape.
    size_t at = out.find('\n', 1) + 1;
    while (at < out.size()) {
        const size_t end = out.find('\n', at);
        const std::string line = out.substr(at, end - at);
        EXPECT_NE(line.find(") : "), std::string::npos) << line;
        at = end + 1;
    }
}
