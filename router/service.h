// service: the router as a service. Here all subsystems are wired together.
//
// Threads    everything on the main thread, which ends in the receive loop.
// Ownership  owns the forwarding socket and the routing manager, which outlive on_start and go with the
// service. The
//            receive socket and the packet reader live in on_start.
// Errors     a socket that cannot be opened has been logged by itself and fails the start. A log level that
// would hide
//            errors throws a string that nothing catches.
#pragma once

#include "corvalin_lib/app_kafka_service.h"
#include "corvalin_lib/media_packet_reader.h"
#include "corvalin_lib/net_socket.h"
#include "router/configuration.h"
#include "router/routing_manager.h"

#include <memory>
#include <string>

namespace corvalin::router {

class Service : public app::KafkaService<Configuration> {
public:
    Service();
    /// The sessions that are left go without a terminate packet to their nodes.
    ~Service() override;

protected:
    void on_pre_start() override;
    bool on_start() override;
    void on_set_kafka_params(std::string& group, std::string& topic) override;

private:
    void apply_log_level() const;
    void apply_configured_hosts();
    void start_statistic() const;
    static bool open_receive_socket(net::Socket& socket, int port);
    static void receive_loop(net::Socket& socket, media::PacketReader& reader);

    std::unique_ptr<net::Socket> m_socket; // forwarding only; bound to a port of the kernel's choice
    std::unique_ptr<RoutingManager> m_routing_manager; // borrows m_socket
};

} // namespace corvalin::router
