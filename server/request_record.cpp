#include "server/request_record.h"

#include <algorithm>
#include <cstring>

namespace glyptora_internal {

namespace {

using namespace request_layout;

// Copies `text` with its zero into the field; false when it does not fit.
bool copyWhole(const std::string& text, uint8_t* field, size_t fieldBytes) {
    if (text.size() >= fieldBytes || text.find('\0') != std::string::npos) return false;
    std::memcpy(field, text.data(), text.size());
    return true;
}

void putInteger(uint8_t* at, uint32_t value) {
    for (int i = 0; i < 4; ++i) at[i] = uint8_t(value >> (8 * i));
}

uint32_t getInteger(const uint8_t* at) {
    return uint32_t(at[0]) | uint32_t(at[1]) << 8 | uint32_t(at[2]) << 16 | uint32_t(at[3]) << 24;
}

bool getText(const uint8_t* bytes, size_t offset, size_t fieldBytes, const char* field, std::string& text,
             std::string& error) {
    const void* end = std::memchr(bytes + offset, 0, fieldBytes);
    if (!end) {
        error = std::string(field) + " is not terminated within its " + std::to_string(fieldBytes) + " bytes";
        return false;
    }
    text.assign(reinterpret_cast<const char*>(bytes + offset), static_cast<const uint8_t*>(end) - (bytes + offset));
    return true;
}

}  // namespace

bool encodeRequestRecord(const ServerRequest& r, RequestRecord& record, std::string& error) {
    record.fill(0);
    uint8_t* out = record.data();
    const struct {
        const std::string& text;
        size_t offset, bytes;
        const char* field;
    } whole[] = {
        {r.destinationSection, kDestinationSection, kSectionNameBytes, "Destination section name"},
        {r.sourceSection, kSourceSection, kSectionNameBytes, "Source section name"},
        {r.destinationFormat, kDestinationFormat, kTextBytes, "Destination format"},
        {r.sourceFormat, kSourceFormat, kTextBytes, "Source format"},
    };
    for (const auto& w : whole)
        if (!copyWhole(w.text, out + w.offset, w.bytes)) {
            error = std::string(w.field) + " does not fit the request: \"" + w.text + "\" (at most " +
                    std::to_string(w.bytes - 1) + " characters)";
            return false;
        }
    const std::string options = r.options.substr(0, std::min(r.options.find('\0'), kTextBytes - 1));
    std::memcpy(out + kOptions, options.data(), options.size());
    const uint32_t integers[] = {r.flags, r.dimension, r.width, r.height, r.depth, r.mipCount, r.clientProcessId};
    for (size_t i = 0; i < 7; ++i) putInteger(out + kIntegers + 4 * i, integers[i]);
    return true;
}

bool parseRequestRecord(const uint8_t* bytes, size_t size, ServerRequest& r, std::string& error) {
    if (size < kRequestRecordSize) {
        error = "request of " + std::to_string(size) + " bytes, " + std::to_string(kRequestRecordSize) + " expected";
        return false;
    }
    if (!getText(bytes, kDestinationSection, kSectionNameBytes, "destination section name", r.destinationSection,
                 error) ||
        !getText(bytes, kSourceSection, kSectionNameBytes, "source section name", r.sourceSection, error) ||
        !getText(bytes, kDestinationFormat, kTextBytes, "destination format", r.destinationFormat, error) ||
        !getText(bytes, kSourceFormat, kTextBytes, "source format", r.sourceFormat, error) ||
        !getText(bytes, kOptions, kTextBytes, "options", r.options, error))
        return false;
    uint32_t* integers[] = {&r.flags, &r.dimension, &r.width, &r.height, &r.depth, &r.mipCount, &r.clientProcessId};
    for (size_t i = 0; i < 7; ++i) *integers[i] = getInteger(bytes + kIntegers + 4 * i);
    return true;
}

}  // namespace glyptora_internal
