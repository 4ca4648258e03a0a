#include "tests/support/kafka/conversation.h"

#include <algorithm>

namespace corvalin::test {

namespace {

const std::string ASSIGNED = ": assigned hosts: ";
const std::string DISPATCHED = "EVENT_DISPATCHER: dispatch to [";
const std::string DELIVERED = "MESSAGE_BROKER: message delivered to ";

std::size_t count_with(const std::vector<std::string>& lines, const std::string& text) {
    return static_cast<std::size_t>(
        std::count_if(lines.begin(), lines.end(),
                      [&text](const std::string& line) { return line.find(text) != std::string::npos; }));
}

} // namespace

void ConversationTest::start(const std::string& configuration) {
    m_router.emplace(broker(), topics());
    m_router->start(configuration);
    ASSERT_EQ(peer().receive_json(), router().list_request(MEDIA_NODES));
    ASSERT_EQ(peer().receive_json(), router().list_request(WRITER_NODES));
    ASSERT_TRUE(process().wait_until_receiving());
}

// Events of one partition are handled in their order, and this one is answered.
void ConversationTest::wait_until_handled() {
    publish(R"({"type":"config_manager_started"})");
    ASSERT_EQ(peer().receive_json(), router().versions_request());
    // We may have the answer before the router is told that it was delivered.
    ASSERT_TRUE(wait_until([&] {
        const std::vector<std::string> log = process().log();
        return count_with(log, DISPATCHED) == count_with(log, DELIVERED);
    }));
}

uint64_t ConversationTest::begin_session(uint8_t flags) {
    UdpSender(router().port()).send(start_packet().id(++m_sessions).seq(1).flags(flags).bytes());
    return m_sessions;
}

bool ConversationTest::new_session_reaches(UdpNode& node, uint8_t flags) {
    const uint64_t id = begin_session(flags);
    const auto packet = node.receive(std::chrono::seconds(5));
    return packet && id_of(*packet) == id;
}

std::string ConversationTest::hosts_of_new_session(uint8_t flags) {
    const std::size_t before = log_size();
    begin_session(flags);
    std::string hosts;
    EXPECT_TRUE(wait_until([&] {
        for (const std::string& line : log_from(before)) {
            const std::size_t place = line.find(ASSIGNED);
            if (place != std::string::npos) {
                hosts = line.substr(place + ASSIGNED.size());
            }
        }
        return !hosts.empty();
    }));
    return hosts;
}

std::vector<std::string> ConversationTest::log_from(std::size_t index) {
    const std::vector<std::string> log = process().log();
    return {log.begin() + static_cast<std::ptrdiff_t>(std::min(index, log.size())), log.end()};
}

std::string received_line(const std::string& type) {
    return "SYSTEM  | SERVICE: event [" + type + "] received";
}

} // namespace corvalin::test
