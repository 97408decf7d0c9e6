#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "frontend/conversion_entry.h"
#include "server/request_handler.h"
#include "server/request_record.h"
#include "server/shared_section.h"

using namespace glyptora_internal;

namespace {

// Section names of this test process, apart from those a real client would use.
std::string sectionName(const char* kind) {
    return std::string("GlyptoraHandlerTest") + kind + std::to_string(getpid());
}

std::vector<uint8_t> gradient(int w, int h) {
    std::vector<uint8_t> pixels(size_t(w) * h * 4);
    for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = uint8_t(i * 37 + (i >> 6));
    return pixels;
}

std::string serve(const ServerRequest& request, size_t size = kRequestRecordSize) {
    RequestRecord record;
    std::string error;
    EXPECT_TRUE(encodeRequestRecord(request, record, error)) << error;
    return serveRequest(record.data(), size);
}

}  // namespace

// A request on real sections: the destination section receives exactly the in-process blocks.
TEST(RequestHandler, ConvertsSectionToSection) {
    const std::vector<uint8_t> pixels = gradient(16, 8);
    std::vector<uint8_t> expected(64);
    ASSERT_EQ(convertNarrow(expected.data(), pixels.data(), "unorm_bc1", "unorm_8_8_8_8", "fastest", 0, 0, 16, 8, 1, 1),
              Status::Ok);
    std::string error;
    const auto destination = SharedSection::create(sectionName("Dst"), 64, error);
    const auto source = SharedSection::create(sectionName("Src"), pixels.size(), error);
    ASSERT_TRUE(destination && source) << error;
    SectionView view;
    ASSERT_TRUE(source->map(true, view, error));
    std::memcpy(view.data(), pixels.data(), pixels.size());

    // Flag 0x20 comes along in every request; the server converts in its own process.
    const ServerRequest request{
        sectionName("Dst"), sectionName("Src"), "unorm_bc1", "unorm_8_8_8_8", "fastest", 0x20, 0, 16, 8, 1, 1,
        uint32_t(getpid())};
    ASSERT_EQ(serve(request), "Success");
    ASSERT_TRUE(destination->map(false, view, error));
    EXPECT_EQ(std::vector<uint8_t>(view.data(), view.data() + 64), expected);
}

// The exact answers for requests that cannot be served.
TEST(RequestHandler, ErrorAnswers) {
    std::string error;
    const auto destination = SharedSection::create(sectionName("Dst"), 64, error);
    const auto source = SharedSection::create(sectionName("Src"), 256, error);
    ASSERT_TRUE(destination && source) << error;
    const std::string missing = "HalvoranGlyptoraDstPixels_0";
    const ServerRequest good{
        sectionName("Dst"), sectionName("Src"), "unorm_bc1", "unorm_8_8_8_8", "", 0x20, 0, 8, 8, 1, 1, 0};
    const struct {
        std::string ServerRequest::*field;
        std::string value;
        uint32_t width, height;
        size_t recordSize;
        std::string answer;
    } cases[] = {
        {&ServerRequest::destinationSection, missing, 8, 8, 380,
         "Cannot open file mapping: " + missing + " (No such file or directory)"},
        {&ServerRequest::sourceSection, missing, 8, 8, 380,
         "Cannot open file mapping: " + missing + " (No such file or directory)"},
        {&ServerRequest::destinationFormat, "unorm_bc9", 8, 8, 380, "Cannot convert format"},
        {&ServerRequest::sourceFormat, "unorm_16_16_16_16", 8, 8, 380, "Cannot convert format"},
        {&ServerRequest::options, "", 24, 8, 380,
         "Section too small: " + sectionName("Dst") + " (64 bytes, 96 needed)"},
        {&ServerRequest::options, "", 8, 12, 380,
         "Section too small: " + sectionName("Src") + " (256 bytes, 384 needed)"},
        {&ServerRequest::options, "", 8, 8, 379, "Invalid request (request of 379 bytes, 380 expected)"},
        {&ServerRequest::options, "", 8, 8, 380, "Success"},
    };
    for (const auto& c : cases) {
        ServerRequest r = good;
        r.*c.field = c.value;
        r.width = c.width;
        r.height = c.height;
        EXPECT_EQ(serve(r, c.recordSize), c.answer);
    }
}
