#include "router/service.h"

#include "corvalin_lib/log.h"
#include "corvalin_lib/net.h"
#include "corvalin_lib/never_destroyed.h"
#include "corvalin_lib/utils_str.h"
#include "router/statistic_service.h"

#include <arpa/inet.h>

#include <utility>

#include "version_stamp.h"

namespace corvalin::router {

namespace {

constexpr const char* SOURCE = "service";

constexpr const char* COMPONENT_NAME = "corvalin_router";

// Never destroyed: the consumer thread may be in a handler while the process exits.
const NeverDestroyed<std::array<std::string, 2>> configs(std::array<std::string, 2>{"corvalin_media_nodes",
                                                                                    "corvalin_writer_nodes"});

constexpr std::size_t MEDIA_NODES = 0;
constexpr std::size_t WRITER_NODES = 1;

void log_error(int line, const std::string& text) {
    log::write(SOURCE, line, log::ErrorMessage() << "SERVICE: " << text);
}

void log_received(const std::string& type) {
    log::write(SOURCE, __LINE__, log::SystemMessage() << "SERVICE: event [" << type << "] received");
}

// Null, and logged, if `object` has no such member. The member's own type is not looked at.
const rapidjson::Value* find_field(const rapidjson::Value& object, const char* name) {
    const auto member = object.FindMember(name);
    if (member == object.MemberEnd()) {
        log_error(__LINE__, std::string("field \"") + name + "\" is not found");
        return nullptr;
    }
    return &member->value;
}

// The address by which this host reaches the first broker of `brokers`, with "o" for each dot: topic names
// and group names are made of it. Empty if that broker is not given by a dotted address, or cannot be reached
// from here.
std::string address_towards(const std::string& brokers) {
    const std::string host = brokers.substr(0, brokers.find(net::HOST_PORT_SEPARATOR::CHAR));
    return utils::str::replace(net::get_host_ip(inet_addr(host.c_str()), ""), ".", "o");
}

} // namespace

const std::array<std::string, 2>& Service::m_configs = configs.object;

Service::Service() : KafkaService("router") {
    m_capabilities.set(app::capability_daemon_mode);
    m_socket = std::make_unique<net::Socket>();
    m_routing_manager = std::make_unique<RoutingManager>(m_socket.get());
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
    start_messaging();
    for (const std::string& name : m_configs) {
        event_request_config(name);
    }
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
    m_dispatcher.reset();
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

// Takes as long as the broker lets it, and never fails: without a broker the router runs on the lists that it has.
void Service::start_messaging() {
    messaging::MessageBrokerSettings settings;
    settings.brokers = m_kafka_config->m_kafka_broker;
    settings.group = m_kafka_group;
    settings.topics = {m_kafka_config->m_kafka_topic_broadcast, m_kafka_topic};
    const auto bound =
        [this](void (Service::*handler)(const std::string&, void*)) -> messaging::EventHandler {
        return [this, handler](const std::string& type, void* context) {
            m_can_send.wait(false, std::memory_order_acquire);
            (this->*handler)(type, context);
        };
    };
    messaging::EventHandlers handlers{
        {"config_manager_started", bound(&Service::event_on_config_manager_started)},
        {"config_versions", bound(&Service::event_on_config_version)},
        {m_configs[MEDIA_NODES], bound(&Service::event_on_config_media_nodes)},
        {m_configs[WRITER_NODES], bound(&Service::event_on_config_writer_nodes)},
    };
    m_dispatcher.reset(
        std::make_unique<messaging::EventDispatcher>(std::move(settings), std::move(handlers)));
    m_can_send.store(true, std::memory_order_release); // what has been built
    m_can_send.notify_all();
}

void Service::event_request_config_versions() {
    request(R"({"type":"get_versions", "config_topic":")" + m_kafka_topic + R"("})");
}

void Service::event_request_config(const std::string& name) {
    request(R"({"type":"configuration_request", "configuration":")" + name + R"(", "config_topic":")" +
            m_kafka_topic + R"("})");
}

void Service::request(const std::string& text) {
    messaging::EventDispatcher* const dispatcher = m_dispatcher.get();
    if (dispatcher == nullptr) {
        return; // for an event of the last moment: the router stops
    }
    dispatcher->dispatch(m_kafka_config->m_kafka_topic_request, text);
}

void Service::event_on_config_manager_started(const std::string& type, void* /*context*/) {
    log_received(type);
    log::write(SOURCE, __LINE__, log::SystemMessage() << "SERVICE: requesting config versions");
    event_request_config_versions();
}

// Any difference is asked for, a lower version too. The table changes only when a list arrives.
void Service::event_on_config_version(const std::string& type, void* context) {
    log_received(type);
    const auto& event = *static_cast<const rapidjson::Document*>(context);
    const rapidjson::Value* const data = find_field(event, "data");
    if (data == nullptr) {
        return;
    }
    bool is_requested = false;
    for (const std::string& name : m_configs) {
        const auto announced = data->FindMember(name.c_str());
        if (announced == data->MemberEnd()) {
            continue;
        }
        const uint64_t version = announced->value.GetUint64();
        const uint64_t known = m_config->get_component_version(name);
        if (version == known) {
            continue;
        }
        log::write(SOURCE, __LINE__,
                   log::SystemMessage() << "SERVICE: config [" << name << "] version updated from (" << known
                                        << ") to (" << version << ")");
        event_request_config(name);
        is_requested = true;
    }
    if (!is_requested) {
        log::write(SOURCE, __LINE__,
                   log::SystemMessage() << "SERVICE: version is up-to-date, nothing to update");
    }
}

void Service::event_on_config_media_nodes(const std::string& type, void* context) {
    take_node_list(
        {"media", m_configs[MEDIA_NODES], m_config->m_discard_media_node, &RoutingManager::set_media_hosts},
        type, *static_cast<const rapidjson::Document*>(context));
}

void Service::event_on_config_writer_nodes(const std::string& type, void* context) {
    take_node_list({"writer", m_configs[WRITER_NODES], m_config->m_discard_writer_node,
                    &RoutingManager::set_writer_hosts},
                   type, *static_cast<const rapidjson::Document*>(context));
}

// A list that is discarded has its version recorded all the same.
void Service::take_node_list(const NodeList& list, const std::string& type,
                             const rapidjson::Document& event) {
    log_received(type);
    const rapidjson::Value* const version_field = find_field(event, "version");
    if (version_field == nullptr) {
        return;
    }
    const rapidjson::Value* const data = find_field(event, "data");
    if (data == nullptr) {
        return;
    }
    const uint64_t version = version_field->GetUint64();
    if (!data->IsArray()) {
        log_error(__LINE__, "field \"data\" has invalid format");
        return;
    }
    if (!m_config->set_component_version_if_higher(list.name, version)) {
        log::write(SOURCE, __LINE__,
                   log::SystemMessage()
                       << "SERVICE: No " << list.word << " nodes configuration update is required");
        return;
    }
    if (list.discard) {
        log::write(SOURCE, __LINE__,
                   log::SystemMessage() << "SERVICE: discarding " << list.word
                                        << " nodes, no configuration update is required");
        return;
    }
    std::list<net::HostAddr> hosts;
    read_hosts(*data, hosts);
    (m_routing_manager.get()->*list.set_hosts)(std::move(hosts));
}

void Service::read_hosts(const rapidjson::Value& array, std::list<net::HostAddr>& hosts) {
    constexpr unsigned PORT_BOUND = 65536;
    for (const rapidjson::Value& node : array.GetArray()) {
        const rapidjson::Value* const ip = find_field(node, "ip");
        const rapidjson::Value* const port_field = ip != nullptr ? find_field(node, "port") : nullptr;
        if (port_field == nullptr) {
            continue;
        }
        const unsigned port = port_field->GetUint();
        if (port >= PORT_BOUND) {
            log_error(__LINE__, "field \"port\" is out of bound (" + std::to_string(port) + ")");
            continue;
        }
        hosts.push_back(net::make_host_addr(ip->GetString(), static_cast<uint16_t>(port)));
    }
}

bool Service::open_receive_socket(net::Socket& socket, int port) {
    socket.read_buffer = std::make_unique<net::Socket::Buffer>();
    return socket.open(port, INADDR_ANY);
}

// No timer and no poll: only the stop flag ends the loop, and only a signal or a datagram brings a blocked
// read back to look at it. A count of 0 is an interrupted read or an empty datagram, and nothing to do in
// either case.
[[gnu::hot]] void Service::receive_loop(net::Socket& socket, media::PacketReader& reader) {
    while (m_signal_stop.load(std::memory_order_relaxed) == 0) {
        const net::Socket::Buffer& datagram = socket.read();
        if (datagram.size != 0) {
            reader.read_from(datagram.data, datagram.size);
        }
    }
}

} // namespace corvalin::router
