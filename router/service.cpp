#include "router/service.h"

#include "corvalin_lib/log.h"
#include "corvalin_lib/net.h"
#include "corvalin_lib/utils_str.h"
#include "router/statistic_service.h"

#include <arpa/inet.h>

#include "version_stamp.h"

namespace corvalin::router {

namespace {

constexpr const char* SOURCE = "service";

constexpr const char* COMPONENT_NAME = "corvalin_router";

// The address by which this host reaches the first broker of `brokers`, with "o" for each dot: topic names
// and group names are made of it. Empty if that broker is not given by a dotted address, or cannot be reached
// from here.
std::string address_towards(const std::string& brokers) {
    const std::string host = brokers.substr(0, brokers.find(net::HOST_PORT_SEPARATOR::CHAR));
    return utils::str::replace(net::get_host_ip(inet_addr(host.c_str()), ""), ".", "o");
}

} // namespace

Service::Service() : KafkaService("router") {
    m_capabilities.set(app::capability_daemon_mode);
    m_socket = std::make_unique<net::Socket>();
    m_routing_manager = std::make_unique<RoutingManager>(m_socket.get());
}

Service::~Service() {
    m_routing_manager.reset();
    m_socket.reset();
}

void Service::on_pre_start() {
    log::write(SOURCE, __LINE__,
               log::SystemMessage() << "build version: \"" << CORVALIN_BUILD_VERSION << "\"");
}

// One name, unique for a router instance: the configuration manager answers on the topic, and a group of one
// consumes everything.
void Service::on_set_kafka_params(std::string& group, std::string& topic) {
    topic = std::string(COMPONENT_NAME) + "_" + address_towards(m_kafka_config->m_kafka_broker) + "_" +
            std::to_string(m_config->m_port);
    group = topic;
}

// The order is part of the design: nodes before sockets, sockets before threads that use them. The failures
// below leave the statistics thread running; they lead straight to the end of the process.
bool Service::on_start() {
    apply_log_level();
    apply_configured_hosts();
    start_statistic();
    // Here the messaging comes in, between the statistics and the sockets: broker settings, event handlers,
    // dispatcher, and the requests for both node lists.
    if (!m_socket->open(0, INADDR_ANY)) {
        return false;
    }
    net::Socket receive_socket;
    if (!open_receive_socket(receive_socket, m_config->m_port)) {
        return false;
    }
    {
        media::PacketReader reader(*m_routing_manager, StatisticService::Instance.m_reader_statistic);
        reader.start();
        receive_loop(receive_socket, reader);
        reader.stop();
    }
    // Here the messaging ends, after the reader and before the statistics.
    StatisticService::Instance.stop();
    receive_socket.close();
    return true;
}

void Service::apply_log_level() const {
    if (m_config->m_log_level < log::Level::ERROR) {
        throw std::string("impossible to set log level stricter than 'error' level");
    }
    log::Logger::m_instance.m_level = m_config->m_log_level;
}

void Service::apply_configured_hosts() {
    if (!m_config->m_media_nodes.empty()) {
        m_routing_manager->set_media_hosts(m_config->m_media_nodes);
    }
    if (!m_config->m_writer_nodes.empty()) {
        m_routing_manager->set_writer_hosts(m_config->m_writer_nodes);
    }
}

void Service::start_statistic() const {
    StatisticService& statistic = StatisticService::Instance;
    statistic.m_has_port = true;
    statistic.m_port = m_config->m_port;
    statistic.m_logging_enabled = m_config->m_statistic_logging_enabled;
    statistic.start();
}

bool Service::open_receive_socket(net::Socket& socket, int port) {
    socket.read_buffer = std::make_unique<net::Socket::Buffer>();
    return socket.open(port, INADDR_ANY);
}

// No timer and no poll: only the stop flag ends the loop, and only a signal or a datagram brings a blocked
// read back to look at it. A count of 0 is an interrupted read or an empty datagram, and nothing to do in
// either case.
void Service::receive_loop(net::Socket& socket, media::PacketReader& reader) {
    while (m_signal_stop.load(std::memory_order_relaxed) == 0) {
        const net::Socket::Buffer& datagram = socket.read();
        if (datagram.size != 0) {
            reader.read_from(datagram.data, datagram.size);
        }
    }
}

} // namespace corvalin::router
