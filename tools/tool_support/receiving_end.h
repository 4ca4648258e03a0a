// receiving_end: when a tool that receives datagrams ends: after a number of them, a pause, a time, or a stop signal.
//
// Threads    any thread.
#pragma once

#include <cstdint>

namespace corvalin::tools {

/// What has happened so far. Times are of steady_ns.
struct ReceivingProgress {
    uint64_t start_ns;
    uint64_t datagrams;
    uint64_t last_datagram_ns; // not looked at before the first one
};

/// Zero is no limit.
struct ReceivingEnd {
    uint64_t packets = 0;
    uint64_t idle_exit_ms = 0;
    double duration_s = 0;

    bool is_reached(const ReceivingProgress& progress, uint64_t now_ns) const;
    /// How long a wait may last without missing an end by time, or a signal that came just before it.
    uint64_t longest_wait_ms() const;
};

} // namespace corvalin::tools
