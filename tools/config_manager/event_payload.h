// event_payload: events as they lie on a Kafka topic.
//
// Source     one kind byte (0 for JSON) and the text, as one zlib stream (RFC 1950). A router inflates a payload to ten
//            times its size and refuses what does not fit.
// Threads    any.
// Errors     make_payload throws std::length_error for an event that no broker would take.
#pragma once

#include "tools/config_manager/node_list.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace corvalin::tools {

/// The largest payload that a broker takes with its default settings.
constexpr std::size_t PAYLOAD_MAX_BYTES = 999'964;
/// A router inflates a payload to this many times its size.
constexpr std::size_t INFLATION_LIMIT = 10;

/// Deflates the event, or stores it where deflating comes close to what routers refuse.
std::string make_payload(const std::string& json);

struct OpenedPayload {
    int kind = 0; // first byte of the frame; -1 if the frame is empty
    std::string text;
    bool is_accepted_by_routers = false; // inflates to no more than ten times its size
};

/// Inflates a payload of any ratio. Empty if it is no zlib stream.
std::optional<OpenedPayload> open_payload(const std::string& payload);

// The events of a configuration manager, as JSON.
std::string started_event();
std::string versions_event(const std::map<std::string, uint64_t>& versions);
std::string node_list_event(const std::string& name, uint64_t version, const NodeList& nodes);

} // namespace corvalin::tools
