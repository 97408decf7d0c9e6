// Fuzzes what the conversion server does with the 380-byte request records it receives:
//  - the parser on the raw bytes: it accepts exactly the records of 380 bytes or more whose
//    five text fields end within their fields, reads every field at its offset, and what it
//    reads encodes back to a record that parses to the same request;
//  - the encoder on fuzzed fields: it refuses exactly the names and formats that do not fit;
//  - the whole request handler on a parsed record whose section names are pointed at two
//    sections this process made (or at a missing one), of fuzzed sizes: it answers one line,
//    answers "Success" only when both sections hold what the size rule says, and writes
//    nothing of the destination section beyond that size.
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "fuzz_assertions.h"
#include "server/request_handler.h"
#include "server/request_record.h"
#include "server/shared_section.h"
#include "size_rule.h"

using namespace glyptora_fuzz;
using namespace glyptora_internal;
using namespace glyptora_internal::request_layout;

namespace {

uint32_t littleEndian(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

bool sameRequest(const ServerRequest& a, const ServerRequest& b) {
    return a.destinationSection == b.destinationSection && a.sourceSection == b.sourceSection &&
           a.destinationFormat == b.destinationFormat && a.sourceFormat == b.sourceFormat && a.options == b.options &&
           a.flags == b.flags && a.dimension == b.dimension && a.width == b.width && a.height == b.height &&
           a.depth == b.depth && a.mipCount == b.mipCount && a.clientProcessId == b.clientProcessId;
}

void checkParser(const uint8_t* data, size_t size) {
    const struct {
        size_t offset, bytes;
        std::string ServerRequest::*field;
    } texts[] = {{kDestinationSection, kSectionNameBytes, &ServerRequest::destinationSection},
                 {kSourceSection, kSectionNameBytes, &ServerRequest::sourceSection},
                 {kDestinationFormat, kTextBytes, &ServerRequest::destinationFormat},
                 {kSourceFormat, kTextBytes, &ServerRequest::sourceFormat},
                 {kOptions, kTextBytes, &ServerRequest::options}};
    bool wellFormed = size >= kRequestRecordSize;
    for (const auto& t : texts)
        wellFormed = wellFormed && std::memchr(data + t.offset, 0, t.bytes) != nullptr;

    ServerRequest r;
    std::string error;
    const bool parsed = parseRequestRecord(data, size, r, error);
    FUZZ_CHECK(parsed == wellFormed);
    if (!parsed) {
        FUZZ_CHECK(!error.empty() && error.find('\n') == std::string::npos);
        return;
    }
    for (const auto& t : texts) FUZZ_CHECK(r.*t.field == reinterpret_cast<const char*>(data + t.offset));
    const uint32_t integers[] = {r.flags, r.dimension, r.width, r.height, r.depth, r.mipCount, r.clientProcessId};
    for (size_t i = 0; i < 7; ++i) FUZZ_CHECK(integers[i] == littleEndian(data + kIntegers + 4 * i));

    RequestRecord again;
    FUZZ_CHECK(encodeRequestRecord(r, again, error));
    ServerRequest back;
    FUZZ_CHECK(parseRequestRecord(again.data(), again.size(), back, error) && sameRequest(back, r));
}

void checkEncoder(FuzzedDataProvider& in) {
    ServerRequest r;
    r.destinationSection = in.ConsumeRandomLengthString(140);
    r.sourceSection = in.ConsumeRandomLengthString(140);
    r.destinationFormat = in.ConsumeRandomLengthString(40);
    r.sourceFormat = in.ConsumeRandomLengthString(40);
    r.options = in.ConsumeRandomLengthString(40);
    r.flags = in.ConsumeIntegral<uint32_t>();
    r.width = in.ConsumeIntegral<uint32_t>();
    r.mipCount = in.ConsumeIntegral<uint32_t>();
    r.clientProcessId = in.ConsumeIntegral<uint32_t>();
    auto fits = [](const std::string& s, size_t bytes) { return s.size() < bytes && s.find('\0') == std::string::npos; };
    const bool fit = fits(r.destinationSection, kSectionNameBytes) && fits(r.sourceSection, kSectionNameBytes) &&
                     fits(r.destinationFormat, kTextBytes) && fits(r.sourceFormat, kTextBytes);
    RequestRecord record;
    std::string error;
    FUZZ_CHECK(encodeRequestRecord(r, record, error) == fit);
    if (!fit) {
        FUZZ_CHECK(!error.empty());
        return;
    }
    ServerRequest back;
    FUZZ_CHECK(parseRequestRecord(record.data(), record.size(), back, error));
    FUZZ_CHECK(back.options == r.options.substr(0, std::min(r.options.find('\0'), kTextBytes - 1)));
    back.options = r.options;
    FUZZ_CHECK(sameRequest(back, r));
}

// Bytes of the request's source and destination by the size rule (kHuge when beyond reach).
void requestSizes(const ServerRequest& r, uint64_t& sourceBytes, uint64_t& destinationBytes) {
    const BlockFormat f = decodeDestination(r.destinationFormat);
    const uint64_t pixels = chainUnits(1, 1, r.dimension, r.width, r.height, r.depth, r.mipCount);
    const uint64_t blocks =
        f.code == 31 ? 0 : chainUnits(f.blockWidth, f.blockHeight, r.dimension, r.width, r.height, r.depth, r.mipCount);
    sourceBytes = pixels >= kHuge / 16 ? kHuge : pixels * (floatSource(r.sourceFormat) ? 16 : 4);
    destinationBytes = blocks >= kHuge / 16 ? kHuge : blocks * uint64_t(f.blockBytes);
}

void checkHandler(const uint8_t* data, FuzzedDataProvider& in) {
    ServerRequest r;
    std::string error;
    if (!parseRequestRecord(data, kRequestRecordSize, r, error)) return;
    const std::string prefix = "GlyptoraFuzz" + std::to_string(getpid());
    const int which = in.ConsumeIntegralInRange(0, 3);
    // A source of at most 2 KiB keeps every conversion short, whatever its format and quality.
    const uint64_t destinationSize = in.ConsumeIntegralInRange<uint64_t>(0, 1 << 16);
    const uint64_t sourceSize = in.ConsumeIntegralInRange<uint64_t>(0, 1 << 11);
    const auto destination = SharedSection::create(prefix + "Dst", destinationSize, error);
    const auto source = SharedSection::create(prefix + "Src", sourceSize, error);
    FUZZ_CHECK(destination && source);
    SectionView destinationView, sourceView;
    FUZZ_CHECK(destination->map(true, destinationView, error) && source->map(true, sourceView, error));
    constexpr uint8_t kFill = 0x5A;
    if (destinationSize) std::memset(destinationView.data(), kFill, destinationSize);
    const std::vector<uint8_t> pixels = in.ConsumeRemainingBytes<uint8_t>();
    for (uint64_t i = 0; i < sourceSize; ++i) sourceView.data()[i] = pixels.empty() ? 0 : pixels[i % pixels.size()];

    r.destinationSection = which & 1 ? prefix + "Dst" : prefix + "Missing";
    r.sourceSection = which & 2 ? prefix + "Src" : prefix + "Missing";
    RequestRecord record;
    FUZZ_CHECK(encodeRequestRecord(r, record, error));
    const std::string answer = serveRequest(record.data(), record.size());
    FUZZ_CHECK(!answer.empty() && answer.find('\n') == std::string::npos);
    if (answer != "Success") {
        FUZZ_CHECK(holdsOnly(destinationView.data(), destinationSize, kFill));
        return;
    }
    uint64_t sourceBytes = 0, destinationBytes = 0;
    requestSizes(r, sourceBytes, destinationBytes);
    FUZZ_CHECK(which == 3 && sourceBytes <= sourceSize && destinationBytes <= destinationSize);
    FUZZ_CHECK(holdsOnly(destinationView.data() + destinationBytes, destinationSize - destinationBytes, kFill));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    checkParser(data, size);
    FuzzedDataProvider encoderInput(data, size);
    checkEncoder(encoderInput);
    if (size >= kRequestRecordSize) {
        FuzzedDataProvider handlerInput(data + kRequestRecordSize, size - kRequestRecordSize);
        checkHandler(data, handlerInput);
    }
    return 0;
}
