// Both brokers as the tests of the conversation use them, and the real router on each; how the real broker says
// that it is not to be had.
#include "tests/support/kafka/event_frame.h"
#include "tests/support/kafka/kafka_fixture.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/tool_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using namespace corvalin::test;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

namespace fs = std::filesystem;

class KafkaBrokerTest : public KafkaTest {};

TEST_P(KafkaBrokerTest, the_router_asks_for_both_lists_and_forwards_by_the_list_that_comes) {
    UdpNode node;
    KafkaRouter router(broker(), topics());
    router.start();
    EXPECT_EQ(peer().receive_json(), router.list_request("corvalin_media_nodes"));
    EXPECT_EQ(peer().receive_json(), router.list_request("corvalin_writer_nodes"));
    ASSERT_TRUE(router.process().wait_until_receiving());

    peer().send_json(router.topic(), node_list_event("corvalin_writer_nodes", 1, {&node}));
    EXPECT_TRUE(router.process().wait_for_log("SYSTEM  | SERVICE: event [corvalin_writer_nodes] received"));
    UdpSender sender(router.port());
    uint64_t id = 0;
    EXPECT_TRUE(wait_until([&] {
        sender.send(start_packet().id(++id).seq(1).flags(0x80).bytes());
        return node.has_datagram();
    }));
    EXPECT_EQ(router.process().stop(), exited(0));
}

TEST_P(KafkaBrokerTest, the_router_hears_what_is_broadcast) {
    KafkaRouter router(broker(), topics());
    router.start();
    ASSERT_NE(peer().receive_json(), "");
    ASSERT_NE(peer().receive_json(), "");
    ASSERT_TRUE(router.process().wait_until_receiving());

    peer().send_json(topics().broadcast, R"({"type":"config_manager_started"})");
    EXPECT_EQ(peer().receive_json(), router.versions_request());
    EXPECT_TRUE(router.process().wait_for_log("SYSTEM  | SERVICE: event [config_manager_started] received"));
    EXPECT_EQ(router.process().stop(), exited(0));
}

TEST_P(KafkaBrokerTest, comes_back_on_its_port_with_what_it_had_stored) {
    const std::string address = broker().address();
    peer().send(topics().request, {1});
    ASSERT_EQ(peer().receive().value().payload, (Bytes{1}));

    broker().down();
    EXPECT_FALSE(broker().is_up());
    broker().down();
    broker().up();
    EXPECT_TRUE(broker().is_up());
    EXPECT_EQ(broker().address(), address);

    peer().send(topics().request, {2});
    const auto message = peer().receive();
    ASSERT_TRUE(message.has_value());
    EXPECT_EQ(message->payload, (Bytes{2}));
    EXPECT_EQ(message->offset, 1) << "the first message is gone";
}

TEST_P(KafkaBrokerTest, a_peer_reads_from_the_end_that_it_has_found) {
    peer().send(topics().broadcast, {1});
    KafkaPeer late(broker().address(), topics().broadcast);
    peer().send(topics().broadcast, {2});
    peer().send_without_payload(topics().broadcast);
    EXPECT_EQ(late.receive().value().payload, (Bytes{2}));
    EXPECT_EQ(late.receive().value().payload, Bytes());
    EXPECT_FALSE(late.receive(std::chrono::milliseconds(0)).has_value());
}

TEST_P(KafkaBrokerTest, refuses_a_topic_that_exists) {
    EXPECT_THROW(broker().create_topic(topics().request), std::runtime_error);
}

INSTANTIATE_TEST_SUITE_P(, KafkaBrokerTest, BOTH_BROKERS, broker_test_name);

// What only Apache Kafka can do.
class ApacheBrokerTest : public KafkaTest {};

TEST_P(ApacheBrokerTest, frees_the_group_of_a_member_that_was_killed) {
    KafkaRouter router(broker(), topics());
    router.start();
    ASSERT_NE(peer().receive_json(), "");
    ASSERT_NE(peer().receive_json(), "");
    router.process().kill();

    apache_broker().free_group(router.topic());
    // The dead member would hold the group for 45 s, and a router waits no longer than 10 s before it goes on.
    router.restart();
    EXPECT_TRUE(router.process().wait_for_log("SYSTEM  | MESSAGE_BROKER: subscribed for [" +
                                              topics().broadcast + "], [" + router.topic() + "] topic(s)"));
}

INSTANTIATE_TEST_SUITE_P(, ApacheBrokerTest, ::testing::Values(BrokerKind::APACHE), broker_test_name);

// A stream that zlib itself has not written: stored, so that it can be read and summed up by hand.
TEST(EventFrameTest, reads_a_stream_that_was_written_by_hand) {
    // adler32("\0{}") by its definition: a = 1+0+123+125 = 249, b = 1 + 124 + 249 = 374.
    const Bytes payload = {0x78, 0x01, 0x01, 3, 0, 0xFC, 0xFF, 0, '{', '}', 0x01, 0x76, 0x00, 0xF9};
    EXPECT_EQ(json_of(payload), "{}");
    EXPECT_EQ(json_payload("{}", 0), payload);
    EXPECT_EQ(json_of(json_payload("{}")), "{}");
}

TEST(EventFrameTest, refuses_what_is_no_event) {
    const Bytes good = json_payload("{}", 0);
    const struct {
        const char* description;
        Bytes payload;
    } cases[] = {
        {"nothing", {}},
        {"no stream", {'{', '}'}},
        {"cut off", Bytes(good.begin(), good.end() - 1)},
        {"with a byte behind it",
         [&] {
             Bytes longer = good;
             longer.push_back(0);
             return longer;
         }()},
        {"empty frame", zlib_stream({})},
        {"binary event", zlib_stream(event_frame(BINARY_EVENT, "{}"))},
    };
    for (const auto& row : cases) {
        EXPECT_THROW(json_of(row.payload), std::runtime_error) << row.description;
    }
}

class KafkaBrokerScriptTest : public ::testing::Test {
protected:
    static std::vector<std::string> script(const std::vector<std::string>& arguments) {
        std::vector<std::string> words = {"python3", CORVALIN_KAFKA_BROKER_SCRIPT};
        words.insert(words.end(), arguments.begin(), arguments.end());
        return words;
    }

    // A Maven that does what the test says.
    std::string fake_maven(const std::string& commands) const {
        const std::string path =
            m_folder.write_file("maven", "#!/bin/sh\necho run >> '" + runs() + "'\n" + commands + "\n");
        fs::permissions(path, fs::perms(0755));
        return path;
    }

    std::vector<std::string> with_maven(const std::string& commands) const {
        return script({"--prepare", "--java", "true", "--work-dir", m_folder.path() + "/broker", "--maven",
                       fake_maven(commands)});
    }

    std::string runs() const { return m_folder.path() + "/runs"; }

    TemporaryFolder m_folder;
};

TEST_F(KafkaBrokerScriptTest, tells_what_is_missing_by_a_status_of_its_own) {
    const struct {
        const char* description;
        std::vector<std::string> arguments;
        int status;
        const char* reason;
    } cases[] = {
        {"no Java",
         {"--java", "no-such-java"},
         77,
         "kafka_broker: no broker to be had: Java is not installed: there is no command \"no-such-java\"\n"},
        {"no Maven",
         {"--java", "true", "--maven", "no-such-maven", "--work-dir", m_folder.path()},
         77,
         "kafka_broker: no broker to be had: Maven is not installed: there is no command "
         "\"no-such-maven\"\n"},
        {"wrong command line", {"--port", "1"}, 2, "unrecognized arguments: --port 1\n"},
    };
    for (const auto& row : cases) {
        ToolProcess process(script(row.arguments));
        EXPECT_EQ(process.wait(), row.status) << row.description;
        EXPECT_THAT(process.err(), HasSubstr(row.reason)) << row.description;
        EXPECT_EQ(process.out(), "") << row.description;
    }
}

TEST_F(KafkaBrokerScriptTest, tells_a_registry_that_cannot_be_reached_from_a_mistake) {
    const struct {
        const char* description;
        const char* commands;
        int status;
        const char* reason;
    } cases[] = {
        {"registry away",
         R"(echo '[ERROR] Plugin p:1 or one of its dependencies could not be resolved: Could not transfer artifact p'
            exit 1)",
         77, "no broker to be had: Maven cannot reach its registry: Plugin p:1 or one of its dependencies"},
        {"registry away, as Maven remembers",
         "echo '[ERROR] p failed to transfer from r during a previous attempt.'; exit 1", 77,
         "no broker to be had: Maven cannot reach its registry: p failed to transfer"},
        {"nothing fetched before", "echo '[ERROR] Cannot access r in offline mode'; exit 1", 77,
         "no broker to be had: Maven cannot reach its registry: Cannot access r in offline mode"},
        {"no such release", "echo '[ERROR] Could not find artifact k:jar:9 in r'; exit 1", 1,
         "kafka_broker: Maven failed with status 1: Could not find artifact k:jar:9 in r"},
    };
    for (const auto& row : cases) {
        ToolProcess process(with_maven(row.commands));
        EXPECT_EQ(process.wait(), row.status) << row.description;
        EXPECT_THAT(process.err(), HasSubstr(row.reason)) << row.description;
    }
}

TEST_F(KafkaBrokerScriptTest, gives_up_on_a_registry_that_does_not_answer) {
    auto words = with_maven("exec sleep 60");
    words.insert(words.end(), {"--maven-limit", "0.2"});
    ToolProcess process(words);
    EXPECT_EQ(process.wait(), 77);
    EXPECT_THAT(process.err(), HasSubstr("Maven got no answer from its registry within 0.2 s"));
}

TEST_F(KafkaBrokerScriptTest, keeps_the_class_path) {
    const auto words =
        with_maven("for word; do case $word in -Djars.directory=*) mkdir -p ${word#*=};; esac; done");
    for (int i = 0; i < 2; ++i) {
        ToolProcess process(words);
        EXPECT_EQ(process.wait(), 0) << process.err();
        EXPECT_THAT(process.out(), MatchesRegex("jars " + m_folder.path() + "/broker/.*/jars\n"));
    }
    EXPECT_EQ(read_file(runs()), "run\n");
}

TEST_F(KafkaBrokerScriptTest, shares_a_refusal_with_whoever_waits_for_the_same_class_path) {
    // The first one blocks in Maven until it is told the way on; the second one waits for the first one's lock.
    const std::string gate = m_folder.path() + "/gate";
    ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
    const auto words =
        with_maven("read word < '" + gate + "'; echo \"[ERROR] $word in offline mode\"; exit 1");
    ToolProcess first(words);
    ASSERT_TRUE(wait_until([&] { return fs::exists(runs()); }));
    ToolProcess second(words);
    ASSERT_TRUE(wait_until([&] {
        const auto call = blocking_call(second.pid(), second.pid());
        return call && call->number == SYS_flock;
    }));
    write_file(gate, "artifact\n");
    EXPECT_EQ(first.wait(), 77);
    EXPECT_EQ(second.wait(), 77);
    EXPECT_EQ(second.err(), first.err());
    EXPECT_THAT(second.err(), HasSubstr("artifact in offline mode"));
    EXPECT_EQ(read_file(runs()), "run\n");
}

// A run of one test of this very executable as if there were no Java.
class MissingBrokerTest : public ::testing::Test {
protected:
    static std::vector<std::string> run_without_java(const std::string& ci) {
        return {"env", "CORVALIN_JAVA=no-such-java", "CI=" + ci, fs::read_symlink("/proc/self/exe").string(),
                "--gtest_filter=KafkaBrokerTest.refuses_a_topic_that_exists/Apache"};
    }
};

TEST_F(MissingBrokerTest, tests_are_skipped_with_the_reason) {
    ToolProcess process(run_without_java(""));
    EXPECT_EQ(process.wait(), 77);
    EXPECT_THAT(process.out(), HasSubstr("Java is not installed"));
    EXPECT_THAT(process.out(), HasSubstr("[  SKIPPED ] 1 test"));
}

TEST_F(MissingBrokerTest, tests_fail_with_the_reason_in_continuous_integration) {
    ToolProcess process(run_without_java("true"));
    EXPECT_EQ(process.wait(), 1);
    EXPECT_THAT(process.out(), HasSubstr("Java is not installed"));
    EXPECT_THAT(process.out(), HasSubstr("[  FAILED  ] 1 test"));
}

} // namespace
