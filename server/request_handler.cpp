#include "server/request_handler.h"

#include <exception>

#include "frontend/in_process_conversion.h"
#include "frontend/request_decoding.h"
#include "server/request_record.h"
#include "server/shared_section.h"

namespace glyptora_internal {

namespace {

constexpr char kCannotConvert[] = "Cannot convert format";

// The sections must hold what the request says, or the conversion would read or write past
// their ends.
std::string checkSectionSize(const std::string& name, uint64_t has, uint64_t needs) {
    if (has >= needs) return std::string();
    return "Section too small: " + name + " (" + std::to_string(has) + " bytes, " + std::to_string(needs) + " needed)";
}

std::string convertSections(const ServerRequest& r, const SectionView& destination, const SectionView& source) {
    ConversionRequest request;
    // The request came through the server route; here it is converted in process.
    if (decodeConversionRequest(r.destinationFormat.c_str(), r.sourceFormat.c_str(), r.options.c_str(),
                                r.flags & ~uint32_t(kFlagServer), r.dimension, r.width, r.height, r.depth, r.mipCount,
                                request) != Status::Ok)
        return kCannotConvert;
    const uint64_t destinationBytes = request.totalTiles * uint64_t(request.format->blockBytes());
    std::string tooSmall = checkSectionSize(r.destinationSection, destination.size(), destinationBytes);
    if (tooSmall.empty()) tooSmall = checkSectionSize(r.sourceSection, source.size(), request.sourceBytes);
    if (!tooSmall.empty()) return tooSmall;
    return convertInProcess(request, destination.data(), source.data()) == Status::Ok ? "Success" : kCannotConvert;
}

}  // namespace

std::string serveRequest(const uint8_t* record, size_t size) {
    try {
        ServerRequest r;
        std::string error;
        if (!parseRequestRecord(record, size, r, error)) return "Invalid request (" + error + ")";
        const auto destination = SharedSection::open(r.destinationSection, true, error);
        if (!destination) return "Cannot open file mapping: " + r.destinationSection + " (" + error + ")";
        const auto source = SharedSection::open(r.sourceSection, false, error);
        if (!source) return "Cannot open file mapping: " + r.sourceSection + " (" + error + ")";
        SectionView destinationView, sourceView;
        if (!destination->map(true, destinationView, error))
            return "Cannot map view of destination file (" + error + ")";
        if (!source->map(false, sourceView, error)) return "Cannot map view of source file (" + error + ")";
        return convertSections(r, destinationView, sourceView);
    } catch (const std::exception&) {
        return kCannotConvert;  // out of memory, mostly; the server goes on
    }
}

}  // namespace glyptora_internal
