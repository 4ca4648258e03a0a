// The broker and the dispatcher with the library itself and the cluster that it brings along. That cluster takes 3
// seconds for the first assignment of a group, so there are few of these.
#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "corvalin_lib/json.h"
#include "corvalin_lib/messaging_event_dispatcher.h"
#include "tests/support/captured_log.h"
#include "tests/unit/messaging/test_broker.h"

namespace {

using namespace corvalin;
using namespace corvalin::test;
using log::Level;
using messaging::EventDispatcher;
using messaging::EventHandlers;
using messaging::MessageBrokerSettings;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;

/// One broker in this process, and a client that writes to it.
class MockCluster {
public:
    MockCluster() : m_client(create_client()), m_cluster(rd_kafka_handle_mock_cluster(m_client.get())) {
        if (m_cluster == nullptr) {
            throw std::runtime_error("no mock cluster");
        }
    }

    std::string brokers() const { return rd_kafka_mock_cluster_bootstraps(m_cluster); }
    void create_topic(const std::string& name) const {
        if (rd_kafka_mock_topic_create(m_cluster, name.c_str(), 1, 1) != RD_KAFKA_RESP_ERR_NO_ERROR) {
            throw std::runtime_error("no topic");
        }
    }
    void publish(const std::string& topic, const std::string& payload) const {
        void* const bytes = const_cast<char*>(payload.data()); // copied
        rd_kafka_topic_t* const handle = rd_kafka_topic_new(m_client.get(), topic.c_str(), nullptr);
        const int status = rd_kafka_produce(handle, RD_KAFKA_PARTITION_UA, RD_KAFKA_MSG_F_COPY, bytes,
                                            payload.size(), nullptr, 0, nullptr);
        rd_kafka_topic_destroy(handle);
        if (status != 0 || rd_kafka_flush(m_client.get(), 10'000) != RD_KAFKA_RESP_ERR_NO_ERROR) {
            throw std::runtime_error("not published");
        }
    }

private:
    using Client = std::unique_ptr<rd_kafka_t, decltype(&rd_kafka_destroy)>;

    static Client create_client() {
        rd_kafka_conf_t* const conf = rd_kafka_conf_new();
        std::array<char, 256> reason{};
        rd_kafka_conf_set(conf, "test.mock.num.brokers", "1", reason.data(), reason.size());
        rd_kafka_conf_set(conf, "log_level", "2", reason.data(), reason.size());
        rd_kafka_t* const client = rd_kafka_new(RD_KAFKA_PRODUCER, conf, reason.data(), reason.size());
        if (client == nullptr) {
            throw std::runtime_error(reason.data());
        }
        return {client, &rd_kafka_destroy};
    }

    Client m_client;
    rd_kafka_mock_cluster_t* m_cluster; // owned by the client
};

TEST(MessagingLibraryTest, events_are_read_from_the_first_assignment_on_and_come_back_from_the_broker) {
    const CapturedLog log(Level::INFO);
    const MockCluster cluster;
    cluster.create_topic("own");
    for (int i = 0; i < 7; ++i) {
        cluster.publish("own", deflated(std::string("\0{\"type\":\"echo\", \"old\":1}", 26)));
    }
    MessageBrokerSettings settings;
    settings.brokers = cluster.brokers();
    settings.group = "circle";
    settings.topics = {"own"};
    settings.receive_timeout_ms = 50;
    std::vector<std::size_t> echoes; // consumer thread, until the dispatcher is gone
    EventHandlers handlers;
    handlers["echo"] = [&echoes](const std::string&, void* context) {
        echoes.push_back(static_cast<const rapidjson::Document*>(context)->MemberCount());
    };
    {
        EventDispatcher dispatcher(settings, std::move(handlers));
        EXPECT_EQ(log.count(Level::SYSTEM, "MESSAGE_BROKER: subscribed for [own] topic(s)"), 1u);
        dispatcher.dispatch("own", "{\"type\":\"echo\"}");
        EXPECT_EQ(log.count(Level::INFO, "MESSAGE_BROKER: message delivered to own[0] at offset (7)"), 1u);
        cluster.publish("own", "no zlib stream");
        cluster.publish("own", "");
        dispatcher.dispatch("own", "{\"type\":\"last\"}");
        EXPECT_TRUE(log.wait_for("EVENT_DISPATCHER: unknown JSON event [last]"));
    }
    EXPECT_THAT(echoes, ElementsAre(1u));
    const std::vector<std::string> texts = log.texts();
    EXPECT_THAT(texts, IsSupersetOf({"MESSAGE_BROKER: rebalance \"Local: Assign partitions\": [own/0]",
                                     "MESSAGE_BROKER: sync offset for [own/0] from (-1001) to (7)",
                                     "MESSAGE_BROKER: rebalance \"Local: Revoke partitions\": [own/0]"}));
    EXPECT_THAT(log.texts(Level::ERROR), ElementsAre("MESSAGE_BROKER: message decompressing error (-3)",
                                                     "MESSAGE_BROKER: message decompressing error (-3)",
                                                     "EVENT_DISPATCHER: unknown JSON event [last]"));
    EXPECT_THAT(log.lines(Level::WARNING), IsEmpty());
    EXPECT_NE(texts.back().find("] stopped"), std::string::npos);
}

/// Nanoseconds by which the kernel may be late for a thread that waits, by thread.
std::map<std::string, std::string> timer_slacks() {
    std::map<std::string, std::string> slacks;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        const std::string id = thread.path().filename();
        std::getline(std::ifstream("/proc/" + id + "/timerslack_ns"), slacks[id]);
    }
    return slacks;
}

TEST(MessagingLibraryTest, threads_of_the_library_may_wake_a_millisecond_late_and_no_others) {
    const CapturedLog log(Level::INFO);
    MessageBrokerSettings settings;
    settings.brokers = "127.0.0.1:1"; // nobody there
    const std::map<std::string, std::string> before = timer_slacks();
    const TestBroker broker(settings);
    const std::map<std::string, std::string> with_client = timer_slacks();
    EXPECT_GT(with_client.size(), before.size());
    for (const auto& [id, slack] : with_client) {
        const auto known = before.find(id);
        EXPECT_EQ(slack, known == before.end() ? "1000000" : known->second) << id;
    }
}

TEST(MessagingLibraryTest, a_message_for_a_broker_that_is_away_is_waited_for_and_lost_at_the_stop) {
    const CapturedLog log(Level::INFO);
    MessageBrokerSettings settings;
    settings.brokers = "127.0.0.1:1";
    const auto begin = std::chrono::steady_clock::now();
    auto broker = std::make_unique<TestBroker>(settings);
    broker->send_text("request", "text");
    const auto sent = std::chrono::steady_clock::now();
    EXPECT_THAT(log.texts(),
                ElementsAre("MESSAGE_BROKER: message may not be sent to [request]; error (-185): "
                            "Local: Timed out"));
    broker.reset();
    const auto stopped = std::chrono::steady_clock::now();
    EXPECT_THAT(log.texts(), Contains("MESSAGE_BROKER: losing data as (1) message(s) were not delivered"));
    EXPECT_EQ(log.lines().size(), 2u);
    EXPECT_GE(sent - begin, std::chrono::milliseconds(4900));
    EXPECT_LT(sent - begin, std::chrono::seconds(9));
    EXPECT_GE(stopped - sent, std::chrono::milliseconds(9900));
    EXPECT_LT(stopped - sent, std::chrono::seconds(19));
}

} // namespace
