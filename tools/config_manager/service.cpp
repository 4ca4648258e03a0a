#include "tools/config_manager/service.h"

#include <exception>
#include <stdexcept>
#include <utility>

#include "corvalin_lib/messaging_message_broker.h"
#include "tools/config_manager/consumer_group.h"
#include "tools/config_manager/publishable_list.h"
#include "tools/tool_support/stop_signal.h"

namespace corvalin::tools {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds ANNOUNCEMENT_RETRY{5};
// What a router needs to look for a topic that was missing and to subscribe anew, several times over.
constexpr std::chrono::seconds NEW_TOPIC_DELAY{10};

// Hears the requests of routers.
class Listener : public messaging::MessageBroker {
public:
    using MessageBroker::MessageBroker;

    /// False until the broker has given it the partitions of its topic.
    bool can_hear() const { return !m_first_assignment.load(std::memory_order_seq_cst); }
};

messaging::MessageBrokerSettings listener_settings(const ServiceSettings& settings, Manager& manager) {
    messaging::MessageBrokerSettings result;
    result.brokers = settings.brokers;
    result.group = make_consumer_group("");
    result.topics = {settings.topics.request};
    result.on_message_received = [&manager](const unsigned char* data, unsigned long size) {
        manager.on_frame(data, size);
    };
    return result;
}

} // namespace

FollowedFile::FollowedFile(const ListKind& kind, std::string path) : m_kind(kind), m_path(std::move(path)) {
}

void FollowedFile::read() {
    m_text = read_text(m_path);
}

bool FollowedFile::read_change() {
    std::string text;
    try {
        text = read_text(m_path);
    } catch (const std::runtime_error&) {
        return false;
    }
    const bool has_changed = text != m_text;
    m_text = std::move(text);
    return has_changed;
}

std::optional<NodeList> FollowedFile::list() const {
    return publishable_list(m_path, m_text);
}

ManagerService::ManagerService(ServiceSettings settings, VersionStore& store, EventSink& sink,
                               std::function<void(const std::string&)> report)
    : m_settings(std::move(settings)), m_store(store), m_report(report),
      m_manager(store, sink, m_settings.topics, std::move(report)) {
}

bool ManagerService::run(std::vector<FollowedFile>& files) {
    std::vector<NodeList> lists;
    bool is_sound = true;
    for (FollowedFile& file : files) {
        file.read();
        const std::optional<NodeList> nodes = file.list();
        is_sound = is_sound && nodes && is_emptiness_wanted(*nodes, file.path(), m_settings.allow_empty);
        lists.push_back(nodes.value_or(NodeList()));
    }
    if (!is_sound) {
        return false;
    }
    m_manager.prepare_topics();
    for (std::size_t index = 0; index < files.size(); ++index) {
        publish_at_start(files[index], lists[index]);
    }
    serve(files);
    return true;
}

void ManagerService::publish_at_start(const FollowedFile& file, const NodeList& nodes) {
    const History history = m_store.history(file.kind().name);
    if (is_withdrawn(history, nodes)) {
        m_report(file.path() +
                 " holds a list that was rolled back: it is not published until the file changes");
    } else if (history.empty() || history.back().nodes != nodes) {
        m_manager.publish(file.kind(), nodes);
    }
}

void ManagerService::serve(std::vector<FollowedFile>& files) {
    const Listener listener(listener_settings(m_settings, m_manager));
    // Routers answer an announcement at once, so it waits until the answer is heard.
    bool is_announcement_due = true;
    Clock::time_point announcement_time = Clock::now();
    const auto announce_in = [&](std::chrono::seconds delay) {
        is_announcement_due = true;
        announcement_time = Clock::now() + delay;
    };
    do {
        if (m_manager.take_new_topic()) {
            announce_in(NEW_TOPIC_DELAY);
        }
        try {
            for (FollowedFile& file : files) {
                take_up_change(file);
            }
            if (is_announcement_due && Clock::now() >= announcement_time && listener.can_hear()) {
                m_manager.announce();
                is_announcement_due = false;
            }
        } catch (const std::exception& error) {
            // An announcement also brings to routers what could not be sent.
            m_report(std::string(error.what()) + "; will announce again");
            announce_in(ANNOUNCEMENT_RETRY);
        }
    } while (!wait_for_stop(m_settings.poll));
}

void ManagerService::take_up_change(FollowedFile& file) {
    if (!file.read_change()) {
        return;
    }
    const std::optional<NodeList> nodes = file.list();
    if (!nodes || (nodes->empty() && !m_settings.allow_empty)) {
        m_report(file.path() + " is not published" +
                 (nodes ? ", as it is empty and --allow-empty was not given" : "") +
                 ": what routers have stays");
        return;
    }
    const History history = m_store.history(file.kind().name);
    if (history.empty() || history.back().nodes != *nodes) {
        m_manager.publish(file.kind(), *nodes);
    }
}

} // namespace corvalin::tools
