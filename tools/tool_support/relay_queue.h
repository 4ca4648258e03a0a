// relay_queue: datagrams on their way through a bad network: which go on at once, which wait for others to overtake
// them, and which wait for a time.
//
// Times are points of any clock that runs evenly, in nanoseconds; the queue reads none itself.
//
// Threads    one thread.
// Ownership  owns the bytes of what waits.
#pragma once

#include "tools/tool_support/impairment.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <vector>

namespace corvalin::tools {

struct RelayCounts {
    uint64_t received = 0;
    uint64_t forwarded = 0; // duplicates included
    uint64_t lost = 0;
    uint64_t duplicated = 0;
    uint64_t reordered = 0; // waited for others; a datagram that has a delay is not reordered besides
    uint64_t delayed = 0;
};

class RelayQueue {
public:
    using Datagram = std::vector<uint8_t>;
    /// Where datagrams go on. The bytes are valid during the call.
    using Forward = std::function<void(const uint8_t* bytes, std::size_t size)>;

    /// `reorder_distance`: how many datagrams overtake one that is reordered. Requires: above 0.
    /// `reorder_limit_ns`: how long it waits for them at most, so that nothing stays behind when traffic ends.
    RelayQueue(uint64_t reorder_distance, uint64_t reorder_limit_ns, Forward forward)
        : m_reorder_distance(reorder_distance), m_reorder_limit_ns(reorder_limit_ns),
          m_forward(std::move(forward)) {}

    void on_datagram(const uint8_t* bytes, std::size_t size, const ImpairmentDecision& decision,
                     uint64_t now_ns);
    /// Lets go what has waited long enough.
    void release_due(uint64_t now_ns);
    /// When release_due has something to do next; UINT64_MAX if nothing waits.
    uint64_t next_due_ns() const noexcept;
    /// Lets everything go.
    void release_all();

    const RelayCounts& counts() const noexcept { return m_counts; }

private:
    struct Held {
        Datagram datagram;
        bool twice;
        uint64_t missing; // datagrams that are still to overtake it
        uint64_t limit_ns;
    };
    struct Delayed {
        Datagram datagram;
        bool twice;
    };

    void send(const uint8_t* bytes, std::size_t size, bool twice);
    void overtake();

    const uint64_t m_reorder_distance;
    const uint64_t m_reorder_limit_ns;
    const Forward m_forward;
    std::deque<Held> m_held;                    // oldest first, which is the order in which they go on
    std::multimap<uint64_t, Delayed> m_delayed; // by the time at which they go on; equal times in their order
    RelayCounts m_counts;
};

} // namespace corvalin::tools
