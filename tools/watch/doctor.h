// doctor: says which layer lost packets, why, and what to do about it.
//
// Threads    free functions; any thread.
// Errors     never fails.
#pragma once

#include "tools/watch/ledger.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace corvalin::watch {

/// What is known of one router over the time that is judged.
struct Evidence {
    Values counts{};                      // growth; of a gauge the last value
    std::optional<uint64_t> kernel_drops; // growth; nothing if the socket was not seen
    bool kernel_drops_are_total = false;  // since the router opened its socket, whenever that was
    uint64_t kernel_queued_bytes = 0;
    uint64_t receive_buffer_bytes = 0; // 0: unknown
    LogEvents events;
    std::optional<double> silent_s; // since the last report, where reports are awaited
};

/// `since_start`: the totals of the router's life instead of the growth over the reports that were read. A single
/// report has no growth, and is judged by its totals.
Evidence evidence_of(const RouterRecord& router, const LogEvents& events, bool since_start);

enum class Layer { SENDER, KERNEL, RING, VALIDATION, SESSION, SEND, REPORT };
const char* layer_name(Layer layer);

struct Finding {
    Layer layer;
    const char* name; // stable, for scripts: "receive_buffer"
    uint64_t amount;  // of what `what` speaks of
    std::string what;
    std::string cause;
    std::string cure;
};

/// The findings in the order of the packet's road.
std::vector<Finding> diagnose(const Evidence& evidence);

} // namespace corvalin::watch
