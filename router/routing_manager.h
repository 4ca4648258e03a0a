// routing_manager: assigns nodes to new sessions and forwards their packets.
//
// Threads    set_media_hosts, set_writer_hosts: any thread. All else: the reader thread.
// Ownership  the forwarding socket is borrowed and outlives the manager. A session owns copies of its hosts.
// Errors     a send that fails is logged by the socket and not repeated; the session's other hosts still get
//            the packet. A session that the heap refuses is counted by the base class.
//
// A session keeps its nodes for life. New lists are for new sessions, and forwarding never touches a
// balancer.
#pragma once

#include "corvalin_lib/media_packet.h"
#include "corvalin_lib/media_session.h"
#include "corvalin_lib/media_session_manager.h"
#include "corvalin_lib/net.h"
#include "corvalin_lib/net_socket.h"
#include "corvalin_lib/reference_countable.h"
#include "router/host_balancer.h"

#include <cstdint>
#include <list>

namespace corvalin::router {

class RoutingSession : public media::Session {
public:
    RoutingSession(const media::StartPacket& packet, int64_t now_us, std::list<net::HostAddr>&& hosts);

    uint64_t m_sequence = 0;          // of the last packet that was forwarded: the first one bears 1
    std::list<net::HostAddr> m_hosts; // the writer node, then the media node; either or both may be missing
};

class RoutingManager : public media::SessionManager {
public:
    /// Counts into the session block of StatisticService::Instance.
    explicit RoutingManager(net::Socket* socket);
    /// As above with a block of the caller's, borrowed.
    RoutingManager(net::Socket* socket, media::SessionManagerStatistic* statistic,
                   media::SteadyClock clock = &media::steady_clock_us);

    void set_media_hosts(std::list<net::HostAddr> hosts);
    void set_writer_hosts(std::list<net::HostAddr> hosts);

    media::Session* create_session(const media::StartPacket& packet, unsigned long& result) override;
    void on_session_created(rc_ptr<media::Session> session, media::StartPacket& packet) override;
    void on_session_media(rc_ptr<media::Session> session, media::DataPacket& packet) override;
    void on_session_terminated(rc_ptr<media::Session> session, media::TerminatePacket& packet) override;
    void on_packet_ahead(const media::PacketHeader* packet) override;

private:
    std::list<net::HostAddr> assign_hosts(const media::StartPacket& packet);
    template <class Packet>
    void forward(media::Session& session, Packet& packet);

    net::Socket* m_socket; // borrowed
    HostBalancer m_media_balancer;
    HostBalancer m_writer_balancer;
};

} // namespace corvalin::router
