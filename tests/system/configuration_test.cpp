// Where the options come from, which of them stop the start, and what the others do.
#include "tests/support/system/router_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using namespace corvalin::test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

namespace fs = std::filesystem;

using Lines = std::vector<std::string>;

class ConfigurationTest : public RouterTest {
protected:
    static constexpr const char* ROUTER_CONF_READ =
        "SYSTEM  | CONFIGURATION: reading from file [/etc/tolvaine/corvalin/router.conf]";
    static constexpr const char* DEFAULTS =
        "INFO    | CONFIGURATION: file is not specified, default values are used";

    static std::string stopped(const RouterProcess& process) {
        return "SYSTEM  | SERVICE: [corvalinrouter] main thread [" + std::to_string(process.pid()) +
               "] stopped";
    }

    /// The lines of the option parser that belong to the service's own configuration.
    static Lines configuration_lines(RouterProcess& process) {
        Lines lines;
        for (const std::string& line : process.log()) {
            if (line.find("SERVICE: kafka build version") != std::string::npos) {
                break;
            }
            if (line.find("CONFIGURATION: ") != std::string::npos) {
                lines.push_back(line);
            }
        }
        return lines;
    }
};

TEST_F(ConfigurationTest, without_a_file_and_without_args_the_router_runs_on_defaults) {
    RouterProcess process(m_place);
    EXPECT_TRUE(process.wait_until_receiving());
    EXPECT_THAT(configuration_lines(process), ElementsAre(DEFAULTS));
}

TEST_F(ConfigurationTest, a_file_that_is_named_and_missing_means_defaults_too) {
    write_file(m_place.router_conf(), "port=65536\n"); // not the one that was asked for
    RouterProcess process(m_place, {"--config", "missing.conf"});
    EXPECT_TRUE(process.wait_until_receiving());
    EXPECT_THAT(configuration_lines(process), ElementsAre(DEFAULTS));
}

TEST_F(ConfigurationTest, args_win_over_the_file_wherever_they_stand) {
    const UdpNode occupant;
    const std::string taken = "port=" + std::to_string(occupant.port());
    write_file(m_place.router_conf(), taken + "\nlog_level=ERROR\n");
    write_file(m_place.folder() / "other.conf", taken + "\n");
    const struct {
        const char* description;
        std::vector<std::string> arguments;
    } cases[] = {
        {"the default file", {"--args", "port=0,log_level=DEBUG"}},
        {"a file named behind the args", {"--args", "port=0,log_level=DEBUG", "-c", "other.conf"}},
        {"a file named before the args", {"-c", "other.conf", "--args", "port=0,log_level=DEBUG"}},
    };
    for (const auto& row : cases) {
        RouterProcess process(m_place, row.arguments);
        EXPECT_TRUE(process.wait_until_receiving()) << row.description;
        const Lines lines = configuration_lines(process);
        EXPECT_GT(
            std::find(lines.begin(), lines.end(), "SYSTEM  | CONFIGURATION: option [port] is set to [0]"),
            std::find(lines.begin(), lines.end(),
                      "SYSTEM  | CONFIGURATION: option [port] is set to [" + std::to_string(occupant.port()) +
                          "]"))
            << row.description;
        // The effect of the level: lines with their place from then on.
        EXPECT_THAT(process.log(), Contains(::testing::MatchesRegex(
                                       "SYSTEM  \\| media_packet_reader:[0-9]+ \\| PACKETS_READER: .*")))
            << row.description;
    }
}

TEST_F(ConfigurationTest, a_bad_option_in_the_file_fails_the_start_and_ends_the_reading) {
    const struct {
        const char* content;
        const char* line;
    } cases[] = {
        {"media_node=10.0.0.1:x",
         "failed to set option [media_node] to [10.0.0.1:x]: unexpected value format"},
        {"writer_node=127.0.0.1:5000-5002",
         "failed to set option [writer_node] to [127.0.0.1:5000-5002]: unexpected value format"},
        {"statistic_logging_enabled=TRUE",
         "failed to set option [statistic_logging_enabled] to [TRUE]: unexpected value format"},
        {"statistic_transfer_enabled=1",
         "failed to set option [statistic_transfer_enabled] to [1]: unexpected value format"},
        {"statistic_transfer_host=collector",
         "failed to set option [statistic_transfer_host] to [collector]: unexpected value format"},
        {"log_level=info", "failed to set option [log_level] to [info]: unexpected value format"},
        {"port=65536", "failed to set option [port] to [65536]: unexpected value format"},
        {"port=80 x", "failed to set option [port] to [80 x]: unexpected value format"},
        {"port=-1", "failed to set option [port] to [-1]: unexpected value format"},
        {"port=0x10", "failed to set option [port] to [0x10]: unexpected value format"},
        {"# first\n\nport=0\n a=b=c\t", "incorrect option format at line 3: \" a=b=c\t\""},
        {"=", "incorrect option format at line 0: \"=\""},
        {"==", "incorrect option format at line 0: \"==\""},
    };
    for (const auto& row : cases) {
        write_file(m_place.router_conf(), std::string(row.content) + "\ndiscard_media_node\n");
        RouterProcess process(m_place, {"--args", "discard_media_node"});
        EXPECT_EQ(process.wait_for_exit(), exited(1)) << row.content;
        const Lines log = process.log();
        ASSERT_GE(log.size(), 2u);
        EXPECT_THAT(Lines(log.end() - 2, log.end()),
                    ElementsAre("ERROR   | CONFIGURATION: " + std::string(row.line), stopped(process)));
        EXPECT_THAT(log, Not(Contains(HasSubstr("discard_media_node")))) << row.content;
    }
}

TEST_F(ConfigurationTest, a_bad_option_in_the_args_fails_the_start) {
    const struct {
        const char* args;
        const char* line;
    } cases[] = {
        {"port=0,a=b=c,discard_media_node", "incorrect option format at position [2]"},
        {"a==b", "incorrect option format at position [1]"},
        {"port=0 ", "failed to set option [port] to [0 ]: unexpected value format"},
        {"discard_writer_node,log_level=NONE",
         "failed to set option [log_level] to [NONE]: unexpected value format"},
        {"media_node=a:1-2,,b:x",
         "failed to set option [media_node] to [a:1-2,b:x]: unexpected value format"},
    };
    for (const auto& row : cases) {
        RouterProcess process(m_place, {"--args", row.args});
        EXPECT_EQ(process.wait_for_exit(), exited(1)) << row.args;
        const Lines log = process.log();
        ASSERT_GE(log.size(), 2u);
        EXPECT_THAT(Lines(log.end() - 2, log.end()),
                    ElementsAre("ERROR   | CONFIGURATION: " + std::string(row.line), stopped(process)));
        EXPECT_THAT(log, Not(Contains(HasSubstr("discard_media_node]"))));
    }
}

TEST_F(ConfigurationTest, what_is_unknown_or_blank_in_the_file_does_no_harm) {
    start("\r\n"
          "   \t \n"
          "# port=1\n"
          "  # port=2\n"
          "  log_level = INFO  \r\n"
          "port==0\n"
          "port=\n"
          "port =  \n"
          "=port\n"
          "[section]\n"
          "key value\n"
          "LOG_LEVEL=DEBUG\n"
          "kafka_broker=127.0.0.1:9092\n"
          "x=1 # note\n"
          "discard_media_node=true\n"
          "statistic_logging_enabled\n"
          "discard_media_node\n"
          "statistic_transfer_enabled=false\n"
          "discard_writer_node"); // the last line has no end
    EXPECT_THAT(configuration_lines(router()),
                ElementsAre(ROUTER_CONF_READ, "SYSTEM  | CONFIGURATION: option [log_level] is set to [INFO]",
                            "SYSTEM  | CONFIGURATION: option [port] is set to [0]",
                            "WARNING | CONFIGURATION: flag [port] is unknown",
                            "WARNING | CONFIGURATION: flag [port] is unknown",
                            "WARNING | CONFIGURATION: flag [port] is unknown",
                            "WARNING | CONFIGURATION: flag [[section]] is unknown",
                            "WARNING | CONFIGURATION: flag [key value] is unknown",
                            "WARNING | CONFIGURATION: option [LOG_LEVEL] is unknown",
                            "WARNING | CONFIGURATION: option [kafka_broker] is unknown",
                            "WARNING | CONFIGURATION: option [x] is unknown",
                            "WARNING | CONFIGURATION: option [discard_media_node] is unknown",
                            "WARNING | CONFIGURATION: flag [statistic_logging_enabled] is unknown",
                            "SYSTEM  | CONFIGURATION: flag [discard_media_node] applied",
                            "SYSTEM  | CONFIGURATION: option [statistic_transfer_enabled] is set to [false]",
                            "SYSTEM  | CONFIGURATION: flag [discard_writer_node] applied"));
    EXPECT_THAT(router().log(), Contains("SYSTEM  | CONFIGURATION: option [kafka_broker] is set to [" +
                                         router().broker() + "]"));
}

TEST_F(ConfigurationTest, args_are_split_by_commas_and_not_trimmed) {
    const struct {
        const char* args;
        Lines lines;
    } cases[] = {
        {"statistic_transfer_host=a:1,,b:2,y",
         {"SYSTEM  | CONFIGURATION: option [statistic_transfer_host] is set to [a:1,b:2]",
          "WARNING | CONFIGURATION: flag [y] is unknown"}},
        {"statistic_transfer_host=a:1_;b:2",
         {"SYSTEM  | CONFIGURATION: option [statistic_transfer_host] is set to [a:1,b:2]"}},
        {" port=0,port =0,port= 0",
         {"WARNING | CONFIGURATION: option [ port] is unknown",
          "SYSTEM  | CONFIGURATION: option [port] is set to [0]",
          "SYSTEM  | CONFIGURATION: option [port] is set to [0]"}},
        {"=v,=,port=",
         {"WARNING | CONFIGURATION: option [] is unknown", "WARNING | CONFIGURATION: flag [] is unknown",
          "WARNING | CONFIGURATION: flag [port] is unknown"}},
        {",", {}},
        {"#port=0", {"WARNING | CONFIGURATION: option [#port] is unknown"}},
    };
    for (const auto& row : cases) {
        RouterProcess process(m_place, {"--args", row.args});
        EXPECT_TRUE(process.wait_until_receiving()) << row.args;
        Lines expected = {DEFAULTS, "SYSTEM  | CONFIGURATION: reading from args: " + std::string(row.args)};
        expected.insert(expected.end(), row.lines.begin(), row.lines.end());
        EXPECT_EQ(configuration_lines(process), expected);
        process.kill();
    }
}

TEST_F(ConfigurationTest, a_missing_kafka_file_fails_the_start_behind_the_version_lines) {
    write_file(m_place.router_conf(), "port=0\n");
    fs::remove(m_place.kafka_conf());
    // Neither a folder of the working directory nor the args stand in for it.
    RouterProcess process(m_place, {"--args", "kafka_broker=127.0.0.1:1"});
    EXPECT_EQ(process.wait_for_exit(), exited(1));
    const Lines log = process.log();
    ASSERT_GE(log.size(), 4u);
    auto line = std::find_if(log.begin(), log.end(), [](const std::string& candidate) {
        return candidate.compare(0, 42, "SYSTEM  | SERVICE: kafka build version:   ") == 0;
    });
    ASSERT_NE(line, log.end());
    ++line;
    EXPECT_THAT(*line, HasSubstr("SYSTEM  | SERVICE: kafka running version: "));
    EXPECT_THAT(
        Lines(log.end() - 2, log.end()),
        ElementsAre("ERROR   | CONFIGURATION: failed to open file [/etc/tolvaine/corvalin/kafka.conf]",
                    stopped(process)));
    EXPECT_THAT(log, Not(Contains(HasSubstr("kafka topic"))));
}

TEST_F(ConfigurationTest, a_bad_kafka_file_fails_the_start) {
    write_file(m_place.kafka_conf(), "kafka_broker=127.0.0.1:1\nkafka_topic_request=a=b\n");
    RouterProcess process(m_place);
    EXPECT_EQ(process.wait_for_exit(), exited(1));
    const Lines log = process.log();
    ASSERT_GE(log.size(), 2u);
    EXPECT_THAT(
        Lines(log.end() - 2, log.end()),
        ElementsAre("ERROR   | CONFIGURATION: incorrect option format at line 1: \"kafka_topic_request=a=b\"",
                    stopped(process)));
}

TEST_F(ConfigurationTest, the_kafka_names_are_made_of_the_address_towards_the_first_broker) {
    const struct {
        const char* description;
        const char* content;
        const char* name;
    } cases[] = {
        {"address and port", "kafka_broker=127.0.0.1:9092", "corvalin_router_127o0o0o1_0"},
        {"address alone", "kafka_broker=127.0.0.1", "corvalin_router_127o0o0o1_0"},
        {"a list: the first counts up to its colon", "kafka_broker=127.0.0.1:1,10.1.2.3:1",
         "corvalin_router_127o0o0o1_0"},
        {"a name", "kafka_broker=localhost:9092", "corvalin_router__0"},
        {"a name first in a list", "kafka_broker=localhost:9092,127.0.0.1:1", "corvalin_router__0"},
        {"no broker", "port=1", "corvalin_router__0"}, // and an option that this file does not know
        {"an empty file", "", "corvalin_router__0"},
    };
    for (const auto& row : cases) {
        write_file(m_place.kafka_conf(), row.content);
        RouterProcess process(m_place);
        const std::string group = "SYSTEM  | SERVICE: kafka group is set to [" + std::string(row.name) + "]";
        ASSERT_TRUE(process.wait_for_log(group))
            << row.description; // the wait for these brokers would be long
        const Lines log = process.log();
        const auto topic =
            std::find(log.begin(), log.end(),
                      "SYSTEM  | SERVICE: kafka topic is set to [" + std::string(row.name) + "]");
        ASSERT_NE(topic, log.end()) << row.description;
        EXPECT_EQ(*(topic + 1), group) << row.description;
        process.kill();
    }
}

TEST_F(ConfigurationTest, the_log_level_takes_effect_when_the_service_starts) {
    const struct {
        const char* level;
        bool shows_places;
        bool shows_debug;
        bool shows_info;
    } cases[] = {
        {"ERROR", false, false, false}, {"WARNING", false, false, false}, {"INFO", false, false, true},
        {"DEBUG", true, true, true},    {"TRACE", true, true, true},
    };
    for (const auto& row : cases) {
        write_file(m_place.router_conf(),
                   "log_level=" + std::string(row.level) + "\nwriter_node=127.0.0.1:9\nunknown\n");
        RouterProcess process(m_place);
        ASSERT_TRUE(process.wait_until_receiving()) << row.level;
        process.signal(SIGHUP);
        ASSERT_TRUE(wait_until([&] {
            const Lines log = process.log();
            return std::any_of(log.begin(), log.end(), [](const std::string& line) {
                return line.find("SERVICE: update has been requested") != std::string::npos;
            });
        }));
        ASSERT_TRUE(process.wait_until_receiving());
        const Lines log = process.log();
        // Lines of the configuration are written at the threshold of the start, INFO.
        EXPECT_THAT(log, Contains("WARNING | CONFIGURATION: flag [unknown] is unknown")) << row.level;
        EXPECT_THAT(log, Contains("SYSTEM  | CONFIGURATION: option [log_level] is set to [" +
                                  std::string(row.level) + "]"));
        const auto has = [&log](const char* regex) {
            return std::any_of(log.begin(), log.end(), [&](const std::string& line) {
                return ::testing::Matches(::testing::MatchesRegex(regex))(line);
            });
        };
        EXPECT_EQ(has("SYSTEM  \\| app_service:[0-9]+ \\| SERVICE: update has been requested"),
                  row.shows_places)
            << row.level;
        EXPECT_EQ(has("SYSTEM  \\| SERVICE: update has been requested"), !row.shows_places) << row.level;
        EXPECT_EQ(has("DEBUG   \\| host_balancer:[0-9]+ \\| HOST_BALANCER: received "
                      "nodes: 127\\.0\\.0\\.1:9"),
                  row.shows_debug)
            << row.level;
        EXPECT_EQ(has("INFO    \\| (net_socket:[0-9]+ \\| )?SOCKET\\[[0-9]+\\]: system "
                      "interrupted call"),
                  row.shows_info)
            << row.level;
        process.kill();
    }
}

TEST_F(ConfigurationTest, the_log_level_system_aborts_before_any_thread_of_the_service) {
    write_file(m_place.router_conf(), "log_level=SYSTEM\n");
    RouterProcess process(m_place);
    EXPECT_EQ(process.wait_for_exit(), killed_by(SIGABRT));
    const Lines log = process.log();
    EXPECT_THAT(log, Contains("SYSTEM  | SERVICE: kafka group is set to [corvalin_router_127o0o0o1_0]"));
    EXPECT_THAT(log.back(), HasSubstr("no log line: terminate called after throwing an instance of "));
    EXPECT_EQ(syslog().records().size(), 0u);
}

} // namespace
