// The assertion machinery: the report text, user and default handlers, and StringBuilder.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/assert.h"
#include "core/string_builder.h"
#include "recording_assert_handler.h"

using namespace glyptora_internal;

namespace {

std::string report(const char* exp, const char* file, int line, const char* func, const char* msg, ...) {
    StringBuilder out;
    va_list args;
    va_start(args, msg);
    formatAssertionReport(out, exp, file, line, func, msg, args);
    va_end(args);
    return out.str();
}

}  // namespace

TEST(AssertionReport, ThreeShapes) {
    EXPECT_EQ(report("a == b", "bits", 12, nullptr, nullptr),
              "*** Assertion failed: a == b\n    On file: bits\n    On line: 12\n");
    EXPECT_EQ(report("a == b", "bits", 12, "write", nullptr),
              "*** Assertion failed: a == b\n    On file: bits\n    On line: 12\n    On function: write\n");
    EXPECT_EQ(report("x", "astc_encoder", 7, "encode", "value %d of %s", 5, "ten"),
              "*** Assertion failed: x\n    On file: astc_encoder\n    On line: 7\n    On function: encode\n"
              "    Message: value 5 of ten\n");
}

TEST(AssertHandler, UserHandlerReceivesTheCall) {
    RecordingHandler handler;
    const int expectedLine = __LINE__ + 1;
    GLYPTORA_ASSERT_MSG(1 + 1 == 3, "sum was %d", 2);
    GLYPTORA_ASSERT(2 + 2 == 4);  // holds: no call
    ASSERT_EQ(handler.expressions, std::vector<std::string>{"1 + 1 == 3"});
    EXPECT_EQ(handler.files[0], "assert_test");
    EXPECT_EQ(handler.lines[0], expectedLine);
    EXPECT_NE(handler.functions[0].find("TestBody"), std::string::npos);
    EXPECT_EQ(handler.messages[0], "sum was 2");
}

TEST(AssertHandler, DefaultHandlerPrintsReportAndTraceAndContinues) {
#ifdef _WIN32
    GTEST_SKIP() << "the Windows handler asks in a message box";
#endif
    ASSERT_EQ(userAssertHandler(), nullptr);
    testing::internal::CaptureStdout();
    const int decision = reportAssertion("value > 0", "/src/core/thing.cpp", 42, "check", nullptr);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(decision, 2);  // no debugger attached: ignore and go on
    EXPECT_TRUE(out.starts_with("*** Assertion failed: value > 0\n    On file: thing\n    On line: 42\n"
                                "    On function: check\n"))
        << out;
    EXPECT_NE(out.find("\nDumping stacktrace:\n"), std::string::npos);
}

TEST(StringBuilder, GrowsBeyondItsHintAppendsCountedTextAndAssertsOnZeroHint) {
    StringBuilder text(4);
    text.append("%s-%d", "abcdefgh", 12345);
    text.append("xyz!", 3);
    EXPECT_EQ(std::string(text.str()), "abcdefgh-12345xyz");
    EXPECT_GE(text.capacity(), text.length() + 1);
    text.format("%c", 'q');
    EXPECT_EQ(std::string(text.str()), "q");

    RecordingHandler handler;
    StringBuilder zero(0);
    zero.append("ok");
    EXPECT_EQ(handler.expressions, std::vector<std::string>{"size_hint != 0"});
    EXPECT_EQ(std::string(zero.str()), "ok");
}
