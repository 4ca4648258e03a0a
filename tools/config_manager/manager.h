// manager: the configuration manager's side of the conversation with routers.
//
// Threads    prepare_topics, announce, publish, rollback, take_new_topic: the main thread. on_frame: the
//            consumer thread of the message broker. Store and sink have locks of their own; `report` must
//            have one.
// Ownership  borrows the store and the sink.
// Errors     what cannot be sent throws std::runtime_error, on_frame excepted: a request that cannot be
//            understood or answered is told and dropped, for unlike a router a manager outlives it.
#pragma once

#include "tools/config_manager/event_sink.h"
#include "tools/config_manager/node_list.h"
#include "tools/config_manager/version_store.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace corvalin::tools {

/// A kind of list, as it is named on the command line, and the configuration that routers know it as.
struct ListKind {
    const char* word;
    const char* name;
};

constexpr ListKind LIST_KINDS[] = {{"media", "corvalin_media_nodes"}, {"writer", "corvalin_writer_nodes"}};

struct ManagerTopics {
    std::string request;
    std::string broadcast;
};

class Manager {
public:
    /// `report` takes one line for the operator.
    Manager(VersionStore& store, EventSink& sink, ManagerTopics topics,
            std::function<void(const std::string&)> report);

    /// Makes the manager's own topics if they are missing.
    void prepare_topics();

    /// Tells all routers that the manager is there; they ask for versions then.
    void announce();

    /// Sends `nodes` to all routers under a new version. An event that no broker would take is refused before anything
    /// is recorded. A list that was recorded and could not be sent reaches routers by the next announcement.
    void publish(const ListKind& kind, const NodeList& nodes);

    /// Sends the nodes of an earlier list to all routers, under a new version.
    void rollback(const ListKind& kind, const PublishedList& target);

    /// Answers one request frame.
    void on_frame(const unsigned char* data, unsigned long size);

    /// True once after the topic of a router was made. That router may lose answers while it takes up its topic, so an
    /// announcement is due when it has had the time for it.
    bool take_new_topic();

private:
    struct Router {
        bool is_topic_new = false; // made by this manager
    };

    void publish(const ListKind& kind, const NodeList& nodes, uint64_t restored);
    void answer_versions(const std::string& topic);
    void answer_configuration(const std::string& topic, const std::string& name);
    void answer(const std::string& topic, const std::string& json);
    void meet_router(const std::string& topic);
    bool provide_topic(const std::string& topic);
    void send(const std::string& topic, const std::string& json);

    VersionStore& m_store; // borrowed
    EventSink& m_sink;     // borrowed
    const ManagerTopics m_topics;
    const std::function<void(const std::string&)> m_report;
    // By topic. Consumer thread only.
    std::map<std::string, Router> m_routers;
    // Set by the consumer thread, taken by the main thread; it carries nothing else.
    std::atomic<bool> m_has_new_topic{false};
};

} // namespace corvalin::tools
