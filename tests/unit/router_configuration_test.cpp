#include "router/configuration.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <array>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/captured_log.h"
#include "tests/support/temporary_folder.h"

namespace {

using namespace corvalin;
using log::Level;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

static_assert(
    std::is_base_of_v<conf::ConfigVersionExtension<
                          conf::StatExtension<conf::PortExtension<conf::LogExtenstion<conf::Configuration>>>>,
                      router::Configuration>);

class RouterConfigurationTest : public ::testing::Test {
protected:
    bool parse_file(const std::string& content) {
        return m_configuration.parse_file(m_folder.write_file("router.conf", content));
    }

    /// That the arguments fail with exactly this line and no other error.
    void expect_args_fail(const std::string& args, const std::string& error) {
        m_log.clear();
        router::Configuration configuration;
        EXPECT_FALSE(configuration.parse_args(args));
        EXPECT_THAT(m_log.texts(Level::ERROR), ElementsAre(error));
    }

    void expect_defaults(const router::Configuration& configuration) {
        EXPECT_EQ(configuration.m_log_level, Level::INFO);
        EXPECT_EQ(configuration.m_port, 0);
        EXPECT_TRUE(configuration.m_statistic_logging_enabled);
        EXPECT_FALSE(configuration.m_statistic_transfer_enabled);
        EXPECT_EQ(configuration.m_statistic_transfer_host.host, "");
        EXPECT_EQ(configuration.m_statistic_transfer_host.port, 0);
        EXPECT_THAT(configuration.m_versions, IsEmpty());
        EXPECT_FALSE(configuration.m_discard_media_node);
        EXPECT_FALSE(configuration.m_discard_writer_node);
        EXPECT_THAT(configuration.m_media_nodes, IsEmpty());
        EXPECT_THAT(configuration.m_writer_nodes, IsEmpty());
    }

    const test::TemporaryFolder m_folder;
    test::CapturedLog m_log;
    router::Configuration m_configuration;
};

std::vector<std::string> endpoints(const std::list<net::HostAddr>& nodes) {
    std::vector<std::string> texts;
    for (const net::HostAddr& node : nodes) {
        EXPECT_EQ(node.addr.sin_family, AF_INET);
        EXPECT_EQ(ntohs(node.addr.sin_port), node.port);
        std::array<char, INET_ADDRSTRLEN> address{};
        inet_ntop(AF_INET, &node.addr.sin_addr, address.data(), address.size());
        texts.push_back(node.host + ":" + std::to_string(node.port) + " " + address.data());
    }
    return texts;
}

TEST_F(RouterConfigurationTest, a_new_configuration_has_the_defaults) {
    expect_defaults(m_configuration);
}

TEST_F(RouterConfigurationTest, neither_a_file_nor_arguments_leave_the_defaults) {
    EXPECT_TRUE(m_configuration.parse_file(""));
    EXPECT_TRUE(m_configuration.parse_args(""));
    expect_defaults(m_configuration);
}

TEST_F(RouterConfigurationTest, every_option_of_a_file_reaches_its_field) {
    EXPECT_TRUE(parse_file("# the router\n"
                           "port = 5000\n"
                           "log_level = DEBUG\n"
                           "media_node = 10.0.0.1:5000\n"
                           "writer_node = 10.0.1.1:6000\n"
                           "statistic_logging_enabled = false\n"
                           "statistic_transfer_host = collector:9000\n"));
    EXPECT_EQ(m_configuration.m_port, 5000);
    EXPECT_EQ(m_configuration.m_log_level, Level::DEBUG);
    EXPECT_THAT(endpoints(m_configuration.m_media_nodes), ElementsAre("10.0.0.1:5000 10.0.0.1"));
    EXPECT_THAT(endpoints(m_configuration.m_writer_nodes), ElementsAre("10.0.1.1:6000 10.0.1.1"));
    EXPECT_TRUE(m_configuration.m_discard_media_node);
    EXPECT_TRUE(m_configuration.m_discard_writer_node);
    EXPECT_FALSE(m_configuration.m_statistic_logging_enabled);
    EXPECT_TRUE(m_configuration.m_statistic_transfer_enabled);
    EXPECT_EQ(m_configuration.m_statistic_transfer_host.host, "collector");
    EXPECT_EQ(m_configuration.m_statistic_transfer_host.port, 9000);
    EXPECT_THAT(m_log.texts(Level::WARNING), IsEmpty());
}

TEST_F(RouterConfigurationTest, arguments_win_over_the_file) {
    EXPECT_TRUE(parse_file("port=5000\nlog_level=DEBUG\n"));
    EXPECT_TRUE(m_configuration.parse_args("port=6000"));
    EXPECT_EQ(m_configuration.m_port, 6000);
    EXPECT_EQ(m_configuration.m_log_level, Level::DEBUG);
}

// ---- Nodes

TEST_F(RouterConfigurationTest, a_node_list_in_a_file_gives_its_nodes_and_sets_the_discard_flag) {
    EXPECT_TRUE(parse_file("media_node=10.0.0.1:5000,10.0.0.2:5000\n"));
    EXPECT_THAT(endpoints(m_configuration.m_media_nodes),
                ElementsAre("10.0.0.1:5000 10.0.0.1", "10.0.0.2:5000 10.0.0.2"));
    EXPECT_TRUE(m_configuration.m_discard_media_node);
    EXPECT_THAT(m_configuration.m_writer_nodes, IsEmpty());
    EXPECT_FALSE(m_configuration.m_discard_writer_node);
}

TEST_F(RouterConfigurationTest, a_node_list_in_arguments_is_written_with_doubled_commas) {
    EXPECT_TRUE(m_configuration.parse_args("writer_node=10.0.0.1:5000,,10.0.0.2:5001"));
    EXPECT_THAT(endpoints(m_configuration.m_writer_nodes),
                ElementsAre("10.0.0.1:5000 10.0.0.1", "10.0.0.2:5001 10.0.0.2"));
    EXPECT_TRUE(m_configuration.m_discard_writer_node);
    EXPECT_THAT(m_configuration.m_media_nodes, IsEmpty());
    EXPECT_FALSE(m_configuration.m_discard_media_node);
}

TEST_F(RouterConfigurationTest, several_node_lines_add_up) {
    EXPECT_TRUE(
        parse_file("media_node=10.0.0.1:1\nwriter_node=10.0.0.9:9\nmedia_node=10.0.0.2:2,10.0.0.1:1\n"));
    EXPECT_TRUE(m_configuration.parse_args("media_node=10.0.0.3:3"));
    EXPECT_THAT(endpoints(m_configuration.m_media_nodes),
                ElementsAre("10.0.0.1:1 10.0.0.1", "10.0.0.2:2 10.0.0.2", "10.0.0.1:1 10.0.0.1",
                            "10.0.0.3:3 10.0.0.3"));
    EXPECT_THAT(endpoints(m_configuration.m_writer_nodes), ElementsAre("10.0.0.9:9 10.0.0.9"));
}

TEST_F(RouterConfigurationTest, a_node_list_without_a_good_item_fails_the_configuration) {
    expect_args_fail(
        "media_node=10.0.0.1:x",
        "CONFIGURATION: failed to set option [media_node] to [10.0.0.1:x]: unexpected value format");
    expect_args_fail(
        "writer_node=10.0.0.1:x",
        "CONFIGURATION: failed to set option [writer_node] to [10.0.0.1:x]: unexpected value format");
    // Port ranges look as if they worked.
    expect_args_fail(
        "media_node=10.0.0.1:5000-5002",
        "CONFIGURATION: failed to set option [media_node] to [10.0.0.1:5000-5002]: unexpected value format");
    expect_args_fail("media_node=,,",
                     "CONFIGURATION: failed to set option [media_node] to [,]: unexpected value format");
}

TEST_F(RouterConfigurationTest, a_refused_node_list_sets_no_discard_flag) {
    EXPECT_FALSE(m_configuration.parse_args("media_node=10.0.0.1:x"));
    EXPECT_FALSE(m_configuration.m_discard_media_node);
    EXPECT_FALSE(m_configuration.parse_args("writer_node=10.0.0.1:x"));
    EXPECT_FALSE(m_configuration.m_discard_writer_node);
}

TEST_F(RouterConfigurationTest, one_good_item_is_enough_and_bad_ones_are_dropped) {
    EXPECT_TRUE(parse_file("media_node=10.0.0.1:x,10.0.0.2:5000,10.0.0.3:70000\n"));
    EXPECT_THAT(endpoints(m_configuration.m_media_nodes), ElementsAre("10.0.0.2:5000 10.0.0.2"));
}

TEST_F(RouterConfigurationTest, a_list_that_yields_nothing_succeeds_behind_one_that_filled_it) {
    EXPECT_TRUE(parse_file("media_node=10.0.0.1:5000\nmedia_node=10.0.0.2:x\n"));
    EXPECT_THAT(endpoints(m_configuration.m_media_nodes), ElementsAre("10.0.0.1:5000 10.0.0.1"));
    // The lists are judged each for itself.
    EXPECT_FALSE(m_configuration.parse_args("writer_node=10.0.0.2:x"));
}

TEST_F(RouterConfigurationTest, a_node_without_a_port_has_port_zero_and_one_by_name_no_address) {
    EXPECT_TRUE(parse_file("media_node=10.0.0.1,node-a:5000\n"));
    EXPECT_THAT(endpoints(m_configuration.m_media_nodes),
                ElementsAre("10.0.0.1:0 10.0.0.1", "node-a:5000 0.0.0.0"));
}

// ---- Flags

TEST_F(RouterConfigurationTest, discard_flags_set_their_own_field) {
    EXPECT_TRUE(m_configuration.parse_args("discard_media_node"));
    EXPECT_TRUE(m_configuration.m_discard_media_node);
    EXPECT_FALSE(m_configuration.m_discard_writer_node);
    EXPECT_THAT(m_configuration.m_media_nodes, IsEmpty());

    router::Configuration other;
    EXPECT_TRUE(other.parse_args("discard_writer_node"));
    EXPECT_FALSE(other.m_discard_media_node);
    EXPECT_TRUE(other.m_discard_writer_node);
    EXPECT_THAT(m_log.texts(Level::SYSTEM),
                ElementsAre("CONFIGURATION: reading from args: discard_media_node",
                            "CONFIGURATION: flag [discard_media_node] applied",
                            "CONFIGURATION: reading from args: discard_writer_node",
                            "CONFIGURATION: flag [discard_writer_node] applied"));
}

TEST_F(RouterConfigurationTest, a_discard_flag_with_a_value_is_an_unknown_option_without_effect) {
    EXPECT_TRUE(m_configuration.parse_args("discard_media_node=true,discard_writer_node=true"));
    expect_defaults(m_configuration);
    EXPECT_THAT(m_log.texts(Level::WARNING),
                ElementsAre("CONFIGURATION: option [discard_media_node] is unknown",
                            "CONFIGURATION: option [discard_writer_node] is unknown"));
}

TEST_F(RouterConfigurationTest, a_value_option_without_a_value_is_an_unknown_flag_without_effect) {
    const std::vector<std::string> names = {"media_node",
                                            "writer_node",
                                            "statistic_logging_enabled",
                                            "statistic_transfer_enabled",
                                            "statistic_transfer_host",
                                            "port",
                                            "log_level"};
    for (const std::string& name : names) {
        for (const std::string& text : {name, name + "=", name + "= "}) {
            SCOPED_TRACE(text);
            m_log.clear();
            EXPECT_TRUE(parse_file(text));
            expect_defaults(m_configuration);
            EXPECT_EQ(m_log.texts(Level::WARNING),
                      std::vector<std::string>{"CONFIGURATION: flag [" + name + "] is unknown"});
        }
    }
}

TEST_F(RouterConfigurationTest, keys_are_compared_exactly) {
    EXPECT_TRUE(
        m_configuration.parse_args("Port=1,PORT=1, port=1,ports=1,log-level=DEBUG,Media_node=10.0.0.1:1,"
                                   "Discard_media_node"));
    expect_defaults(m_configuration);
    EXPECT_EQ(m_log.texts(Level::WARNING).size(), 7u);
}

TEST_F(RouterConfigurationTest, a_kafka_key_in_the_service_file_is_only_warned_about) {
    EXPECT_TRUE(parse_file("kafka_broker=10.0.0.1:9092\nport=5000\n"));
    EXPECT_THAT(m_log.texts(Level::WARNING), ElementsAre("CONFIGURATION: option [kafka_broker] is unknown"));
    EXPECT_EQ(m_configuration.m_port, 5000);
}

TEST_F(RouterConfigurationTest, an_unknown_option_reaches_the_end_of_the_chain) {
    std::stringstream message;
    EXPECT_EQ(m_configuration.set_value("some_key", "value", message), conf::option_unknown);
    EXPECT_EQ(m_configuration.set_flag("some_key", message), conf::option_unknown);
    EXPECT_EQ(message.str(), "");
}

// ---- Bad values

TEST_F(RouterConfigurationTest, a_value_that_is_not_acceptable_fails_the_configuration) {
    struct Case {
        const char* name;
        const char* value;
    };
    for (const Case row :
         {Case{"statistic_logging_enabled", "TRUE"}, Case{"statistic_transfer_enabled", "1"},
          Case{"statistic_transfer_host", "collector"}, Case{"log_level", "info"}, Case{"port", "65536"},
          Case{"port", "80 x"}, Case{"port", "x"}, Case{"port", "-1"}}) {
        expect_args_fail(std::string(row.name) + "=" + row.value,
                         std::string("CONFIGURATION: failed to set option [") + row.name + "] to [" +
                             row.value + "]: unexpected value format");
    }
}

TEST_F(RouterConfigurationTest, port_65535_is_accepted) {
    EXPECT_TRUE(m_configuration.parse_args("port=65535"));
    EXPECT_EQ(m_configuration.m_port, 65535);
}

TEST_F(RouterConfigurationTest, every_level_is_accepted_and_the_running_threshold_stays) {
    for (const char* const name : {"SYSTEM", "ERROR", "WARNING", "INFO", "DEBUG", "TRACE"}) {
        router::Configuration configuration;
        EXPECT_TRUE(configuration.parse_args(std::string("log_level=") + name));
        EXPECT_STREQ(log::level_to_string(configuration.m_log_level), name);
        EXPECT_EQ(static_cast<Level>(log::Logger::m_instance.m_level), Level::INFO);
    }
}

TEST_F(RouterConfigurationTest, a_failed_option_keeps_the_later_ones_from_being_set) {
    EXPECT_FALSE(m_configuration.parse_args("port=1,log_level=info,statistic_logging_enabled=false"));
    EXPECT_EQ(m_configuration.m_port, 1);
    EXPECT_TRUE(m_configuration.m_statistic_logging_enabled);
}

} // namespace
