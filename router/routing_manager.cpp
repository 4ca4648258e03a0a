#include "router/routing_manager.h"

#include "corvalin_lib/log.h"
#include "corvalin_lib/prefetch.h"
#include "router/statistic_service.h"

#include <new>
#include <utility>

namespace corvalin::router {

namespace {

constexpr const char* SOURCE = "routing_manager";

void append_pick(HostBalancer& balancer, std::list<net::HostAddr>& hosts) {
    if (auto host = balancer.pick()) {
        hosts.push_back(std::move(*host));
    }
}

void log_assignment(const media::StartPacket& packet, const std::list<net::HostAddr>& hosts) {
    log::SystemMessage message;
    message << "ROUTING_MANAGER: " << media::UuidText{packet.uuid} << ": assigned hosts:";
    for (const net::HostAddr& host : hosts) {
        message << " " << host.host << ":" << host.port;
    }
    if (hosts.empty()) {
        message << " -";
    }
    log::write(SOURCE, __LINE__, message);
}

} // namespace

RoutingSession::RoutingSession(const media::StartPacket& packet, int64_t now_us,
                               std::list<net::HostAddr>&& hosts)
    : Session(packet, now_us), m_hosts(std::move(hosts)) {
}

RoutingManager::RoutingManager(net::Socket* socket)
    : RoutingManager(socket, &StatisticService::Instance.m_session_statistic) {
}

RoutingManager::RoutingManager(net::Socket* socket, media::SessionManagerStatistic* statistic,
                               media::SteadyClock clock)
    : SessionManager(statistic, clock), m_socket(socket) {
}

void RoutingManager::set_media_hosts(std::list<net::HostAddr> hosts) {
    m_media_balancer.update(hosts);
}

void RoutingManager::set_writer_hosts(std::list<net::HostAddr> hosts) {
    m_writer_balancer.update(hosts);
}

// The assignment is made and logged before the session exists: a session that cannot be built has moved the rotation
// all the same. Only the heap may fail here; an error of a balancer's lock passes through.
media::Session* RoutingManager::create_session(const media::StartPacket& packet, unsigned long& result) {
    try {
        std::list<net::HostAddr> hosts = assign_hosts(packet);
        log_assignment(packet, hosts);
        return new RoutingSession(packet, now_us(), std::move(hosts));
    } catch (const std::bad_alloc&) {
        result = 0;
        return nullptr;
    }
}

void RoutingManager::on_session_created(rc_ptr<media::Session> session, media::StartPacket& packet) {
    forward(*session, packet);
}

[[gnu::hot]] void RoutingManager::on_session_media(rc_ptr<media::Session> session,
                                                   media::DataPacket& packet) {
    forward(*session, packet);
}

void RoutingManager::on_session_terminated(rc_ptr<media::Session> session, media::TerminatePacket& packet) {
    forward(*session, packet);
}

// The address stands in a list of the session's, which has been fetched by that step.
[[gnu::hot]] void RoutingManager::on_packet_ahead(const media::PacketHeader* packet) {
    SessionManager::on_packet_ahead(packet);
    const media::Session* const session = session_ahead(FETCH_NODE);
    if (session == nullptr || session->m_zombie) {
        return;
    }
    const std::list<net::HostAddr>& hosts = static_cast<const RoutingSession*>(session)->m_hosts;
    if (!hosts.empty()) {
        prefetch(&hosts.front(), sizeof(net::HostAddr));
    }
}

std::list<net::HostAddr> RoutingManager::assign_hosts(const media::StartPacket& packet) {
    std::list<net::HostAddr> hosts;
    if ((packet.flags & media::PACKET_FLAG_WRITER) != 0) {
        append_pick(m_writer_balancer, hosts);
    }
    if ((packet.flags & media::PACKET_FLAG_MEDIA) != 0) {
        append_pick(m_media_balancer, hosts);
    }
    return hosts;
}

// One number for each packet and not for each host: all nodes of a session see the same series. The reader
// has made sure that the packet's own fields tell the length of the datagram.
template <class Packet>
void RoutingManager::forward(media::Session& session, Packet& packet) {
    auto& routed =
        static_cast<RoutingSession&>(session); // create_session makes no other kind, and zombies have no hook
    packet.seq = ++routed.m_sequence;
    for (const net::HostAddr& host : routed.m_hosts) {
        m_socket->send(host.addr, reinterpret_cast<const char*>(&packet), packet.wire_bytes());
    }
}

} // namespace corvalin::router
