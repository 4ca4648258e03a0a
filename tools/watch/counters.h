// counters: every counter of a statistic report, in the order of the report, with the names it has in the outputs.
//
// Threads    constants; any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace corvalin::watch {

/// Index of a counter. The order is that of the report's rows.
enum CounterId : std::size_t {
    SESSIONS,
    ZOMBIES,
    AUDIT_EXECUTIONS,
    SESSION_ALLOCATION_ERRORS,
    EXISTING_INDEX_ERRORS,
    UNKNOWN_INDEX_ERRORS,
    SEQUENCE_BREAKS,
    LOST_PACKETS,
    RING_ELEMENTS,
    RING_PASSED,
    RING_DROPPED,
    IDLE_HITS,
    DROPPED_MIN_LENGTH,
    DROPPED_MAX_LENGTH,
    DROPPED_FAILED_ALLOCATION,
    REJECTED_BAD_MARKER,
    REJECTED_VERSION,
    REJECTED_CORRUPTED_SIZE,
    REJECTED_UNKNOWN_TYPE,
    START_PACKETS,
    TERM_PACKETS,
    DATA_PACKETS,
    COUNTER_COUNT
};

using Values = std::array<uint64_t, COUNTER_COUNT>;

struct CounterInfo {
    const char* label;        // in the report, without the dots
    const char* key;          // in JSON
    const char* metric;       // name of the Prometheus metric; neighbours may share one
    const char* metric_label; // what tells neighbours apart, such as reason="version"; empty if alone
    const char* help;         // of the metric
    bool is_gauge;            // may fall; all others only grow until the router is started anew
};

extern const std::array<CounterInfo, COUNTER_COUNT> COUNTERS;

/// Characters of a row's label with its dots, its colon and its blank.
constexpr std::size_t LABEL_CHARS = 45;
/// "session number.............................: ".
std::string padded_label(const CounterInfo& counter);

} // namespace corvalin::watch
