// conversation: a test whose router is subscribed and receives, with the peer in the manager's place.
#pragma once

#include "tests/support/kafka/kafka_fixture.h"
#include "tests/support/packet_builder.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace corvalin::test {

constexpr const char* MEDIA_NODES = "corvalin_media_nodes";
constexpr const char* WRITER_NODES = "corvalin_writer_nodes";

class ConversationTest : public KafkaTest {
protected:
    /// Starts the router, takes its two requests and waits until it receives.
    void start(const std::string& configuration = "");

    KafkaRouter& router() { return *m_router; }
    RouterProcess& process() { return m_router->process(); }

    /// Sends an event to the router's own topic.
    void publish(const std::string& json) { peer().send_json(router().topic(), json); }
    void publish_list(const std::string& name, uint64_t version, const std::vector<const UdpNode*>& nodes) {
        publish(node_list_event(name, version, nodes));
    }
    /// Returns when the router has handled all that was sent to its own topic before.
    void wait_until_handled();

    /// Begins a session with these flags and gives its id.
    uint64_t begin_session(uint8_t flags);
    /// True if a new session with these flags reaches the node.
    bool new_session_reaches(UdpNode& node, uint8_t flags);
    /// The addresses behind "assigned hosts:" of a new session, "-" for none.
    std::string hosts_of_new_session(uint8_t flags);

    /// The log from the given line on.
    std::vector<std::string> log_from(std::size_t index);
    std::size_t log_size() { return process().log().size(); }

    static constexpr uint8_t WRITER = 0x80;
    static constexpr uint8_t MEDIA = 0x40;
    static constexpr uint8_t BOTH = 0xC0;

private:
    std::optional<KafkaRouter> m_router;
    uint64_t m_sessions = 0;
};

/// "SYSTEM  | SERVICE: event [NAME] received"
std::string received_line(const std::string& type);

} // namespace corvalin::test
