// pacer: when packets are due, so that their rate is right over any time.
//
// The times are points of any clock that runs evenly, in nanoseconds; the pacer reads none itself. Packet i is
// due i / rate seconds after the start, in bursts rounded down to the start of its interval, so that packets of
// one interval are due together. A caller that was kept from running gets all that fell due meanwhile at
// once, up to a limit: beyond it the schedule moves on, because a flood of old packets would measure the
// receiver's buffer and not its speed.
//
// Threads    one thread.
#pragma once

#include <cstdint>

namespace corvalin::tools {

class Pacer {
public:
    /// `packets_per_second`: 1 to MAX_RATE. `burst_interval_ns`: 0 spaces packets evenly, one by one.
    /// `max_lag_ns`: how much of a delay is caught up.
    Pacer(uint64_t packets_per_second, uint64_t burst_interval_ns, uint64_t max_lag_ns, uint64_t start_ns);

    static constexpr uint64_t MAX_RATE = 1'000'000'000;

    /// When the next packet that was not taken is due.
    uint64_t next_due_ns() const noexcept { return due_ns(m_taken); }
    /// How many packets are due and not taken yet; they count as taken. `now_ns` must not run backwards.
    uint64_t take(uint64_t now_ns) noexcept;

    /// How often the schedule moved on, and by how much in all.
    uint64_t slips() const noexcept { return m_slips; }
    uint64_t slipped_ns() const noexcept { return m_slipped_ns; }

private:
    uint64_t due_ns(uint64_t index) const noexcept;

    const uint64_t m_rate;
    const uint64_t m_interval_ns; // above 0
    const uint64_t m_max_lag_ns;
    uint64_t m_start_ns;
    uint64_t m_taken = 0;
    uint64_t m_slips = 0;
    uint64_t m_slipped_ns = 0;
};

} // namespace corvalin::tools
