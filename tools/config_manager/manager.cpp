#include "tools/config_manager/manager.h"

#include <exception>
#include <optional>
#include <utility>

#include "corvalin_lib/json.h"
#include "tools/config_manager/event_payload.h"

namespace corvalin::tools {

namespace {

constexpr int SEND_TIMEOUT_MS = 10'000;
constexpr unsigned char KIND_JSON = 0;

// A string member, empty if there is none.
std::string text_of(const rapidjson::Document& event, const char* name) {
    const auto member = event.FindMember(name);
    return member != event.MemberEnd() && member->value.IsString() ? member->value.GetString()
                                                                   : std::string();
}

} // namespace

Manager::Manager(VersionStore& store, KafkaPublisher& publisher, ManagerTopics topics,
                 std::function<void(const std::string&)> report)
    : m_store(store), m_publisher(publisher), m_topics(std::move(topics)), m_report(std::move(report)) {
}

void Manager::announce() {
    send(m_topics.broadcast, started_event());
    m_report("announced to all routers on [" + m_topics.broadcast + "]");
}

// Recorded first: a version that was sent and forgotten would be used again, and routers would ignore the second list.
uint64_t Manager::publish(const ListKind& kind, const NodeList& nodes) {
    make_payload(node_list_event(kind.name, UINT64_MAX, nodes)); // throws for a list that is too long
    const PublishedList list = m_store.record(kind.name, nodes);
    send(m_topics.broadcast, node_list_event(kind.name, list.version, list.nodes));
    m_report("published " + std::string(kind.name) + " version " + std::to_string(list.version) + ": " +
             std::to_string(nodes.size()) + " nodes");
    return list.version;
}

void Manager::on_frame(const unsigned char* data, unsigned long size) {
    if (size < 2 || data[0] != KIND_JSON) {
        m_report("dropped a request that is no JSON event");
        return;
    }
    rapidjson::Document event;
    event.Parse(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (event.HasParseError() || !event.IsObject()) {
        m_report("dropped a request that is no JSON object");
        return;
    }
    const std::string type = text_of(event, "type");
    const std::string topic = text_of(event, "config_topic");
    if (topic.empty()) {
        m_report("dropped a request [" + type + "] without \"config_topic\"");
        return;
    }
    // A broker that is away now may be back for the next request.
    try {
        if (type == "get_versions") {
            answer_versions(topic);
        } else if (type == "configuration_request") {
            answer_configuration(topic, text_of(event, "configuration"));
        } else {
            m_report("dropped a request of unknown type [" + type + "]");
        }
    } catch (const std::exception& error) {
        m_report(std::string("could not answer [") + topic + "]: " + error.what());
    }
}

void Manager::answer_versions(const std::string& topic) {
    send(topic, versions_event(m_store.versions()));
    m_report("sent versions to [" + topic + "]");
}

void Manager::answer_configuration(const std::string& topic, const std::string& name) {
    const std::optional<PublishedList> list = m_store.latest(name);
    if (!list) {
        m_report("nothing published under [" + name + "], which [" + topic + "] asks for");
        return;
    }
    send(topic, node_list_event(name, list->version, list->nodes));
    m_report("sent " + name + " version " + std::to_string(list->version) + " to [" + topic + "]");
}

void Manager::send(const std::string& topic, const std::string& json) {
    m_publisher.publish(topic, make_payload(json), SEND_TIMEOUT_MS);
}

} // namespace corvalin::tools
