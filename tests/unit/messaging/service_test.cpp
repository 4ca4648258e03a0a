// The router's side of the configuration conversation, and the order of its start and stop.
#include "router/service.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "router/statistic_service.h"
#include "tests/support/local_address.h"
#include "tests/support/packet_builder.h"
#include "tests/support/refused_system_call.h"
#include "tests/support/waiting.h"
#include "tests/unit/messaging/service_fixture.h"

namespace {

using namespace corvalin;
using namespace corvalin::test;
using log::Level;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

constexpr uint8_t WRITER = 0x80;
constexpr uint8_t MEDIA = 0x40;

std::string text_of(const net::HostAddr& node) {
    return node.host + ":" + std::to_string(node.port) + " " + inet_ntoa(node.addr.sin_addr) + ":" +
           std::to_string(ntohs(node.addr.sin_port));
}

class ServiceTest : public BrokerFixture {
protected:
    void start_messaging() {
        assign_first();
        m_service.start_messaging();
        m_kafka.wait_until_idle();
        m_log.clear();
    }
    /// The nodes of the next sessions.
    Texts next_nodes(uint8_t flags, int count) {
        Texts nodes;
        for (int i = 0; i < count; ++i) {
            const Bytes bytes = start_packet().flags(flags).bytes();
            alignas(8) std::array<uint8_t, media::PACKET_MAX_BYTES> datagram{}; // as large as the pool's
            std::copy(bytes.begin(), bytes.end(), datagram.begin());
            unsigned long result = 1;
            const rc_ptr<media::Session> session(m_service.m_routing_manager->create_session(
                media::view_packet<media::StartPacket>(datagram.data()), result));
            for (const net::HostAddr& node : dynamic_cast<router::RoutingSession&>(*session).m_hosts) {
                nodes.push_back(text_of(node));
            }
        }
        return nodes;
    }
    Texts requests() const {
        Texts texts;
        for (const ProducedMessage& message : m_kafka.produced()) {
            texts.push_back(message.topic + " " + inflated(message.payload).substr(1));
        }
        return texts;
    }
    /// The lines of the module that begins so.
    Texts lines_of(const std::string& module) const {
        Texts texts = m_log.texts();
        std::erase_if(texts, [&](const std::string& text) { return text.rfind(module, 0) != 0; });
        return texts;
    }

    TestService m_service;
};

// ---- Shape

TEST_F(ServiceTest, a_new_service_has_its_names_a_closed_socket_and_no_dispatcher) {
    const TestService service;
    EXPECT_EQ(service.m_service_name, "router");
    EXPECT_EQ(service.m_application_name, "corvalinrouter");
    EXPECT_EQ(service.m_capabilities.to_ulong(), 1u);
    ASSERT_TRUE(service.m_socket);
    EXPECT_EQ(service.m_socket->descriptor(), -1);
    EXPECT_FALSE(service.m_socket->read_buffer);
    EXPECT_TRUE(service.m_routing_manager);
    EXPECT_FALSE(service.m_dispatcher);
    EXPECT_THAT(router::Service::m_configs, ElementsAre("corvalin_media_nodes", "corvalin_writer_nodes"));
    EXPECT_THAT(m_kafka.calls(), IsEmpty());
}

TEST_F(ServiceTest, the_build_version_is_a_line_in_quotes) {
    m_service.on_pre_start();
    EXPECT_THAT(m_log.texts(),
                ElementsAre(MatchesRegex("build version: \"[0-9]{6}:[0-9]{6} [0-9a-f]{16}@[^ \"]+\"")));
    EXPECT_EQ(m_log.lines()[0].level, Level::SYSTEM);
}

TEST_F(ServiceTest, group_and_topic_are_made_of_the_address_towards_the_first_broker_and_of_the_port) {
    struct Case {
        const char* description;
        const char* brokers;
        uint16_t port;
        const char* name;
    };
    const std::vector<Case> cases = {
        {"address and port", "127.0.0.1:9092", 7000, "corvalin_router_127o0o0o1_7000"},
        {"address alone", "127.0.0.1", 7000, "corvalin_router_127o0o0o1_7000"},
        {"the first of a list counts", "127.0.0.1:1,127.0.0.2:2", 7001, "corvalin_router_127o0o0o1_7001"},
        {"a list whose first has no port is no address", "127.0.0.1,127.0.0.2:2", 1, "corvalin_router__1"},
        {"a name", "localhost:9092", 7000, "corvalin_router__7000"},
        {"a name first in a list", "localhost:1,127.0.0.1:2", 7000, "corvalin_router__7000"},
        {"nothing", "", 0, "corvalin_router__0"},
        {"the last port", ":9092", 65535, "corvalin_router__65535"},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        m_service.m_kafka_config->m_kafka_broker = row.brokers;
        m_service.m_config->m_port = row.port;
        std::string group = "a";
        std::string topic = "b";
        m_service.on_set_kafka_params(group, topic);
        EXPECT_EQ(group, row.name);
        EXPECT_EQ(topic, row.name);
    }
}

// ---- Requests

TEST_F(ServiceTest, the_broker_gets_the_settings_of_the_configuration) {
    assign_first();
    m_service.start_messaging();
    EXPECT_THAT(m_kafka.calls({"subscribe"}), ElementsAre("subscribe wide,own"));
    const Texts calls = m_kafka.calls();
    EXPECT_THAT(calls, ::testing::Contains("set global group.id=circle"));
    EXPECT_THAT(calls, ::testing::Contains("set global metadata.broker.list=127.0.0.1:9092").Times(2));
    EXPECT_EQ(m_kafka.consume_timeout_ms(), 1000);
    EXPECT_THAT(m_log.lines(Level::WARNING), IsEmpty()); // nobody else had asked for messages
}

TEST_F(ServiceTest, requests_are_written_with_a_blank_behind_each_comma_and_name_the_services_own_topic) {
    start_messaging();
    m_service.event_request_config("corvalin_media_nodes");
    m_service.event_request_config("corvalin_writer_nodes");
    m_service.on_event("{\"type\":\"config_manager_started\"}");
    EXPECT_THAT(requests(),
                ElementsAre("request {\"type\":\"configuration_request\", "
                            "\"configuration\":\"corvalin_media_nodes\", \"config_topic\":\"own\"}",
                            "request {\"type\":\"configuration_request\", "
                            "\"configuration\":\"corvalin_writer_nodes\", \"config_topic\":\"own\"}",
                            "request {\"type\":\"get_versions\", \"config_topic\":\"own\"}"));
}

TEST_F(ServiceTest, a_request_that_cannot_be_sent_is_not_sent_again_until_an_event_asks_for_it) {
    start_messaging();
    m_kafka.produce_answers = {RdKafka::ERR_MSG_SIZE_TOO_LARGE};
    m_service.on_event("{\"type\":\"config_manager_started\"}");
    EXPECT_THAT(m_log.texts(Level::ERROR), ElementsAre("MESSAGE_BROKER: failed to send message to [request]; "
                                                       "error (10): Broker: Message size too large"));
    EXPECT_EQ(m_kafka.produced().size(), 1u);
    m_service.on_event("{\"type\":\"config_manager_started\"}");
    EXPECT_EQ(m_log.lines(Level::ERROR).size(), 1u);
    EXPECT_EQ(m_kafka.produced().size(), 2u);
}

// ---- Announcements

TEST_F(ServiceTest, a_manager_that_starts_is_asked_for_the_versions) {
    start_messaging();
    m_service.on_event("{\"type\":\"config_manager_started\", \"data\":7}");
    EXPECT_THAT(m_log.texts(Level::SYSTEM),
                ElementsAre("SERVICE: event [config_manager_started] received",
                            "SERVICE: requesting config versions",
                            "EVENT_DISPATCHER: dispatch to [request]: "
                            "{\"type\":\"get_versions\", \"config_topic\":\"own\"}"));
    EXPECT_EQ(m_log.lines().back().file, "messaging_event_dispatcher");
    EXPECT_EQ(m_log.lines()[1].file, "service");
}

TEST_F(ServiceTest, a_manager_that_starts_while_the_service_does_is_asked_when_there_is_a_producer) {
    assign_first();
    std::atomic<pid_t> consumer{0};
    m_kafka.in_consume([&consumer](RdKafka::KafkaConsumer&, RdKafka::RebalanceCb&) { consumer = gettid(); });
    m_kafka.deliver("wide", deflated(std::string(1, '\0') + R"({"type":"config_manager_started"})"));
    const auto lines = [this] { return lines_of("SERVICE").size() + requests().size(); };
    m_kafka.on_create_producer = [&] {
        EXPECT_TRUE(
            m_log.wait_for(R"(EVENT_DISPATCHER: JSON event received: {"type":"config_manager_started"})"));
        EXPECT_TRUE(wait_until_asleep(consumer));
        EXPECT_EQ(lines(), 0u);
    };
    m_service.start_messaging();
    ASSERT_TRUE(m_kafka.wait_until_idle());
    EXPECT_EQ(lines(), 3u);
    EXPECT_THAT(requests(), ElementsAre(R"(request {"type":"get_versions", "config_topic":"own"})"));
}

TEST_F(ServiceTest, a_version_that_differs_either_way_is_asked_for_and_the_table_stays) {
    start_messaging();
    m_service.m_config->set_component_version_if_higher("corvalin_media_nodes", 5);
    m_service.m_config->set_component_version_if_higher("corvalin_writer_nodes", 5);
    struct Case {
        const char* description;
        const char* data;
        Texts lines; // behind the first
        std::size_t requests;
    };
    const std::string up_to_date = "SERVICE: version is up-to-date, nothing to update";
    const std::vector<Case> cases = {
        {"both equal", "{\"corvalin_media_nodes\":5, \"corvalin_writer_nodes\":5}", {up_to_date}, 0},
        {"one lower",
         "{\"corvalin_media_nodes\":5, \"corvalin_writer_nodes\":4}",
         {"SERVICE: config [corvalin_writer_nodes] version updated from (5) to (4)"},
         1},
        {"one higher",
         "{\"corvalin_media_nodes\":6, \"corvalin_writer_nodes\":5}",
         {"SERVICE: config [corvalin_media_nodes] version updated from (5) to (6)"},
         1},
        {"both, in our order and not in theirs",
         "{\"corvalin_writer_nodes\":18446744073709551615, \"corvalin_media_nodes\":0}",
         {"SERVICE: config [corvalin_media_nodes] version updated from (5) to (0)",
          "SERVICE: config [corvalin_writer_nodes] version updated from (5) to (18446744073709551615)"},
         2},
        {"others", "{\"corvalin_other_nodes\":\"x\", \"type\":1}", {up_to_date}, 0},
        {"none", "{}", {up_to_date}, 0},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        m_log.clear();
        const std::size_t before = m_kafka.produced().size();
        m_service.on_event(std::string("{\"type\":\"config_versions\", \"data\":") + row.data + "}");
        Texts expected = row.lines;
        expected.insert(expected.begin(), "SERVICE: event [config_versions] received");
        EXPECT_EQ(lines_of("SERVICE: "), expected);
        EXPECT_EQ(m_log.texts(Level::SYSTEM).size(), expected.size() + row.requests);
        EXPECT_EQ(m_kafka.produced().size(), before + row.requests);
    }
    EXPECT_EQ(m_service.m_config->get_component_version("corvalin_media_nodes"), 5u);
    EXPECT_EQ(m_service.m_config->get_component_version("corvalin_writer_nodes"), 5u);
}

TEST_F(ServiceTest, each_version_is_asked_for_by_its_name) {
    start_messaging();
    m_service.on_event("{\"type\":\"config_versions\", \"data\":{\"corvalin_writer_nodes\":1}}");
    EXPECT_THAT(requests(),
                ElementsAre("request {\"type\":\"configuration_request\", "
                            "\"configuration\":\"corvalin_writer_nodes\", \"config_topic\":\"own\"}"));
}

TEST_F(ServiceTest, a_name_that_is_new_counts_as_version_0) {
    start_messaging();
    m_service.on_event("{\"type\":\"config_versions\", \"data\":{\"corvalin_media_nodes\":0}}");
    EXPECT_THAT(m_log.texts(), ::testing::Contains("SERVICE: version is up-to-date, nothing to update"));
    EXPECT_THAT(requests(), IsEmpty());
    // It has been entered by that: a first list with version 0 is none any more.
    m_service.on_event("{\"type\":\"corvalin_media_nodes\", \"version\":0, \"data\":[]}");
    EXPECT_EQ(m_log.texts().back(), "SERVICE: No media nodes configuration update is required");
}

TEST_F(ServiceTest, versions_without_data_are_a_line) {
    start_messaging();
    m_service.on_event("{\"type\":\"config_versions\"}");
    EXPECT_THAT(lines_of("SERVICE: "), ElementsAre("SERVICE: event [config_versions] received",
                                                   "SERVICE: field \"data\" is not found"));
    EXPECT_EQ(m_log.lines().back().level, Level::ERROR);
    EXPECT_THAT(requests(), IsEmpty());
}

// ---- Lists: each test for both kinds

struct Kind {
    const char* word;
    uint8_t flag;
    bool router::Configuration::*discard;

    std::string type() const { return std::string("corvalin_") + word + "_nodes"; }
    std::string received() const { return "SERVICE: event [" + type() + "] received"; }
    std::string not_required() const {
        return std::string("SERVICE: No ") + word + " nodes configuration update is required";
    }
    std::string discarded() const {
        return std::string("SERVICE: discarding ") + word + " nodes, no configuration update is required";
    }
    std::string event(const std::string& members) const {
        return "{\"type\":\"" + type() + "\"" + members + "}";
    }
};

class ServiceListTest : public ServiceTest, public ::testing::WithParamInterface<Kind> {
protected:
    ServiceListTest() { start_messaging(); }

    void take(const std::string& members) {
        m_log.clear();
        m_service.on_event(GetParam().event(members));
    }
    Texts nodes(int count) { return next_nodes(GetParam().flag, count); }
    uint8_t other_flag() const { return static_cast<uint8_t>(GetParam().flag ^ (WRITER | MEDIA)); }
    uint64_t version() { return m_service.m_config->get_component_version(GetParam().type()); }
};

INSTANTIATE_TEST_SUITE_P(Both, ServiceListTest,
                         ::testing::Values(Kind{"media", MEDIA, &router::Configuration::m_discard_media_node},
                                           Kind{"writer", WRITER,
                                                &router::Configuration::m_discard_writer_node}),
                         [](const auto& kind) { return kind.param.word; });

TEST_P(ServiceListTest, a_list_is_taken_by_the_sessions_to_come_and_by_its_kind_only) {
    take(", \"version\":1, \"data\":[{\"ip\":\"127.0.0.5\", \"port\":5000}, {\"port\":0, \"ip\":\"::1\"}]");
    EXPECT_THAT(lines_of("SERVICE: "), ElementsAre(GetParam().received()));
    EXPECT_EQ(m_log.count(Level::SYSTEM, GetParam().received()), 1u);
    EXPECT_THAT(nodes(2), ElementsAre("127.0.0.5:5000 127.0.0.5:5000", "::1:0 0.0.0.0:0"));
    EXPECT_THAT(next_nodes(other_flag(), 2), IsEmpty());
    EXPECT_EQ(version(), 1u);
}

TEST_P(ServiceListTest, only_a_higher_version_is_taken_but_any_first_one) {
    struct Case {
        const char* description;
        const char* version;
        bool is_taken;
    };
    const std::vector<Case> cases = {
        {"the first", "0", true},
        {"the same again", "0", false},
        {"higher by one", "1", true},
        {"the same again", "1", false},
        {"lower", "0", false},
        {"higher than 32 bits", "4294967296", true},
        {"lower again", "4294967295", false},
        {"the highest", "18446744073709551615", true},
        {"the highest again", "18446744073709551615", false},
    };
    int port = 5000;
    int taken_port = 0;
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        ++port;
        taken_port = row.is_taken ? port : taken_port;
        take(std::string(", \"version\":") + row.version +
             ", \"data\":[{\"ip\":\"127.0.0.1\", \"port\":" + std::to_string(port) + "}]");
        if (row.is_taken) {
            EXPECT_THAT(lines_of("SERVICE: "), ElementsAre(GetParam().received()));
        } else {
            EXPECT_THAT(lines_of("SERVICE: "), ElementsAre(GetParam().received(), GetParam().not_required()));
            EXPECT_EQ(m_log.count(Level::SYSTEM, GetParam().not_required()), 1u);
        }
        const std::string node = "127.0.0.1:" + std::to_string(taken_port);
        EXPECT_THAT(nodes(1), ElementsAre(node + " " + node));
    }
}

TEST_P(ServiceListTest, a_list_with_members_that_are_missing_is_dropped_whole) {
    struct Case {
        const char* description;
        const char* members;
        const char* line;
    };
    const std::vector<Case> cases = {
        {"no version", ", \"data\":[]", "SERVICE: field \"version\" is not found"},
        {"neither", "", "SERVICE: field \"version\" is not found"},
        {"no version, and data of a wrong type", ", \"data\":7", "SERVICE: field \"version\" is not found"},
        {"no data", ", \"version\":1", "SERVICE: field \"data\" is not found"},
        {"no data, and a version of a wrong type", ", \"version\":\"1\"",
         "SERVICE: field \"data\" is not found"},
        {"an object", ", \"version\":1, \"data\":{}", "SERVICE: field \"data\" has invalid format"},
        {"null", ", \"version\":1, \"data\":null", "SERVICE: field \"data\" has invalid format"},
        {"a number", ", \"version\":1, \"data\":7", "SERVICE: field \"data\" has invalid format"},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        take(row.members);
        EXPECT_THAT(lines_of("SERVICE: "), ElementsAre(GetParam().received(), row.line));
        EXPECT_EQ(m_log.count(Level::ERROR, row.line), 1u);
    }
    // None of them has moved the version.
    take(", \"version\":0, \"data\":[{\"ip\":\"127.0.0.1\", \"port\":1}]");
    EXPECT_THAT(nodes(1), ElementsAre("127.0.0.1:1 127.0.0.1:1"));
}

TEST_P(ServiceListTest, a_flag_discards_lists_and_records_their_version) {
    m_service.m_config.get()->*GetParam().discard = true;
    take(", \"version\":3, \"data\":[{\"ip\":\"127.0.0.1\", \"port\":1}]");
    EXPECT_THAT(lines_of("SERVICE: "), ElementsAre(GetParam().received(), GetParam().discarded()));
    EXPECT_EQ(m_log.count(Level::SYSTEM, GetParam().discarded()), 1u);
    EXPECT_EQ(version(), 3u);
    take(", \"version\":3, \"data\":[{\"ip\":\"127.0.0.1\", \"port\":1}]");
    EXPECT_THAT(lines_of("SERVICE: "), ElementsAre(GetParam().received(), GetParam().not_required()));
    take(", \"version\":4, \"data\":[5]"); // its nodes are not looked at
    EXPECT_THAT(lines_of("SERVICE: "), ElementsAre(GetParam().received(), GetParam().discarded()));
    EXPECT_THAT(nodes(1), IsEmpty());
}

TEST_P(ServiceListTest, the_flag_of_the_other_kind_is_no_matter) {
    m_service.m_config->m_discard_media_node = true;
    m_service.m_config->m_discard_writer_node = true;
    m_service.m_config.get()->*GetParam().discard = false;
    take(", \"version\":3, \"data\":[{\"ip\":\"127.0.0.1\", \"port\":1}]");
    EXPECT_THAT(nodes(1), ElementsAre("127.0.0.1:1 127.0.0.1:1"));
}

TEST_P(ServiceListTest, a_list_without_a_good_node_empties_the_old_one) {
    for (const char* const data : {"[]", "[{}]", "[{\"ip\":\"127.0.0.1\"}]"}) {
        SCOPED_TRACE(data);
        const std::string next = std::to_string(version() + 1);
        take(", \"version\":" + next + ", \"data\":[{\"ip\":\"127.0.0.1\", \"port\":1}]");
        ASSERT_EQ(nodes(1).size(), 1u);
        take(", \"version\":" + std::to_string(version() + 1) + ", \"data\":" + data);
        EXPECT_THAT(nodes(1), IsEmpty());
    }
}

TEST_P(ServiceListTest, a_lower_version_is_asked_for_and_its_list_turned_away) {
    take(", \"version\":9, \"data\":[]");
    m_log.clear();
    m_service.on_event("{\"type\":\"config_versions\", \"data\":{\"" + GetParam().type() + "\":8}}");
    EXPECT_EQ(lines_of("SERVICE: ").back(),
              "SERVICE: config [" + GetParam().type() + "] version updated from (9) to (8)");
    EXPECT_EQ(requests().size(), 1u);
    take(", \"version\":8, \"data\":[]");
    EXPECT_EQ(lines_of("SERVICE: ").back(), GetParam().not_required());
}

// ---- Nodes

TEST_F(ServiceTest, bad_nodes_are_left_out_one_by_one) {
    rapidjson::Document array;
    array.Parse("[{\"ip\":\"10.0.0.1\",\"port\":1}, {\"port\":2}, {\"ip\":\"10.0.0.3\"}, {},"
                " {\"ip\":\"10.0.0.4\",\"port\":65535}, {\"ip\":\"10.0.0.5\",\"port\":65536},"
                " {\"ip\":5,\"port\":4294967295}, {\"ip\":\"10.0.0.6\",\"port\":70000},"
                " {\"ip\":\"a host\",\"port\":7,\"weight\":null}, {\"ip\":\"\",\"port\":0}]");
    ASSERT_FALSE(array.HasParseError());
    std::list<net::HostAddr> hosts{net::make_host_addr("10.0.0.9", 9)};
    TestService::read_hosts(array, hosts);
    Texts nodes;
    for (const net::HostAddr& host : hosts) {
        nodes.push_back(text_of(host));
        EXPECT_EQ(host.addr.sin_family, AF_INET);
    }
    EXPECT_THAT(nodes, ElementsAre("10.0.0.9:9 10.0.0.9:9", "10.0.0.1:1 10.0.0.1:1",
                                   "10.0.0.4:65535 10.0.0.4:65535", "a host:7 0.0.0.0:7", ":0 0.0.0.0:0"));
    EXPECT_THAT(m_log.texts(),
                ElementsAre("SERVICE: field \"ip\" is not found", "SERVICE: field \"port\" is not found",
                            "SERVICE: field \"ip\" is not found",
                            "SERVICE: field \"port\" is out of bound (65536)",
                            "SERVICE: field \"port\" is out of bound (4294967295)",
                            "SERVICE: field \"port\" is out of bound (70000)"));
    EXPECT_EQ(m_log.lines(Level::ERROR).size(), 6u);
}

// ---- Start and stop

TEST_F(ServiceTest, a_level_that_would_hide_errors_ends_the_start_before_anything_has_begun) {
    m_service.m_config->m_log_level = Level::SYSTEM;
    try {
        m_service.on_start();
        FAIL() << "no exception";
    } catch (const std::string& text) {
        EXPECT_EQ(text, "impossible to set log level stricter than 'error' level");
    }
    EXPECT_THAT(m_kafka.calls(), IsEmpty());
    EXPECT_EQ(m_service.m_socket->descriptor(), -1);
}

TEST_F(ServiceTest, a_start_asks_for_both_lists_and_a_stop_ends_what_was_started) {
    m_service.m_config->m_log_level = Level::DEBUG;
    m_service.m_config->m_media_nodes = {net::make_host_addr("10.0.0.1", 1)};
    m_service.m_config->m_writer_nodes = {net::make_host_addr("10.0.0.2", 2)};
    assign_first();
    // The stop comes while the start still waits for the broker, and is seen at the first look of the loop. No socket
    // is open by then.
    int descriptor_at_query = 0;
    m_kafka.on_query = [&] { // ahead of the assignment, which goes on beside the start that it has released
        descriptor_at_query = m_service.m_socket->descriptor();
        m_service.m_signal_stop = 1;
    };
    m_kafka.in_close([&](RdKafka::KafkaConsumer&, RdKafka::RebalanceCb&) {
        m_log.clear(); // what follows is the stop
        EXPECT_FALSE(m_service.m_dispatcher);
        m_service.event_request_config("late"); // as a handler might that is still at work
    });
    EXPECT_TRUE(m_service.on_start());
    EXPECT_EQ(static_cast<Level>(log::Logger::m_instance.m_level), Level::DEBUG);
    EXPECT_EQ(descriptor_at_query, -1);
    EXPECT_THAT(requests(),
                ElementsAre("request {\"type\":\"configuration_request\", "
                            "\"configuration\":\"corvalin_media_nodes\", \"config_topic\":\"own\"}",
                            "request {\"type\":\"configuration_request\", "
                            "\"configuration\":\"corvalin_writer_nodes\", \"config_topic\":\"own\"}"));
    EXPECT_THAT(next_nodes(WRITER | MEDIA, 1), ElementsAre("10.0.0.2:2 10.0.0.2:2", "10.0.0.1:1 10.0.0.1:1"));
    EXPECT_THAT(m_kafka.calls({"produce", "close", "wait_destroyed"}),
                ElementsAre("produce request", "produce request", "close", "wait_destroyed 5000"));
    EXPECT_FALSE(m_service.m_dispatcher);
    EXPECT_NE(m_service.m_socket->descriptor(), -1); // goes with the service
}

TEST_F(ServiceTest, a_port_in_use_fails_the_start_and_leaves_the_rest_to_the_destructor) {
    net::Socket other;
    ASSERT_TRUE(other.open(0, INADDR_ANY));
    auto service = std::make_unique<TestService>();
    service->m_config->m_port = local_port(other);
    assign_first();
    EXPECT_FALSE(service->on_start());
    EXPECT_TRUE(service->m_dispatcher);
    EXPECT_THAT(m_kafka.calls({"close"}), IsEmpty());
    router::StatisticService& statistic = router::StatisticService::Instance;
    EXPECT_EQ(statistic.m_port, local_port(other));
    EXPECT_TRUE(statistic.m_has_port);
    EXPECT_FALSE(statistic.m_logging_enabled);
    service.reset();
    EXPECT_THAT(m_kafka.calls({"close", "wait_destroyed"}), ElementsAre("close", "wait_destroyed 5000"));
    EXPECT_EQ(statistic.stop(), 0); // it had been left running
}

TEST_F(ServiceTest, without_a_forwarding_socket_the_start_fails_ahead_of_the_receiving_one) {
    assign_first();
    bool is_started = true;
    with_refused_system_call(SYS_socket, EMFILE, [&] { is_started = m_service.on_start(); });
    EXPECT_FALSE(is_started);
    EXPECT_THAT(m_log.texts(Level::ERROR),
                ElementsAre("SOCKET[ ]: failed to create a socket, error (24): Too many open files"));
    EXPECT_EQ(m_service.m_socket->descriptor(), -1);
    EXPECT_EQ(requests().size(), 2u); // those go out before any socket is open
    EXPECT_TRUE(m_service.m_dispatcher);
    EXPECT_EQ(router::StatisticService::Instance.stop(), 0); // it had been left running
}

} // namespace
