#include "tools/tool_support/receiving_end.h"

#include <algorithm>

#include "tools/tool_support/steady_clock.h"
#include "tools/tool_support/stop_signal.h"

namespace corvalin::tools {

bool ReceivingEnd::is_reached(const ReceivingProgress& progress, uint64_t now_ns) const {
    const auto duration_ns = static_cast<uint64_t>(duration_s * static_cast<double>(NS_PER_SECOND));
    const bool idle = idle_exit_ms != 0 && progress.datagrams != 0 &&
                      now_ns - progress.last_datagram_ns >= idle_exit_ms * NS_PER_MS;
    const bool done = packets != 0 && progress.datagrams >= packets;
    return stop_requested() || idle || done ||
           (duration_ns != 0 && now_ns - progress.start_ns >= duration_ns);
}

uint64_t ReceivingEnd::longest_wait_ms() const {
    return idle_exit_ms == 0 ? STOP_CHECK_INTERVAL_MS
                             : std::min<uint64_t>(STOP_CHECK_INTERVAL_MS, idle_exit_ms);
}

} // namespace corvalin::tools
