// Node lists from the manager: which are taken, what of them is used, and what running sessions notice.
#include "tests/support/kafka/conversation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace corvalin::test;
using ::testing::ElementsAre;

class NodeListTest : public ConversationTest {
protected:
    static std::string not_required(const std::string& word) {
        return "SYSTEM  | SERVICE: No " + word + " nodes configuration update is required";
    }

    /// The lines of the service since `index`, without those of the event that synchronises.
    std::vector<std::string> service_lines(std::size_t index) {
        std::vector<std::string> lines;
        for (const std::string& line : log_from(index)) {
            if (line.find("SERVICE: ") != std::string::npos &&
                line.find("config_manager_started") == std::string::npos &&
                line.find("requesting config versions") == std::string::npos) {
                lines.push_back(line);
            }
        }
        return lines;
    }

    UdpNode m_first;
    UdpNode m_second;
};

TEST_P(NodeListTest, a_first_list_of_version_0_is_taken_and_a_second_one_is_not) {
    start();
    publish_list(WRITER_NODES, 0, {&m_first});
    publish_list(WRITER_NODES, 0, {&m_second});
    wait_until_handled();
    EXPECT_EQ(hosts_of_new_session(WRITER), m_first.address());
    EXPECT_EQ(process().log_count(not_required("writer")), 1u);
}

TEST_P(NodeListTest, only_a_higher_version_is_taken) {
    start();
    const struct {
        uint64_t version;
        bool is_taken;
    } events[] = {{7, true}, {7, false},         {6, false},         {0, false},
                  {8, true}, {UINT64_MAX, true}, {UINT64_MAX, false}};
    const UdpNode* current = nullptr;
    for (const auto& event : events) {
        const UdpNode* const other = current == &m_first ? &m_second : &m_first;
        const std::size_t before = log_size();
        publish_list(MEDIA_NODES, event.version, {other});
        wait_until_handled();
        current = event.is_taken ? other : current;
        EXPECT_EQ(hosts_of_new_session(MEDIA), current->address()) << event.version;
        EXPECT_EQ(service_lines(before).size(), event.is_taken ? 1u : 2u) << event.version;
    }
    EXPECT_EQ(process().log_count(not_required("media")), 4u);
}

TEST_P(NodeListTest, lists_of_both_kinds_come_on_either_topic_with_versions_of_their_own) {
    start();
    publish_list(MEDIA_NODES, 5, {&m_first});
    wait_until_handled();
    peer().send_json(topics().broadcast, node_list_event(WRITER_NODES, 1, {&m_second}));
    EXPECT_TRUE(process().wait_for_log(received_line(WRITER_NODES)));
    // The host list is exchanged a moment after that line.
    EXPECT_TRUE(wait_until([&] { return hosts_of_new_session(WRITER) == m_second.address(); }));
    EXPECT_EQ(hosts_of_new_session(BOTH), m_second.address() + " " + m_first.address());
}

TEST_P(NodeListTest, running_sessions_stay_on_their_nodes_and_new_ones_take_the_new_list) {
    start();
    publish_list(WRITER_NODES, 1, {&m_first});
    wait_until_handled();
    const uint64_t id = begin_session(WRITER);
    EXPECT_TRUE(m_first.receive().has_value());
    publish_list(WRITER_NODES, 2, {&m_second});
    wait_until_handled();

    UdpSender sender(router().port());
    sender.send(data_packet().id(id).seq(2).bytes());
    const auto packet = m_first.receive();
    ASSERT_TRUE(packet.has_value());
    EXPECT_EQ(seq_of(*packet), 2u);
    EXPECT_TRUE(new_session_reaches(m_second, WRITER));
    sender.send(terminate_packet().id(id).seq(3).bytes());
    EXPECT_TRUE(m_first.receive().has_value());
    EXPECT_FALSE(m_second.has_datagram());
}

TEST_P(NodeListTest, an_empty_list_of_a_higher_version_empties_the_list) {
    start();
    EXPECT_EQ(hosts_of_new_session(BOTH), "-") << "no list yet";
    publish_list(WRITER_NODES, 1, {&m_first});
    wait_until_handled();
    EXPECT_EQ(hosts_of_new_session(BOTH), m_first.address());
    publish_list(WRITER_NODES, 2, {});
    wait_until_handled();
    EXPECT_EQ(hosts_of_new_session(BOTH), "-");
}

TEST_P(NodeListTest, a_list_of_nothing_but_bad_nodes_empties_the_list) {
    start();
    publish_list(WRITER_NODES, 1, {&m_first});
    publish(R"({"type":"corvalin_writer_nodes","version":2,"data":[{}]})");
    wait_until_handled();
    EXPECT_EQ(hosts_of_new_session(WRITER), "-");
}

TEST_P(NodeListTest, bad_nodes_are_left_out_and_their_neighbours_stay) {
    start();
    const std::size_t before = log_size();
    publish(
        R"({"type":"corvalin_writer_nodes","version":1,"note":[1],"data":[)"
        R"({"ip":"127.0.0.1","port":1,"name":"first"},{"port":2},{"ip":"127.0.0.1"},)"
        R"({"ip":"127.0.0.1","port":70000},{"ip":"127.0.0.1","port":65536},{"ip":"127.0.0.1","port":65535},)"
        R"({"ip":"127.0.0.1","port":4294967295},{"ip":"no address","port":3}]})");
    wait_until_handled();
    EXPECT_THAT(service_lines(before),
                ElementsAre(received_line(WRITER_NODES), R"(ERROR   | SERVICE: field "ip" is not found)",
                            R"(ERROR   | SERVICE: field "port" is not found)",
                            R"(ERROR   | SERVICE: field "port" is out of bound (70000))",
                            R"(ERROR   | SERVICE: field "port" is out of bound (65536))",
                            R"(ERROR   | SERVICE: field "port" is out of bound (4294967295))"));
    for (const char* hosts : {"127.0.0.1:1", "127.0.0.1:65535", "no address:3", "127.0.0.1:1"}) {
        EXPECT_EQ(hosts_of_new_session(WRITER), hosts);
    }
}

TEST_P(NodeListTest, an_event_that_lacks_a_field_changes_nothing_not_even_the_version) {
    start();
    publish_list(WRITER_NODES, 1, {&m_first});
    wait_until_handled();
    const struct {
        const char* json;
        const char* line;
    } cases[] = {
        {R"({"type":"corvalin_writer_nodes","data":[]})", R"(field "version" is not found)"},
        {R"({"type":"corvalin_writer_nodes","version":2})", R"(field "data" is not found)"},
        {R"({"type":"corvalin_writer_nodes"})", R"(field "version" is not found)"},
        {R"({"type":"corvalin_writer_nodes","version":2,"data":{}})", R"(field "data" has invalid format)"},
        {R"({"type":"corvalin_writer_nodes","version":2,"data":null})", R"(field "data" has invalid format)"},
    };
    for (const auto& row : cases) {
        const std::size_t before = log_size();
        publish(row.json);
        wait_until_handled();
        EXPECT_THAT(service_lines(before),
                    ElementsAre(received_line(WRITER_NODES), "ERROR   | SERVICE: " + std::string(row.line)))
            << row.json;
    }
    EXPECT_EQ(hosts_of_new_session(WRITER), m_first.address());
    publish_list(WRITER_NODES, 2, {&m_second});
    wait_until_handled();
    EXPECT_EQ(hosts_of_new_session(WRITER), m_second.address());
}

TEST_P(NodeListTest, a_discarded_list_moves_its_version_and_nothing_else) {
    start("discard_media_node\nwriter_node=" + m_first.address() + "\n"); // which discards writer lists too
    const std::size_t before = log_size();
    for (int i = 0; i < 2; ++i) {
        publish_list(MEDIA_NODES, 3, {&m_second});
        publish_list(WRITER_NODES, 3, {&m_second});
    }
    wait_until_handled();
    EXPECT_THAT(service_lines(before),
                ElementsAre(received_line(MEDIA_NODES),
                            "SYSTEM  | SERVICE: discarding media nodes, no configuration update is required",
                            received_line(WRITER_NODES),
                            "SYSTEM  | SERVICE: discarding writer nodes, no configuration update is required",
                            received_line(MEDIA_NODES), not_required("media"), received_line(WRITER_NODES),
                            not_required("writer")));
    EXPECT_EQ(hosts_of_new_session(BOTH), m_first.address());
}

INSTANTIATE_TEST_SUITE_P(, NodeListTest, BOTH_BROKERS, broker_test_name);

class VersionsTest : public NodeListTest {
protected:
    static std::string updated(const std::string& name, uint64_t from, uint64_t to) {
        return "SYSTEM  | SERVICE: config [" + name + "] version updated from (" + std::to_string(from) +
               ") to (" + std::to_string(to) + ")";
    }
    static constexpr const char* UP_TO_DATE = "SYSTEM  | SERVICE: version is up-to-date, nothing to update";
};

TEST_P(VersionsTest, each_list_whose_version_differs_is_asked_for) {
    start();
    publish_list(WRITER_NODES, 4, {&m_first});
    wait_until_handled();
    std::size_t before = log_size();
    publish(R"({"type":"config_versions","data":{"corvalin_writer_nodes":5,"corvalin_media_nodes":1}})");
    EXPECT_EQ(peer().receive_json(), router().list_request(MEDIA_NODES));
    EXPECT_EQ(peer().receive_json(), router().list_request(WRITER_NODES));
    wait_until_handled();
    EXPECT_THAT(service_lines(before), ElementsAre(received_line("config_versions"),
                                                   updated(MEDIA_NODES, 0, 1), updated(WRITER_NODES, 4, 5)));

    before = log_size();
    publish_list(WRITER_NODES, 5, {&m_second});
    publish(R"({"type":"config_versions","data":{"corvalin_writer_nodes":5,"corvalin_media_nodes":0}})");
    wait_until_handled(); // whose answer is the next request: none came in between
    EXPECT_THAT(service_lines(before),
                ElementsAre(received_line(WRITER_NODES), received_line("config_versions"), UP_TO_DATE));
    EXPECT_EQ(hosts_of_new_session(WRITER), m_second.address());
}

TEST_P(VersionsTest, a_lower_version_is_asked_for_and_its_list_is_turned_away) {
    start();
    publish_list(WRITER_NODES, 4, {&m_first});
    wait_until_handled();
    const std::size_t before = log_size();
    publish(R"({"type":"config_versions","data":{"corvalin_writer_nodes":3}})");
    EXPECT_EQ(peer().receive_json(), router().list_request(WRITER_NODES));
    publish_list(WRITER_NODES, 3, {&m_second});
    wait_until_handled();
    EXPECT_THAT(service_lines(before),
                ElementsAre(received_line("config_versions"), updated(WRITER_NODES, 4, 3),
                            received_line(WRITER_NODES), not_required("writer")));
    EXPECT_EQ(hosts_of_new_session(WRITER), m_first.address());
}

TEST_P(VersionsTest, names_of_other_configurations_and_new_names_of_version_0_are_nothing_to_update) {
    start();
    for (const char* json : {R"({"type":"config_versions","data":{"other":9,"corvalin_writer_nodes":0}})",
                             R"({"type":"config_versions","data":{}})"}) {
        const std::size_t before = log_size();
        publish(json);
        wait_until_handled();
        EXPECT_THAT(service_lines(before), ElementsAre(received_line("config_versions"), UP_TO_DATE)) << json;
    }
    const std::size_t before = log_size();
    publish(R"({"type":"config_versions"})");
    wait_until_handled();
    EXPECT_THAT(service_lines(before), ElementsAre(received_line("config_versions"),
                                                   R"(ERROR   | SERVICE: field "data" is not found)"));
}

INSTANTIATE_TEST_SUITE_P(, VersionsTest, BOTH_BROKERS, broker_test_name);

} // namespace
