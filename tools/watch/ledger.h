// ledger: what is known of each router that reports: its last report, its rates, and how much each counter has grown
// over all its restarts.
//
// Threads    one thread.
// Errors     never fails. A counter that went back is a restart of the router: its rates are unknown until the next
//            report, and what it counts from then on is growth.
#pragma once

#include "tools/watch/kernel_socket.h"
#include "tools/watch/report_parser.h"

#include <array>
#include <cstdint>
#include <map>
#include <optional>

namespace corvalin::watch {

/// A number that only grows, and begins anew with its source.
class GrowingCount {
public:
    /// `is_new_source`: the count began at zero again, though it need not be lower than it was.
    void add(uint64_t value, bool is_new_source);

    uint64_t values() const { return m_values; }
    uint64_t last() const { return m_last; }
    /// Since the first value; of a single value, all of it.
    uint64_t growth() const { return m_values > 1 ? m_growth : m_first; }
    /// Since the start of the first source.
    uint64_t total() const { return m_first + m_growth; }

private:
    uint64_t m_values = 0; // how many were added
    uint64_t m_first = 0;
    uint64_t m_last = 0;
    uint64_t m_growth = 0;
};

struct RouterRecord {
    uint64_t reports = 0;
    uint64_t restarts = 0;
    Report last;
    int64_t last_arrival_us = 0; // on the monotonic clock
    std::array<GrowingCount, COUNTER_COUNT> counts;
    std::optional<double> interval_s; // between the last two reports; nothing behind a restart or if unknown
    std::array<double, COUNTER_COUNT> rates{}; // per second, of `interval_s`; 0 for a gauge
    std::optional<KernelSocket> kernel;        // the last one seen
    GrowingCount kernel_drops;
};

/// What lines other than reports told. They name no router.
struct LogEvents {
    uint64_t failed_sends = 0;
    std::map<int, uint64_t> failed_sends_by_error;
    uint64_t sessions_with_hosts = 0;
    uint64_t sessions_without_host = 0;
    uint64_t starts_with_nodes = 0; // start packets that ask for a node
    uint64_t starts_without_nodes = 0;
};

class Ledger : public LogSink {
public:
    /// More routers than these are strangers' inventions, and are not followed.
    static constexpr std::size_t MAX_ROUTERS = 256;

    /// Follows the reports of this port only, if any is given.
    explicit Ledger(std::optional<uint64_t> only_port = std::nullopt) : m_only_port(only_port) {}

    /// Monotonic time of the reports that come from here on; 0: they come from the past, as of a file.
    void set_arrival_us(int64_t arrival_us) { m_arrival_us = arrival_us; }
    void on_report(const Report& report) override;
    void on_event(LogEvent event, int error) override;
    void on_kernel_socket(uint64_t port, const KernelSocket& socket);

    const std::map<uint64_t, RouterRecord>& routers() const { return m_routers; }
    const LogEvents& events() const { return m_events; }
    /// Reports so far, of all routers.
    uint64_t reports() const { return m_reports; }
    /// Port of the latest report.
    uint64_t latest_port() const { return m_latest_port; }

private:
    std::optional<uint64_t> m_only_port; // set at construction
    int64_t m_arrival_us = 0;
    std::map<uint64_t, RouterRecord> m_routers;
    LogEvents m_events;
    uint64_t m_reports = 0;
    uint64_t m_latest_port = 0;
};

} // namespace corvalin::watch
