#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <tuple>

#include "server/idle_watchdog.h"
#include "server/request_record.h"
#include "server/system_error.h"

using namespace glyptora_internal;

namespace {

ServerRequest sampleRequest() {
    return {.destinationSection = "HalvoranGlyptoraDstPixels_4242", .sourceSection = "HalvoranGlyptoraSrcPixels_4242",
            .destinationFormat = "srgb_bc7", .sourceFormat = "unorm_8_8_8_8", .options = "production perceptual",
            .flags = 0x04030201, .dimension = 2, .width = 4096, .height = 0x00ABCDEF, .depth = 6, .mipCount = 13,
            .clientProcessId = 4242};
}

// Every field, for comparisons.
auto fields(const ServerRequest& r) {
    return std::tie(r.destinationSection, r.sourceSection, r.destinationFormat, r.sourceFormat, r.options, r.flags,
                    r.dimension, r.width, r.height, r.depth, r.mipCount, r.clientProcessId);
}

std::string textAt(const RequestRecord& record, size_t offset) {
    return reinterpret_cast<const char*>(record.data() + offset);
}

}  // namespace

// Every field at its offset, integers little-endian, the rest of each field zero.
TEST(RequestRecord, FieldsSitAtTheirOffsets) {
    RequestRecord record;
    std::string error;
    ASSERT_TRUE(encodeRequestRecord(sampleRequest(), record, error));
    EXPECT_EQ(textAt(record, 0), "HalvoranGlyptoraDstPixels_4242");
    EXPECT_EQ(textAt(record, 128), "HalvoranGlyptoraSrcPixels_4242");
    EXPECT_EQ(textAt(record, 256), "srgb_bc7");
    EXPECT_EQ(textAt(record, 288), "unorm_8_8_8_8");
    EXPECT_EQ(textAt(record, 320), "production perceptual");
    const uint8_t integers[28] = {1,    2, 3, 4, 2, 0, 0,  0, 0, 16, 0,    0,    0xEF, 0xCD,
                                  0xAB, 0, 6, 0, 0, 0, 13, 0, 0, 0,  0x92, 0x10, 0,    0};
    EXPECT_EQ(std::memcmp(record.data() + 352, integers, 28), 0);
    for (size_t i = 256 + 8; i < 288; ++i) EXPECT_EQ(record[i], 0) << i;

    ServerRequest parsed;
    ASSERT_TRUE(parseRequestRecord(record.data(), record.size(), parsed, error));
    const ServerRequest r = sampleRequest();
    EXPECT_EQ(fields(parsed), fields(r));
}

// Names and formats go in whole or not at all; options are cut to 31 characters.
TEST(RequestRecord, BoundedCopies) {
    const struct {
        std::string ServerRequest::*field;
        size_t length;
        bool fits;
    } cases[] = {
        {&ServerRequest::destinationFormat, 31, true},   {&ServerRequest::destinationFormat, 32, false},
        {&ServerRequest::sourceFormat, 31, true},        {&ServerRequest::sourceFormat, 40, false},
        {&ServerRequest::destinationSection, 127, true}, {&ServerRequest::destinationSection, 128, false},
        {&ServerRequest::sourceSection, 127, true},      {&ServerRequest::sourceSection, 128, false},
        {&ServerRequest::options, 200, true},
    };
    for (const auto& c : cases) {
        ServerRequest r = sampleRequest();
        r.*c.field = std::string(c.length, 'a');
        RequestRecord record;
        std::string error;
        EXPECT_EQ(encodeRequestRecord(r, record, error), c.fits) << c.length;
        EXPECT_EQ(error.find("does not fit the request") != std::string::npos, !c.fits) << error;
    }
    ServerRequest r = sampleRequest();
    r.options = "fastest" + std::string(24, ' ') + "perceptual";
    RequestRecord record;
    std::string error;
    ASSERT_TRUE(encodeRequestRecord(r, record, error));
    EXPECT_EQ(textAt(record, 320), "fastest" + std::string(24, ' '));
}

// The parser refuses short records and text fields without their zero; longer records are
// read up to 380 bytes.
TEST(RequestRecord, ParserRefusesMalformedRecords) {
    RequestRecord good;
    std::string error;
    ASSERT_TRUE(encodeRequestRecord(sampleRequest(), good, error));
    const struct {
        size_t fillFrom, fillBytes, size;
        const char* reason;
    } cases[] = {
        {0, 0, 379, "request of 379 bytes, 380 expected"},
        {0, 0, 0, "request of 0 bytes, 380 expected"},
        {0, 128, 380, "destination section name is not terminated within its 128 bytes"},
        {128, 128, 380, "source section name is not terminated within its 128 bytes"},
        {256, 32, 380, "destination format is not terminated within its 32 bytes"},
        {288, 32, 380, "source format is not terminated within its 32 bytes"},
        {320, 32, 380, "options is not terminated within its 32 bytes"},
        {352, 28, 400, nullptr},  // integers may hold anything; bytes past 380 are ignored
    };
    for (const auto& c : cases) {
        uint8_t bytes[400] = {};
        std::memcpy(bytes, good.data(), good.size());
        std::memset(bytes + c.fillFrom, 'x', c.fillBytes);
        ServerRequest parsed;
        error.clear();
        EXPECT_EQ(parseRequestRecord(bytes, c.size, parsed, error), c.reason == nullptr);
        EXPECT_EQ(error, c.reason ? c.reason : "");
    }
}

TEST(IdleTimeout, ReadFromTheEnvironmentText) {
    const struct {
        const char* text;
        bool infinite;
        uint32_t milliseconds;
    } cases[] = {
        {nullptr, false, 20000}, {"", false, 20000},    {"INFINITE", true, 20000}, {"infinite", false, 0},
        {"0", false, 0},         {"1500", false, 1500}, {"250ms", false, 250},     {"99999999999", false, UINT32_MAX},
    };
    for (const auto& c : cases) {
        const IdleTimeout t = parseIdleTimeout(c.text);
        EXPECT_EQ(t.infinite, c.infinite) << (c.text ? c.text : "(unset)");
        if (!c.infinite) {
            EXPECT_EQ(t.milliseconds, c.milliseconds) << (c.text ? c.text : "(unset)");
        }
    }
}

#ifndef _WIN32  // errno texts; tests/windows/server_win32_test.cpp has the Windows ones
TEST(SystemErrorText, MessageOrHexCode) {
    EXPECT_EQ(systemErrorText(ENOENT), "No such file or directory");
    EXPECT_EQ(systemErrorText(123456), "0x0001E240");
}
#endif
