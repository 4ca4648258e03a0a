#include "corvalin_lib/conf_extensions.h"

#include <array>
#include <limits>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/captured_log.h"

namespace {

using namespace corvalin;
using log::Level;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using LogConfiguration = conf::LogExtenstion<conf::Configuration>;
using PortConfiguration = conf::PortExtension<conf::Configuration>;
using StatConfiguration = conf::StatExtension<conf::Configuration>;
using VersionConfiguration = conf::ConfigVersionExtension<conf::Configuration>;

static_assert(std::is_base_of_v<conf::KafkaExtenstion<conf::Configuration>, conf::KafkaConfiguration>);

/// Keeps what the extension above it passes on, and answers a status that none of them gives.
class RecordingBase : public conf::Configuration {
public:
    static constexpr int STATUS = 17;

    int set_flag(const std::string& name, std::stringstream& message) override {
        m_calls.push_back(name);
        message << "flag";
        return STATUS;
    }
    int set_value(const std::string& name, const std::string& value, std::stringstream& message) override {
        m_calls.push_back(name + "=" + value);
        message << "value";
        return STATUS;
    }

    std::vector<std::string> m_calls;
};

int set_value(conf::Configuration& configuration, const std::string& name, const std::string& value) {
    std::stringstream message;
    const int status = configuration.set_value(name, value, message);
    EXPECT_EQ(message.str(), "");
    return status;
}

template <class Extension>
void expect_passes_on_what_it_does_not_know() {
    Extension configuration;
    std::stringstream message;
    EXPECT_EQ(configuration.set_value("other", "text", message), RecordingBase::STATUS);
    EXPECT_EQ(configuration.set_flag("other", message), RecordingBase::STATUS);
    EXPECT_EQ(message.str(), "valueflag");
    EXPECT_THAT(configuration.m_calls, ElementsAre("other=text", "other"));
}

TEST(ConfExtensionsTest, each_extension_passes_options_that_it_does_not_know_to_its_base) {
    expect_passes_on_what_it_does_not_know<conf::LogExtenstion<RecordingBase>>();
    expect_passes_on_what_it_does_not_know<conf::PortExtension<RecordingBase>>();
    expect_passes_on_what_it_does_not_know<conf::StatExtension<RecordingBase>>();
    expect_passes_on_what_it_does_not_know<conf::ConfigVersionExtension<RecordingBase>>();
    expect_passes_on_what_it_does_not_know<conf::KafkaExtenstion<RecordingBase>>();
}

TEST(ConfExtensionsTest, an_extension_keeps_its_own_options_from_its_base) {
    conf::StatExtension<conf::PortExtension<conf::LogExtenstion<conf::KafkaExtenstion<RecordingBase>>>>
        configuration;
    for (const char* const name :
         {"statistic_logging_enabled", "statistic_transfer_enabled", "statistic_transfer_host", "port",
          "log_level", "kafka_broker", "kafka_topic_broadcast", "kafka_topic_request"}) {
        EXPECT_NE(set_value(configuration, name, ""), RecordingBase::STATUS) << name;
    }
    EXPECT_THAT(configuration.m_calls, IsEmpty());
}

// ---- log_level

TEST(ConfExtensionsTest, log_level_is_info_and_takes_each_upper_case_name) {
    EXPECT_EQ(LogConfiguration().m_log_level, Level::INFO);
    const std::array<std::pair<const char*, Level>, 6> cases = {{{"SYSTEM", Level::SYSTEM},
                                                                 {"ERROR", Level::ERROR},
                                                                 {"WARNING", Level::WARNING},
                                                                 {"INFO", Level::INFO},
                                                                 {"DEBUG", Level::DEBUG},
                                                                 {"TRACE", Level::TRACE}}};
    for (const auto& [text, level] : cases) {
        LogConfiguration configuration;
        configuration.m_log_level = level == Level::SYSTEM ? Level::TRACE : Level::SYSTEM;
        EXPECT_EQ(set_value(configuration, "log_level", text), conf::option_applied) << text;
        EXPECT_EQ(configuration.m_log_level, level) << text;
    }
}

TEST(ConfExtensionsTest, log_level_refuses_any_other_text_and_stays) {
    for (const char* const text : {"info", "Info", "INFO ", "3", "", "VERBOSE"}) {
        LogConfiguration configuration;
        configuration.m_log_level = Level::ERROR;
        EXPECT_EQ(set_value(configuration, "log_level", text), conf::option_bad_format) << text;
        EXPECT_EQ(configuration.m_log_level, Level::ERROR) << text;
    }
}

TEST(ConfExtensionsTest, log_level_does_not_change_the_running_logger) {
    const test::CapturedLog captured(Level::WARNING);
    LogConfiguration configuration;
    EXPECT_EQ(set_value(configuration, "log_level", "TRACE"), conf::option_applied);
    EXPECT_EQ(static_cast<Level>(log::Logger::m_instance.m_level), Level::WARNING);
}

// ---- port

TEST(ConfExtensionsTest, port_takes_decimal_numbers_of_16_bits) {
    struct Case {
        const char* text;
        int status;
        uint16_t port; // 7 is what it was before
    };
    const std::array<Case, 17> cases = {{
        {"0", conf::option_applied, 0},
        {"1", conf::option_applied, 1},
        {"5000", conf::option_applied, 5000},
        {"65534", conf::option_applied, 65534},
        {"65535", conf::option_applied, 65535},
        {"00080", conf::option_applied, 80},
        {" 80", conf::option_applied, 80},
        {"+80", conf::option_applied, 80},
        {"65536", conf::option_bad_format, 7},
        {"65537", conf::option_bad_format, 7},
        {"99999999999999999999", conf::option_bad_format, 7},
        {"-1", conf::option_bad_format, 7},
        {"", conf::option_bad_format, 7},
        {"x", conf::option_bad_format, 7},
        {"0x50", conf::option_bad_format, 0}, // the number in front of the rest is stored
        {"80 x", conf::option_bad_format, 80},
        {"80 ", conf::option_bad_format, 80},
    }};
    EXPECT_EQ(PortConfiguration().m_port, 0);
    for (const Case& row : cases) {
        SCOPED_TRACE(row.text);
        PortConfiguration configuration;
        configuration.m_port = 7;
        EXPECT_EQ(set_value(configuration, "port", row.text), row.status);
        EXPECT_EQ(configuration.m_port, row.port);
    }
}

// ---- statistic_...

TEST(ConfExtensionsTest, statistics_go_to_the_log_and_are_not_transferred_by_default) {
    const StatConfiguration configuration;
    EXPECT_TRUE(configuration.m_statistic_logging_enabled);
    EXPECT_FALSE(configuration.m_statistic_transfer_enabled);
    EXPECT_EQ(configuration.m_statistic_transfer_host.host, "");
    EXPECT_EQ(configuration.m_statistic_transfer_host.port, 0);
}

TEST(ConfExtensionsTest, boolean_options_take_exactly_true_and_false) {
    for (const bool before : {false, true}) {
        StatConfiguration configuration;
        configuration.m_statistic_logging_enabled = before;
        EXPECT_EQ(set_value(configuration, "statistic_logging_enabled", "true"), conf::option_applied);
        EXPECT_TRUE(configuration.m_statistic_logging_enabled);
        configuration.m_statistic_logging_enabled = before;
        EXPECT_EQ(set_value(configuration, "statistic_logging_enabled", "false"), conf::option_applied);
        EXPECT_FALSE(configuration.m_statistic_logging_enabled);

        configuration.m_statistic_transfer_enabled = before;
        EXPECT_EQ(set_value(configuration, "statistic_transfer_enabled", "true"), conf::option_applied);
        EXPECT_TRUE(configuration.m_statistic_transfer_enabled);
        configuration.m_statistic_transfer_enabled = before;
        EXPECT_EQ(set_value(configuration, "statistic_transfer_enabled", "false"), conf::option_applied);
        EXPECT_FALSE(configuration.m_statistic_transfer_enabled);
    }
}

TEST(ConfExtensionsTest, boolean_options_refuse_any_other_text_and_stay) {
    for (const char* const text :
         {"True", "TRUE", "False", "1", "0", "yes", "true ", " true", "truefalse", ""}) {
        for (const bool before : {false, true}) {
            StatConfiguration configuration;
            configuration.m_statistic_logging_enabled = before;
            configuration.m_statistic_transfer_enabled = before;
            EXPECT_EQ(set_value(configuration, "statistic_logging_enabled", text), conf::option_bad_format)
                << text;
            EXPECT_EQ(set_value(configuration, "statistic_transfer_enabled", text), conf::option_bad_format)
                << text;
            EXPECT_EQ(configuration.m_statistic_logging_enabled, before) << text;
            EXPECT_EQ(configuration.m_statistic_transfer_enabled, before) << text;
        }
    }
}

TEST(ConfExtensionsTest, the_transfer_host_is_the_first_of_its_list_and_enables_the_transfer) {
    struct Case {
        const char* text;
        const char* host;
        uint16_t port;
    };
    for (const Case row : {Case{"collector:9000", "collector", 9000}, Case{"a:1,b:2", "a", 1},
                           Case{"collector:9000-9002", "collector", 9000}, Case{"a,b:2", "b", 2},
                           Case{"host:abc", "host", 0}, Case{" 10.0.0.1 : 5 ", "10.0.0.1", 5}}) {
        SCOPED_TRACE(row.text);
        StatConfiguration configuration;
        EXPECT_EQ(set_value(configuration, "statistic_transfer_host", row.text), conf::option_applied);
        EXPECT_TRUE(configuration.m_statistic_transfer_enabled);
        EXPECT_EQ(configuration.m_statistic_transfer_host.host, row.host);
        EXPECT_EQ(configuration.m_statistic_transfer_host.port, row.port);
    }
}

TEST(ConfExtensionsTest, a_transfer_host_list_without_a_host_is_refused_and_changes_nothing) {
    for (const char* const text : {"", "collector", "collector:9002-9000", ",,", "a:b:c"}) {
        SCOPED_TRACE(text);
        StatConfiguration configuration;
        configuration.m_statistic_transfer_host = {"before", 1};
        EXPECT_EQ(set_value(configuration, "statistic_transfer_host", text), conf::option_bad_format);
        EXPECT_FALSE(configuration.m_statistic_transfer_enabled);
        EXPECT_EQ(configuration.m_statistic_transfer_host.host, "before");
        EXPECT_EQ(configuration.m_statistic_transfer_host.port, 1);
    }
}

TEST(ConfExtensionsTest, a_later_transfer_host_replaces_the_one_before) {
    StatConfiguration configuration;
    EXPECT_EQ(set_value(configuration, "statistic_transfer_host", "a:1"), conf::option_applied);
    EXPECT_EQ(set_value(configuration, "statistic_transfer_host", "b:2"), conf::option_applied);
    EXPECT_EQ(configuration.m_statistic_transfer_host.host, "b");
    EXPECT_EQ(configuration.m_statistic_transfer_host.port, 2);
}

TEST(ConfExtensionsTest, disabling_the_transfer_counts_behind_the_host_and_not_before_it) {
    StatConfiguration behind;
    EXPECT_EQ(set_value(behind, "statistic_transfer_host", "a:1"), conf::option_applied);
    EXPECT_EQ(set_value(behind, "statistic_transfer_enabled", "false"), conf::option_applied);
    EXPECT_FALSE(behind.m_statistic_transfer_enabled);
    EXPECT_EQ(behind.m_statistic_transfer_host.host, "a");

    StatConfiguration before;
    EXPECT_EQ(set_value(before, "statistic_transfer_enabled", "false"), conf::option_applied);
    EXPECT_EQ(set_value(before, "statistic_transfer_host", "a:1"), conf::option_applied);
    EXPECT_TRUE(before.m_statistic_transfer_enabled);
}

// ---- The version table

TEST(ConfExtensionsTest, the_version_table_is_empty_at_start) {
    const VersionConfiguration configuration;
    EXPECT_THAT(configuration.m_versions, IsEmpty());
}

TEST(ConfExtensionsTest, a_version_that_is_read_for_the_first_time_is_entered_as_zero) {
    VersionConfiguration configuration;
    EXPECT_EQ(configuration.get_component_version("nodes"), 0u);
    EXPECT_EQ(configuration.m_versions.count("nodes"), 1u);
    // It is in the table now, so version 0 is not higher.
    EXPECT_FALSE(configuration.set_component_version_if_higher("nodes", 0));
    EXPECT_TRUE(configuration.set_component_version_if_higher("nodes", 1));
    EXPECT_EQ(configuration.get_component_version("nodes"), 1u);
}

TEST(ConfExtensionsTest, the_first_version_of_a_name_is_taken_whatever_it_is) {
    for (const unsigned long version : {0ul, 1ul, 7ul, std::numeric_limits<unsigned long>::max()}) {
        VersionConfiguration configuration;
        EXPECT_TRUE(configuration.set_component_version_if_higher("nodes", version)) << version;
        EXPECT_EQ(configuration.get_component_version("nodes"), version);
        EXPECT_FALSE(configuration.set_component_version_if_higher("nodes", version)) << version;
    }
}

TEST(ConfExtensionsTest, only_a_higher_version_replaces_a_known_one) {
    VersionConfiguration configuration;
    EXPECT_TRUE(configuration.set_component_version_if_higher("nodes", 5));
    EXPECT_FALSE(configuration.set_component_version_if_higher("nodes", 4));
    EXPECT_FALSE(configuration.set_component_version_if_higher("nodes", 5));
    EXPECT_EQ(configuration.get_component_version("nodes"), 5u);
    EXPECT_TRUE(configuration.set_component_version_if_higher("nodes", 6));
    EXPECT_EQ(configuration.get_component_version("nodes"), 6u);
    // 64 bits, unsigned: neither 2^32 nor 2^63 is a border.
    EXPECT_TRUE(configuration.set_component_version_if_higher("nodes", 1ul << 32));
    EXPECT_TRUE(configuration.set_component_version_if_higher("nodes", 1ul << 63));
    EXPECT_TRUE(
        configuration.set_component_version_if_higher("nodes", std::numeric_limits<unsigned long>::max()));
    EXPECT_FALSE(configuration.set_component_version_if_higher("nodes", 0));
    EXPECT_EQ(configuration.get_component_version("nodes"), std::numeric_limits<unsigned long>::max());
}

TEST(ConfExtensionsTest, names_have_versions_of_their_own) {
    VersionConfiguration configuration;
    EXPECT_TRUE(configuration.set_component_version_if_higher("media", 5));
    EXPECT_TRUE(configuration.set_component_version_if_higher("writer", 3));
    EXPECT_EQ(configuration.get_component_version("media"), 5u);
    EXPECT_EQ(configuration.get_component_version("writer"), 3u);
    EXPECT_EQ(configuration.get_component_version("Media"), 0u);
}

constexpr int THREADS = 4;
constexpr unsigned long VERSIONS = 5000;

TEST(ConfExtensionsTest, of_threads_that_offer_the_same_versions_one_at_most_is_told_that_it_was_taken) {
    VersionConfiguration configuration;
    std::array<std::vector<unsigned long>, THREADS> taken;
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    for (std::vector<unsigned long>& mine : taken) {
        threads.emplace_back([&configuration, &mine] {
            for (unsigned long version = 1; version <= VERSIONS; ++version) {
                if (configuration.set_component_version_if_higher("nodes", version)) {
                    mine.push_back(version);
                }
                EXPECT_GE(configuration.get_component_version("nodes"), version);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    // Every thread offers every version in rising order, so each is taken by exactly one: no higher one can have
    // arrived before the first thread offers it.
    std::vector<int> times(VERSIONS + 1, 0);
    for (const std::vector<unsigned long>& mine : taken) {
        for (const unsigned long version : mine) {
            ++times.at(version);
        }
    }
    for (unsigned long version = 1; version <= VERSIONS; ++version) {
        ASSERT_EQ(times[version], 1) << "version " << version;
    }
    EXPECT_EQ(configuration.get_component_version("nodes"), VERSIONS);
}

// ---- Kafka

TEST(ConfExtensionsTest, kafka_settings_are_empty_by_default) {
    const conf::KafkaConfiguration configuration;
    EXPECT_EQ(configuration.m_kafka_broker, "");
    EXPECT_EQ(configuration.m_kafka_topic_request, "");
    EXPECT_EQ(configuration.m_kafka_topic_broadcast, "");
}

TEST(ConfExtensionsTest, kafka_settings_take_any_text_as_it_stands) {
    conf::KafkaConfiguration configuration;
    for (const std::string& text : {std::string("10.0.0.1:9092,b:9092"), std::string(" x "), std::string()}) {
        EXPECT_EQ(set_value(configuration, "kafka_broker", text + "1"), conf::option_applied);
        EXPECT_EQ(set_value(configuration, "kafka_topic_request", text + "2"), conf::option_applied);
        EXPECT_EQ(set_value(configuration, "kafka_topic_broadcast", text + "3"), conf::option_applied);
        EXPECT_EQ(configuration.m_kafka_broker, text + "1");
        EXPECT_EQ(configuration.m_kafka_topic_request, text + "2");
        EXPECT_EQ(configuration.m_kafka_topic_broadcast, text + "3");
    }
}

TEST(ConfExtensionsTest, a_key_of_the_router_is_unknown_to_the_kafka_settings) {
    conf::KafkaConfiguration configuration;
    for (const char* const name :
         {"port", "log_level", "media_node", "Kafka_broker", "KAFKA_BROKER", "kafka_broker "}) {
        EXPECT_EQ(set_value(configuration, name, "1"), conf::option_unknown) << name;
    }
    std::stringstream message;
    EXPECT_EQ(configuration.set_flag("kafka_broker", message), conf::option_unknown);
    EXPECT_EQ(configuration.m_kafka_broker, "");
}

} // namespace
