// manager: the configuration manager's side of the conversation with routers.
//
// Threads    check_files, announce: the main thread. on_frame: the consumer thread of the message broker. Both publish;
//            the store and the publisher have locks of their own.
// Ownership  borrows the store and the publisher.
// Errors     a request that cannot be understood is told and dropped: unlike a router, a manager outlives it.
#pragma once

#include "tools/config_manager/kafka_link.h"
#include "tools/config_manager/node_list.h"
#include "tools/config_manager/version_store.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

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
    /// `report` takes one line for the operator; any thread.
    Manager(VersionStore& store, KafkaPublisher& publisher, ManagerTopics topics,
            std::function<void(const std::string&)> report);

    /// Tells all routers that the manager is there; they ask for versions then.
    void announce();

    /// Sends `nodes` to all routers under a new version, and returns that.
    uint64_t publish(const ListKind& kind, const NodeList& nodes);

    /// Answers one request frame.
    void on_frame(const unsigned char* data, unsigned long size);

private:
    void send(const std::string& topic, const std::string& json);
    void answer_versions(const std::string& topic);
    void answer_configuration(const std::string& topic, const std::string& name);

    VersionStore& m_store;
    KafkaPublisher& m_publisher;
    const ManagerTopics m_topics;
    const std::function<void(const std::string&)> m_report;
};

} // namespace corvalin::tools
