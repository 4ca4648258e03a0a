#include "tools/config_manager/manager.h"

#include <exception>
#include <stdexcept>
#include <utility>

#include "corvalin_lib/json.h"
#include "tools/config_manager/event_payload.h"

namespace corvalin::tools {

namespace {

constexpr unsigned char KIND_JSON = 0;

// A string member, empty if there is none.
std::string text_of(const rapidjson::Document& event, const char* name) {
    const auto member = event.FindMember(name);
    return member != event.MemberEnd() && member->value.IsString() ? member->value.GetString()
                                                                   : std::string();
}

} // namespace

Manager::Manager(VersionStore& store, EventSink& sink, ManagerTopics topics,
                 std::function<void(const std::string&)> report)
    : m_store(store), m_sink(sink), m_topics(std::move(topics)), m_report(std::move(report)) {
}

void Manager::prepare_topics() {
    provide_topic(m_topics.request);
    provide_topic(m_topics.broadcast);
}

void Manager::announce() {
    send(m_topics.broadcast, started_event());
    m_report("announced to all routers on [" + m_topics.broadcast + "]");
}

void Manager::publish(const ListKind& kind, const NodeList& nodes) {
    publish(kind, nodes, 0);
}

void Manager::rollback(const ListKind& kind, const PublishedList& target) {
    publish(kind, target.nodes, target.version);
}

// Recorded first: a version that was sent and forgotten would be used again, and routers would ignore the second list.
void Manager::publish(const ListKind& kind, const NodeList& nodes, uint64_t restored) {
    make_payload(node_list_event(kind.name, UINT64_MAX, nodes)); // throws for a list that is too long
    const PublishedList list = m_store.record(kind.name, nodes, restored);
    const std::string label = std::string(kind.name) + " version " + std::to_string(list.version);
    try {
        send(m_topics.broadcast, node_list_event(kind.name, list.version, nodes));
    } catch (const std::exception& error) {
        throw std::runtime_error(label + " is recorded, but was not sent: " + error.what());
    }
    m_report("published " + label + ": " + std::to_string(nodes.size()) + " nodes" +
             (restored != 0 ? ", those of version " + std::to_string(restored) : ""));
}

void Manager::on_frame(const unsigned char* data, unsigned long size) {
    if (size < 2 || data[0] != KIND_JSON) {
        m_report("dropped a request that is no JSON event");
        return;
    }
    rapidjson::Document event;
    // Iterative: a request that is nothing but opening brackets would use up the stack otherwise.
    event.Parse<rapidjson::kParseIterativeFlag>(reinterpret_cast<const char*>(data) + 1, size - 1);
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
        meet_router(topic);
        if (type == "get_versions") {
            answer_versions(topic);
        } else if (type == "configuration_request") {
            answer_configuration(topic, text_of(event, "configuration"));
        } else {
            m_report("dropped a request of unknown type [" + type + "]");
        }
    } catch (const std::exception& error) {
        m_report("could not answer [" + topic + "]: " + error.what());
    }
}

bool Manager::take_new_topic() {
    return m_has_new_topic.exchange(false, std::memory_order_relaxed);
}

void Manager::answer_versions(const std::string& topic) {
    answer(topic, versions_event(m_store.versions()));
    m_report("sent versions to [" + topic + "]");
}

void Manager::answer_configuration(const std::string& topic, const std::string& name) {
    const History history = m_store.history(name);
    if (history.empty()) {
        m_report("nothing published under [" + name + "], which [" + topic + "] asks for");
        return;
    }
    const PublishedList& list = history.back();
    answer(topic, node_list_event(name, list.version, list.nodes));
    m_report("sent " + name + " version " + std::to_string(list.version) + " to [" + topic + "]");
}

// A router that subscribed to its topic before that existed may not read it for minutes, but it does read the broadcast
// topic. The other routers have what it gets there, or need it.
void Manager::answer(const std::string& topic, const std::string& json) {
    send(topic, json);
    if (m_routers.at(topic).is_topic_new) {
        send(m_topics.broadcast, json);
    }
}

void Manager::meet_router(const std::string& topic) {
    if (m_routers.count(topic) != 0) {
        return;
    }
    try {
        m_routers[topic].is_topic_new = provide_topic(topic);
    } catch (const std::exception& error) {
        m_report(error.what()); // some brokers make a topic themselves when something is sent to it
    }
    if (m_routers[topic].is_topic_new) {
        m_report("created [" + topic + "]; its router is answered on [" + m_topics.broadcast + "], too");
        m_has_new_topic.store(true, std::memory_order_relaxed);
    }
}

// True if it was missing.
bool Manager::provide_topic(const std::string& topic) {
    const TopicState state = m_sink.provide_topic(topic);
    if (state.partitions > 1) {
        m_report("warning: topic [" + topic + "] has " + std::to_string(state.partitions) +
                 " partitions: events on different ones may overtake each other");
    }
    return state.is_new;
}

void Manager::send(const std::string& topic, const std::string& json) {
    m_sink.send(topic, make_payload(json));
}

} // namespace corvalin::tools
