#include "tools/watch/ledger.h"

namespace corvalin::watch {

namespace {

constexpr double US_PER_SECOND = 1e6;
// Reports that arrive closer together were kept back on their way: their distance says nothing of the router's.
constexpr double MIN_INTERVAL_S = 0.5;

bool has_gone_back(const Values& from, const Values& to) {
    for (std::size_t counter = 0; counter < COUNTER_COUNT; ++counter) {
        if (!COUNTERS[counter].is_gauge && to[counter] < from[counter]) {
            return true;
        }
    }
    return false;
}

bool is_restart(const Report& from, const Report& to) {
    const bool is_other_process = from.stamp.pid != 0 && to.stamp.pid != 0 && from.stamp.pid != to.stamp.pid;
    return is_other_process || has_gone_back(from.values, to.values);
}

// The time that the log tells is that of the report; the arrival is what is left without one.
std::optional<double> interval_of(const RouterRecord& router, const Report& report, int64_t arrival_us) {
    double interval_s = 0;
    if (router.last.stamp.time_us != 0 && report.stamp.time_us != 0) {
        interval_s = static_cast<double>(report.stamp.time_us - router.last.stamp.time_us) / US_PER_SECOND;
    } else if (router.last_arrival_us != 0 && arrival_us != 0) {
        interval_s = static_cast<double>(arrival_us - router.last_arrival_us) / US_PER_SECOND;
    }
    return interval_s >= MIN_INTERVAL_S ? std::optional<double>(interval_s) : std::nullopt;
}

} // namespace

void GrowingCount::add(uint64_t value, bool is_new_source) {
    if (m_values == 0) {
        m_first = value;
    } else {
        m_growth += is_new_source || value < m_last ? value : value - m_last;
    }
    ++m_values;
    m_last = value;
}

void Ledger::on_report(const Report& report) {
    if (m_only_port && *m_only_port != report.port) {
        return;
    }
    if (m_routers.size() >= MAX_ROUTERS && m_routers.find(report.port) == m_routers.end()) {
        return;
    }
    RouterRecord& router = m_routers[report.port];
    const bool restarted = router.reports != 0 && is_restart(router.last, report);
    router.interval_s =
        router.reports == 0 || restarted ? std::nullopt : interval_of(router, report, m_arrival_us);
    for (std::size_t counter = 0; counter < COUNTER_COUNT; ++counter) {
        const bool has_rate = router.interval_s && !COUNTERS[counter].is_gauge;
        router.rates[counter] =
            has_rate ? static_cast<double>(report.values[counter] - router.counts[counter].last()) /
                           *router.interval_s
                     : 0;
        router.counts[counter].add(report.values[counter], restarted);
    }
    ++router.reports;
    router.restarts += restarted ? 1 : 0;
    router.last = report;
    router.last_arrival_us = m_arrival_us;
    ++m_reports;
    m_latest_port = report.port;
}

void Ledger::on_event(LogEvent event, int error) {
    switch (event) {
    case LogEvent::SEND_FAILED:
        ++m_events.failed_sends;
        ++m_events.failed_sends_by_error[error];
        break;
    case LogEvent::HOSTS_ASSIGNED:
        ++m_events.sessions_with_hosts;
        break;
    case LogEvent::NO_HOST_ASSIGNED:
        ++m_events.sessions_without_host;
        break;
    case LogEvent::START_WITH_NODES:
        ++m_events.starts_with_nodes;
        break;
    case LogEvent::START_WITHOUT_NODES:
        ++m_events.starts_without_nodes;
        break;
    case LogEvent::NONE:
        break;
    }
}

void Ledger::on_kernel_socket(uint64_t port, const KernelSocket& socket) {
    const auto router = m_routers.find(port);
    if (router == m_routers.end()) {
        return;
    }
    const bool is_other = router->second.kernel && router->second.kernel->inode != socket.inode;
    router->second.kernel_drops.add(socket.drops, is_other);
    router->second.kernel = socket;
}

} // namespace corvalin::watch
