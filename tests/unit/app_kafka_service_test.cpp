#include "corvalin_lib/app_kafka_service.h"

#include <librdkafka/rdkafkacpp.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "corvalin_lib/log.h"
#include "tests/support/captured_log.h"
#include "tests/support/private_syslog.h"
#include "tests/support/temporary_folder.h"
#include "tools/tool_support/private_paths.h"

namespace {

namespace fs = std::filesystem;
using namespace corvalin;
using test::CapturedLog;
using test::ChildReport;
using test::succeeded;
using test::TemporaryFolder;
using ::testing::ElementsAre;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

class TestService : public app::KafkaService<conf::Configuration> {
public:
    TestService() : KafkaService("unit") { m_config_path = "/nonexistent/unit.conf"; }

    void on_config() override {
        EXPECT_TRUE(m_config);
        log::write("test", 1, log::InfoMessage() << "on_config");
    }
    void on_set_kafka_params(std::string& group, std::string& topic) override {
        EXPECT_TRUE(m_kafka_config);
        EXPECT_EQ(&group, &m_kafka_group);
        EXPECT_EQ(&topic, &m_kafka_topic);
        log::write("test", 1, log::InfoMessage() << "on_set_kafka_params " << group << " " << topic);
        group += "_group";
        topic += "_topic";
    }

    using KafkaService::do_start;
    using KafkaService::m_config;
    using KafkaService::m_config_args;
    using KafkaService::m_config_path;
    using KafkaService::m_kafka_config;
    using KafkaService::m_kafka_group;
    using KafkaService::m_kafka_topic;
};

std::string running_version_line() {
    std::array<char, 32> number{};
    std::snprintf(number.data(), number.size(), "%08x", static_cast<unsigned int>(RdKafka::version()));
    return "SERVICE: kafka running version: " + RdKafka::version_str() + " (0x" + number.data() + ")";
}

constexpr const char* BUILD_VERSION_PATTERN = "SERVICE: kafka build version:   [0-9a-f]{16}@[a-z]+";
constexpr const char* DIFFERS = "SERVICE: kafka running version differs to expected 1.5.2";

/// Has /etc/tolvaine for itself, in a process of its own.
class AppKafkaServiceTest : public ::testing::Test {
protected:
    AppKafkaServiceTest() { fs::create_directory(m_folder.path() + "/corvalin"); }

    void write_kafka_conf(const std::string& content) const {
        m_folder.write_file("corvalin/kafka.conf", content);
    }
    /// Hands a new service and what it logs to `body`, and fails the test if `body` fails.
    void run(const std::function<void(TestService&, const CapturedLog&)>& body) const {
        const ChildReport child = test::run_with_private_syslog([&] {
            tools::PrivatePaths paths;
            paths.etc_dir = m_folder.path();
            tools::enter_private_paths(paths);
            const CapturedLog log;
            TestService service;
            body(service, log);
        });
        EXPECT_TRUE(succeeded(child));
    }

    TemporaryFolder m_folder;
};

// ---- Version lines

TEST_F(AppKafkaServiceTest, the_build_version_is_sixteen_digits_and_a_branch_word) {
    EXPECT_THAT(app::kafka_build_version(), MatchesRegex("[0-9a-f]{16}@[a-z]+"));
}

TEST_F(AppKafkaServiceTest, the_versions_of_the_library_are_logged_and_compared_as_text) {
    struct Case {
        const char* description;
        const char* text;
        int number;
        const char* expected_line;
        bool is_warned;
    };
    const std::array<Case, 5> cases = {{
        {"the expected one", "1.5.2", 0x010502ff, "SERVICE: kafka running version: 1.5.2 (0x010502ff)",
         false},
        {"the expected text with another number", "1.5.2", 0x42,
         "SERVICE: kafka running version: 1.5.2 (0x00000042)", false},
        {"another text with the expected number", "1.5.20", 0x010502ff,
         "SERVICE: kafka running version: 1.5.20 (0x010502ff)", true},
        {"a newer one", "2.0.2", 0x020002ff, "SERVICE: kafka running version: 2.0.2 (0x020002ff)", true},
        {"none", "", 0, "SERVICE: kafka running version:  (0x00000000)", true},
    }};
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        const CapturedLog log;
        app::log_kafka_versions(row.text, row.number);
        ASSERT_EQ(log.lines().size(), row.is_warned ? 3u : 2u);
        EXPECT_THAT(log.texts()[0], MatchesRegex(BUILD_VERSION_PATTERN));
        EXPECT_EQ(log.texts()[1], row.expected_line);
        EXPECT_EQ(log.lines(log::Level::SYSTEM).size(), 2u);
        EXPECT_EQ(log.count(log::Level::WARNING, DIFFERS), row.is_warned ? 1u : 0u);
        EXPECT_EQ(log.lines()[0].file, "app_kafka_service");
    }
}

// ---- The start

TEST_F(AppKafkaServiceTest, a_new_service_names_its_group_and_topic_like_itself) {
    const TestService service;
    EXPECT_EQ(service.m_kafka_group, "corvalinunit");
    EXPECT_EQ(service.m_kafka_topic, "corvalinunit");
    EXPECT_FALSE(service.m_kafka_config);
}

TEST_F(AppKafkaServiceTest, a_start_reads_both_configurations_and_lets_the_service_name_group_and_topic) {
    write_kafka_conf("# empty\n");
    run([](TestService& service, const CapturedLog& log) {
        ASSERT_TRUE(service.do_start());
        EXPECT_TRUE(service.m_config);
        EXPECT_TRUE(service.m_kafka_config);
        EXPECT_EQ(service.m_kafka_group, "corvalinunit_group");
        EXPECT_EQ(service.m_kafka_topic, "corvalinunit_topic");
        std::vector<std::string> texts = log.texts();
        const auto warning = std::find(texts.begin(), texts.end(), DIFFERS);
        EXPECT_EQ(warning != texts.end(), RdKafka::version_str() != "1.5.2");
        if (warning != texts.end()) {
            EXPECT_EQ(warning - texts.begin(), 4);
            texts.erase(warning);
        }
        EXPECT_THAT(texts,
                    ElementsAre("CONFIGURATION: file is not specified, default values are used", "on_config",
                                MatchesRegex(BUILD_VERSION_PATTERN), running_version_line(),
                                "CONFIGURATION: reading from file [/etc/tolvaine/corvalin/kafka.conf]",
                                "on_set_kafka_params corvalinunit corvalinunit",
                                "SERVICE: kafka topic is set to [corvalinunit_topic]",
                                "SERVICE: kafka group is set to [corvalinunit_group]"));
        EXPECT_EQ(log.count(log::Level::SYSTEM, "SERVICE: kafka topic is set to [corvalinunit_topic]"), 1u);
        EXPECT_EQ(log.count(log::Level::SYSTEM, "SERVICE: kafka group is set to [corvalinunit_group]"), 1u);
    });
}

TEST_F(AppKafkaServiceTest, a_missing_kafka_file_fails_the_start_behind_both_version_lines) {
    run([](TestService& service, const CapturedLog& log) {
        EXPECT_FALSE(service.do_start());
        EXPECT_TRUE(service.m_config);
        EXPECT_FALSE(service.m_kafka_config);
        EXPECT_EQ(service.m_kafka_group, "corvalinunit");
        const std::vector<std::string> texts = log.texts();
        ASSERT_GE(texts.size(), 5u);
        EXPECT_EQ(texts[1], "on_config");
        EXPECT_THAT(texts[2], StartsWith("SERVICE: kafka build version:   "));
        EXPECT_EQ(texts[3], running_version_line());
        EXPECT_EQ(texts.back(), "CONFIGURATION: failed to open file [/etc/tolvaine/corvalin/kafka.conf]");
        EXPECT_EQ(log.lines().back().level, log::Level::ERROR);
    });
}

TEST_F(AppKafkaServiceTest, a_bad_kafka_file_fails_the_start_and_clears_an_earlier_configuration) {
    write_kafka_conf("# empty\n");
    run([this](TestService& service, const CapturedLog& /*log*/) {
        ASSERT_TRUE(service.do_start());
        write_kafka_conf("an=option=too=many\n");
        EXPECT_FALSE(service.do_start());
        EXPECT_FALSE(service.m_kafka_config);
        EXPECT_TRUE(service.m_config);
    });
}

TEST_F(AppKafkaServiceTest, a_bad_configuration_of_the_service_fails_the_start_ahead_of_kafka) {
    write_kafka_conf("# empty\n");
    run([](TestService& service, const CapturedLog& log) {
        service.m_config_args = "an=option=too=many";
        EXPECT_FALSE(service.do_start());
        EXPECT_FALSE(service.m_config);
        EXPECT_FALSE(service.m_kafka_config);
        for (const std::string& text : log.texts()) {
            EXPECT_EQ(text.find("kafka"), std::string::npos) << text;
            EXPECT_NE(text, "on_config");
        }
    });
}

TEST_F(AppKafkaServiceTest, the_arguments_do_not_reach_the_kafka_configuration) {
    write_kafka_conf("kafka_broker=file:9092\n");
    run([](TestService& service, const CapturedLog& log) {
        service.m_config_args = "kafka_broker=args:9092";
        EXPECT_TRUE(service.do_start());
        EXPECT_EQ(service.m_kafka_config->m_kafka_broker, "file:9092");
        std::size_t readings = 0;
        for (const std::string& text : log.texts()) {
            readings += text.rfind("CONFIGURATION: reading from args", 0) == 0 ? 1 : 0;
        }
        EXPECT_EQ(readings, 1u);
    });
}

} // namespace
