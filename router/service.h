// service: the router as a service. Here all subsystems are wired together.
//
// Threads    everything on the main thread, which ends in the receive loop; but the handlers of events, which
//            run on the consumer thread.
// Ownership  owns the forwarding socket and the routing manager, which outlive on_start and go with the
//            service. The receive socket and the packet reader live in on_start.
// Errors     a socket that cannot be opened has been logged by itself and fails the start. A log level that
//            would hide errors throws a string that nothing catches. A broker that cannot be reached only
//            delays the start. Members of an event that are of the wrong type end the process by RapidJSON's
//            assertion, on purpose.
#pragma once

#include "corvalin_lib/app_kafka_service.h"
#include "corvalin_lib/json.h"
#include "corvalin_lib/media_packet_reader.h"
#include "corvalin_lib/messaging_event_dispatcher.h"
#include "corvalin_lib/net.h"
#include "corvalin_lib/net_socket.h"
#include "corvalin_lib/owner.h"
#include "router/configuration.h"
#include "router/routing_manager.h"

#include <array>
#include <atomic>
#include <list>
#include <memory>
#include <string>

namespace corvalin::router {

class Service : public app::KafkaService<Configuration> {
public:
    Service();
    /// The sessions that are left go without a terminate packet to their nodes.
    ~Service() override = default;

    /// The names of the configurations that the router consumes. They are also the types of the events that bring
    /// them, and keys of the version table.
    static const std::array<std::string, 2>& m_configs;

protected:
    void on_pre_start() override;
    bool on_start() override;
    void on_set_kafka_params(std::string& group, std::string& topic) override;

    /// Builds the dispatcher. Blocks as its constructor does.
    void start_messaging();

    // Handlers of events: `context` is the parsed event.
    void event_on_config_manager_started(const std::string& type, void* context);
    void event_on_config_version(const std::string& type, void* context);
    void event_on_config_media_nodes(const std::string& type, void* context);
    void event_on_config_writer_nodes(const std::string& type, void* context);

    // Requests to the configuration manager. It replies on the topic of this instance.
    void event_request_config_versions();
    void event_request_config(const std::string& name);
    /// Sends to the manager, and blocks meanwhile. Any thread. Once a stop has taken the dispatcher away it sends nothing.
    void request(const std::string& text);

    /// Appends the nodes of a JSON array. A bad element is logged and left out.
    static void read_hosts(const rapidjson::Value& array, std::list<net::HostAddr>& hosts);

    // True from the first dispatcher on, and stays so. Set by the main thread; the consumer thread waits for it ahead of each
    // handler: it reads from its first assignment on, which comes ahead of the producer and of m_dispatcher.
    std::atomic<bool> m_can_send{false};
    // Destroyed from the last to the first: the dispatcher and its threads, the sessions, the socket that they send by.
    std::unique_ptr<net::Socket> m_socket; // forwarding only; bound to a port of the kernel's choice
    std::unique_ptr<RoutingManager> m_routing_manager; // borrows m_socket
    // Set and reset by the main thread, while the consumer thread already, or still, runs.
    Owner<messaging::EventDispatcher> m_dispatcher;

private:
    // What tells the two kinds of node lists apart.
    struct NodeList {
        const char* word; // in log lines
        const std::string& name;
        bool discard;
        void (RoutingManager::*set_hosts)(std::list<net::HostAddr> hosts);
    };

    void apply_log_level() const;
    void apply_configured_hosts();
    void start_statistic() const;
    void take_node_list(const NodeList& list, const std::string& type, const rapidjson::Document& event);
    static bool open_receive_socket(net::Socket& socket, int port);
    static void receive_loop(net::Socket& socket, media::PacketReader& reader);
};

} // namespace corvalin::router
