// event_frame: the bytes of a message between router and configuration manager, built and read without the
// router's own code, so that a test of that code does not compare it with itself.
//
// Errors     reading throws std::runtime_error if the bytes are not what they should be.
#pragma once

#include "tests/support/packet_builder.h"

#include <cstdint>
#include <string>

namespace corvalin::test {

constexpr uint8_t JSON_EVENT = 0;
constexpr uint8_t BINARY_EVENT = 1;

/// What zlib calls its default.
constexpr int DEFAULT_LEVEL = -1;

/// A kind byte and the body.
Bytes event_frame(uint8_t kind, const std::string& body);

/// One zlib stream. Level 0 stores, level 9 deflates best.
Bytes zlib_stream(const Bytes& content, int level = DEFAULT_LEVEL);
/// The content of exactly one zlib stream, of whatever size.
Bytes zlib_content(const Bytes& stream);

/// A JSON event as it travels: the stream of a frame of kind 0.
Bytes json_payload(const std::string& json, int level = DEFAULT_LEVEL);
/// The text of a JSON event that has travelled.
std::string json_of(const Bytes& payload);

} // namespace corvalin::test
