#include "tools/tool_support/pacer.h"

#include "tools/tool_support/steady_clock.h"

#include <algorithm>

namespace corvalin::tools {
// Even spacing is bursts of an interval of one nanosecond.
Pacer::Pacer(uint64_t packets_per_second, uint64_t burst_interval_ns, uint64_t max_lag_ns, uint64_t start_ns)
    : m_rate(packets_per_second), m_interval_ns(std::max<uint64_t>(burst_interval_ns, 1)),
      m_max_lag_ns(max_lag_ns), m_start_ns(start_ns) {
}

// Whole seconds and the rest apart: the product of a long run's nanoseconds and the rate passes 64 bits.
uint64_t Pacer::due_ns(uint64_t index) const noexcept {
    const uint64_t exact_ns = index / m_rate * NS_PER_SECOND + index % m_rate * NS_PER_SECOND / m_rate;
    return m_start_ns + exact_ns / m_interval_ns * m_interval_ns;
}

uint64_t Pacer::take(uint64_t now_ns) noexcept {
    const uint64_t next_ns = next_due_ns();
    if (now_ns < next_ns) {
        return 0;
    }
    const uint64_t lag_ns = now_ns - next_ns;
    if (lag_ns > m_max_lag_ns) {
        m_start_ns += lag_ns;
        m_slipped_ns += lag_ns;
        ++m_slips;
    }
    // Packet i is due by now if i / rate lies below the end of the interval that `now_ns` is in.
    const uint64_t end_ns = ((now_ns - m_start_ns) / m_interval_ns + 1) * m_interval_ns;
    const uint64_t due = end_ns / NS_PER_SECOND * m_rate +
                         (end_ns % NS_PER_SECOND * m_rate + NS_PER_SECOND - 1) / NS_PER_SECOND;
    const uint64_t count = due - m_taken;
    m_taken = due;
    return count;
}

} // namespace corvalin::tools
