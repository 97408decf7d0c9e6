#pragma once
// What the server does with one request: open and map the two sections it names, convert
// in this process, and answer.
#include <cstddef>
#include <cstdint>
#include <string>

namespace glyptora_internal {

// Serves the request record of `size` bytes and returns the answer: "Success" when the
// destination section holds the result, otherwise one line saying what failed, such as
// "Cannot open file mapping: <name> (<system error>)" or "Cannot convert format".
std::string serveRequest(const uint8_t* record, size_t size);

}  // namespace glyptora_internal
