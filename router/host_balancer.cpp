#include "router/host_balancer.h"

#include "corvalin_lib/log.h"

#include <mutex>
#include <sstream>

namespace corvalin::router {

namespace {

constexpr const char* SOURCE = "host_balancer";

void log_received(const std::vector<net::HostAddr>& hosts) {
    std::ostringstream text;
    for (const net::HostAddr& host : hosts) {
        text << " " << host.host << ":" << host.port;
    }
    log::write(SOURCE, __LINE__, log::DebugMessage() << "HOST_BALANCER: received nodes:" << text.str());
}

} // namespace

std::optional<net::HostAddr> HostBalancer::pick() {
    const std::shared_lock<std::shared_mutex> lock(m_lock);
    if (m_hosts->empty()) {
        return std::nullopt;
    }
    const uint64_t index = m_cursor < m_hosts->size() ? m_cursor : 0;
    m_cursor = index + 1;
    return (*m_hosts)[index];
}

void HostBalancer::update(const std::list<net::HostAddr>& hosts) {
    auto updated = std::make_unique<std::vector<net::HostAddr>>(hosts.begin(), hosts.end());
    if (log::passes(log::Level::DEBUG)) {
        log_received(*updated);
    }
    const std::unique_lock<std::shared_mutex> lock(m_lock);
    m_hosts = std::move(updated);
}

} // namespace corvalin::router
