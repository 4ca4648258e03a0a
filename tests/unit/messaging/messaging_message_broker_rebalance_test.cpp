// Where the broker begins to read, what it makes of a topic that is not there, and the library's events.
#include "corvalin_lib/messaging_message_broker.h"

#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/captured_log.h"
#include "tests/support/waiting.h"
#include "tests/unit/messaging/broker_fixture.h"
#include "tests/unit/messaging/kafka_double.h"
#include "tests/unit/messaging/test_broker.h"

namespace {

using namespace corvalin;
using namespace corvalin::test;
using log::Level;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Matches;
using Partitions = std::vector<RdKafka::TopicPartition*>;

class MessagingMessageBrokerRebalanceTest : public BrokerFixture {
protected:
    /// The lines that begin so, without what all lines begin with.
    Texts lines_with(const std::string& words) const {
        const std::string module = "MESSAGE_BROKER: ";
        Texts chosen;
        for (const std::string& text : m_log.texts()) {
            if (text.compare(module.size(), words.size(), words) == 0) {
                chosen.push_back(text.substr(module.size()));
            }
        }
        return chosen;
    }
};

// ---- Rebalances

TEST_F(MessagingMessageBrokerRebalanceTest, a_first_assignment_moves_each_partition_to_its_end) {
    m_kafka.watermarks["wide/0"] = {RdKafka::ERR_NO_ERROR, 2, 7};
    m_kafka.rebalance(RdKafka::ERR__ASSIGN_PARTITIONS, {"wide/0", "own/2"});
    const TestBroker broker(consumer_settings());
    ASSERT_TRUE(m_kafka.wait_until_idle());
    EXPECT_THAT(lines_with("sync"), ElementsAre("sync offset for [wide/0] from (-1001) to (7)",
                                                "sync offset for [own/2] from (-1001) to (0)"));
    EXPECT_EQ(m_log.count(Level::SYSTEM, "MESSAGE_BROKER: sync offset for [wide/0] from (-1001) to (7)"), 1u);
    EXPECT_THAT(m_kafka.calls({"assign"}), ElementsAre("assign wide/0@7,own/2@0"));
    EXPECT_FALSE(broker.m_first_assignment);
}

TEST_F(MessagingMessageBrokerRebalanceTest, a_partition_at_its_end_or_beyond_keeps_its_offset) {
    m_kafka.watermarks["own/0"] = {RdKafka::ERR_NO_ERROR, 0, 7};
    m_kafka.in_consume([](RdKafka::KafkaConsumer& consumer, RdKafka::RebalanceCb& callback) {
        Partitions partitions;
        for (const int64_t offset : {6, 7, 8}) {
            partitions.push_back(RdKafka::TopicPartition::create("own", 0, offset));
        }
        callback.rebalance_cb(&consumer, RdKafka::ERR__ASSIGN_PARTITIONS, partitions);
        RdKafka::TopicPartition::destroy(partitions);
    });
    const TestBroker broker(consumer_settings());
    ASSERT_TRUE(m_kafka.wait_until_idle());
    EXPECT_THAT(lines_with("sync"),
                ElementsAre("sync offset for [own/0] from (6) to (7)",
                            "sync offset for [own/0] is not required; current is (7), received is (7)",
                            "sync offset for [own/0] is not required; current is (8), received is (7)"));
    EXPECT_EQ(m_log.count(Level::SYSTEM, "MESSAGE_BROKER: sync offset for [own/0] is not required; "
                                         "current is (8), received is (7)"),
              1u);
    EXPECT_THAT(m_kafka.calls({"assign"}), ElementsAre("assign own/0@7,own/0@7,own/0@8"));
}

TEST_F(MessagingMessageBrokerRebalanceTest, a_query_that_fails_leaves_its_partition_alone_and_no_other) {
    m_kafka.watermarks["wide/0"] = {RdKafka::ERR__TIMED_OUT, 0, 9};
    m_kafka.watermarks["own/0"] = {RdKafka::ERR_NO_ERROR, 0, 3};
    assign_first();
    const TestBroker broker(consumer_settings());
    ASSERT_TRUE(m_kafka.wait_until_idle());
    EXPECT_THAT(m_log.texts(Level::ERROR),
                ElementsAre("MESSAGE_BROKER: failed to receive offset for [wide/0]: error (-185): "
                            "\"Local: Timed out\""));
    EXPECT_THAT(lines_with("sync"), ElementsAre("sync offset for [own/0] from (-1001) to (3)"));
    EXPECT_THAT(m_kafka.calls({"assign"}), ElementsAre("assign wide/0@-1001,own/0@3"));
    EXPECT_EQ(m_log.count(Level::SYSTEM, SUBSCRIBED), 1u);
}

TEST_F(MessagingMessageBrokerRebalanceTest,
       the_start_is_released_behind_the_queries_and_ahead_of_the_assignment) {
    bool is_released_at_query = false;
    bool is_released_at_assignment = false;
    m_kafka.on_query = [&] {
        is_released_at_query = m_log.wait_for(SUBSCRIBED, std::chrono::milliseconds(100));
    };
    m_kafka.on_assign = [&] { is_released_at_assignment = m_log.wait_for(SUBSCRIBED); };
    assign_first();
    const TestBroker broker(consumer_settings());
    ASSERT_TRUE(m_kafka.wait_until_idle());
    EXPECT_FALSE(is_released_at_query);
    EXPECT_TRUE(is_released_at_assignment);
}

TEST_F(MessagingMessageBrokerRebalanceTest, later_assignments_stay_where_the_library_goes_on) {
    m_kafka.watermarks["own/0"] = {RdKafka::ERR_NO_ERROR, 0, 7};
    assign_first();
    m_kafka.rebalance(RdKafka::ERR__REVOKE_PARTITIONS, {"wide/0", "own/0"});
    m_kafka.rebalance(RdKafka::ERR__ASSIGN_PARTITIONS, {"own/0"});
    const TestBroker broker(consumer_settings());
    ASSERT_TRUE(m_kafka.wait_until_idle());
    EXPECT_THAT(lines_with("rebalance"),
                ElementsAre("rebalance \"Local: Assign partitions\": [wide/0], [own/0]",
                            "rebalance \"Local: Revoke partitions\": [wide/0], [own/0]",
                            "rebalance \"Local: Assign partitions\": [own/0]"));
    EXPECT_EQ(lines_with("sync").size(), 2u);
    EXPECT_THAT(m_kafka.calls({"assign", "unassign"}),
                ElementsAre("assign wide/0@0,own/0@7", "unassign", "assign own/0@-1001"));
}

TEST_F(MessagingMessageBrokerRebalanceTest, an_empty_assignment_counts_as_the_first) {
    m_kafka.rebalance(RdKafka::ERR__ASSIGN_PARTITIONS, {});
    assign_first();
    const TestBroker broker(consumer_settings());
    ASSERT_TRUE(m_kafka.wait_until_idle());
    EXPECT_EQ(m_log.count(Level::SYSTEM, SUBSCRIBED), 1u);
    EXPECT_THAT(lines_with("rebalance"),
                ElementsAre("rebalance \"Local: Assign partitions\": (no partitions)",
                            "rebalance \"Local: Assign partitions\": [wide/0], [own/0]"));
    EXPECT_THAT(lines_with("sync"), IsEmpty());
    EXPECT_THAT(m_kafka.calls({"assign"}), ElementsAre("assign ", "assign wide/0@-1001,own/0@-1001"));
}

TEST_F(MessagingMessageBrokerRebalanceTest, whatever_is_no_assignment_gives_the_partitions_up) {
    assign_first();
    // The consumer that the library names is not looked at here.
    for (const RdKafka::ErrorCode error : {RdKafka::ERR__REVOKE_PARTITIONS, RdKafka::ERR__FATAL}) {
        m_kafka.in_consume([error](RdKafka::KafkaConsumer&, RdKafka::RebalanceCb& callback) {
            Partitions none;
            callback.rebalance_cb(nullptr, error, none);
        });
    }
    const TestBroker broker(consumer_settings());
    ASSERT_TRUE(m_kafka.wait_until_idle());
    EXPECT_THAT(m_log.texts(), Contains("MESSAGE_BROKER: rebalance \"Local: Revoke partitions\": "
                                        "(no partitions)"));
    EXPECT_THAT(m_log.texts(), Contains("MESSAGE_BROKER: rebalance \"Local: Fatal error\": (no partitions)"));
    EXPECT_EQ(m_kafka.calls({"unassign"}).size(), 2u);
}

// ---- A topic that the broker does not know

constexpr const char* UNKNOWN =
    "MESSAGE_BROKER: topic [own] is unknown, let's check the one has been already "
    "created at broker";
constexpr const char* EXISTS =
    "MESSAGE_BROKER: topic [own] exist at broker, let's resubscribe to reload the topic";
constexpr const char* RESUBSCRIBED = "MESSAGE_BROKER: topics resubscribed successfully";
constexpr const char* NOT_THERE = "MESSAGE_BROKER: message receiving error (3): \"no such topic\"";

KafkaMessage unknown_topic(const std::string& topic) {
    return {RdKafka::ERR_UNKNOWN_TOPIC_OR_PART, topic, -1, -1001, {}, "no such topic"};
}

TEST_F(MessagingMessageBrokerRebalanceTest,
       a_topic_that_shows_up_is_subscribed_anew_and_its_error_forgotten) {
    m_kafka.metadata_answers = {{RdKafka::ERR_NO_ERROR, {"wide", "ow", "own2"}},
                                {RdKafka::ERR_NO_ERROR, {"wide", "own"}}};
    assign_first();
    m_kafka.deliver(unknown_topic("own"));
    const TestBroker broker(consumer_settings());
    ASSERT_TRUE(m_kafka.wait_until_idle());
    // The first pause is interrupted and goes on for what is left of it.
    EXPECT_THAT(m_kafka.calls({"sleep", "metadata", "subscribe", "unsubscribe"}),
                ElementsAre("subscribe wide,own", "sleep 100000000", "sleep 90000000", "metadata local 1000",
                            "sleep 100000000", "metadata local 1000", "unsubscribe", "subscribe wide,own"));
    EXPECT_EQ(m_log.count(Level::WARNING, UNKNOWN), 1u);
    EXPECT_EQ(m_log.count(Level::INFO, EXISTS), 1u);
    EXPECT_EQ(m_log.count(Level::INFO, RESUBSCRIBED), 1u);
    EXPECT_THAT(m_log.lines(Level::ERROR), IsEmpty());
    EXPECT_TRUE(broker.m_consumer_running);
}

TEST_F(MessagingMessageBrokerRebalanceTest, a_topic_that_shows_up_at_the_fifth_look_is_in_time) {
    m_kafka.metadata_answers.assign(4, {});
    m_kafka.metadata_answers.push_back({RdKafka::ERR_NO_ERROR, {"own"}});
    assign_first();
    m_kafka.deliver(unknown_topic("own"));
    const TestBroker broker(consumer_settings());
    ASSERT_TRUE(m_kafka.wait_until_idle());
    EXPECT_EQ(m_kafka.calls({"metadata"}).size(), 5u);
    EXPECT_EQ(m_log.count(Level::INFO, RESUBSCRIBED), 1u);
}

TEST_F(MessagingMessageBrokerRebalanceTest,
       a_topic_that_stays_away_is_looked_for_once_in_the_life_of_the_thread) {
    m_kafka.metadata_answers.assign(5, {});
    m_kafka.metadata_answers.push_back({RdKafka::ERR_NO_ERROR, {"wide", "own"}});
    assign_first();
    m_kafka.deliver(unknown_topic("own"));
    m_kafka.deliver(unknown_topic("own"));
    m_kafka.deliver(unknown_topic("wide"));
    m_kafka.deliver("own", deflated("good"));
    const TestBroker broker(consumer_settings());
    ASSERT_TRUE(m_kafka.wait_until_idle());
    EXPECT_EQ(m_kafka.calls({"metadata"}).size(), 5u);
    EXPECT_EQ(m_kafka.calls({"sleep"}).size(), 6u); // one of them was interrupted
    EXPECT_EQ(m_log.lines(Level::WARNING).size(), 1u);
    EXPECT_EQ(m_log.count(Level::ERROR, NOT_THERE), 3u);
    EXPECT_EQ(m_log.lines(Level::ERROR).size(), 3u);
    EXPECT_THAT(m_kafka.calls({"unsubscribe"}), IsEmpty());
    EXPECT_THAT(m_received, ElementsAre("good"));
}

TEST_F(MessagingMessageBrokerRebalanceTest, a_topic_that_was_found_once_is_not_looked_for_again) {
    m_kafka.metadata_answers = {{RdKafka::ERR_NO_ERROR, {"own"}}, {RdKafka::ERR_NO_ERROR, {"own"}}};
    assign_first();
    m_kafka.deliver(unknown_topic("own"));
    m_kafka.deliver(unknown_topic("own"));
    const TestBroker broker(consumer_settings());
    ASSERT_TRUE(m_kafka.wait_until_idle());
    EXPECT_EQ(m_kafka.calls({"metadata"}).size(), 1u);
    EXPECT_EQ(m_log.count(Level::ERROR, NOT_THERE), 1u);
}

TEST_F(MessagingMessageBrokerRebalanceTest, a_subscription_that_fails_the_second_time_ends_the_thread) {
    m_kafka.metadata_answers = {{RdKafka::ERR_NO_ERROR, {"own"}}};
    m_kafka.subscribe_answers = {RdKafka::ERR_NO_ERROR, RdKafka::ERR__STATE};
    assign_first();
    m_kafka.deliver(unknown_topic("own"));
    TestBroker broker(consumer_settings());
    // Not the last line for sure: the start, released by the assignment, may write its own behind it.
    ASSERT_TRUE(wait_until([this] { return Matches(Contains(HasSubstr("] stopped")))(m_log.texts()); }));
    EXPECT_THAT(m_log.texts(Level::ERROR),
                ElementsAre("MESSAGE_BROKER: failed to resubscribe topics, error (-172): "
                            "Local: Erroneous state"));
    EXPECT_EQ(m_log.count(Level::INFO, RESUBSCRIBED), 0u);
    EXPECT_FALSE(broker.m_consumer_running);
    // The stop finds a thread to join, as ever.
    broker.stop_consumer();
    EXPECT_EQ(m_log.lines(Level::ERROR).size(), 1u);
}

TEST_F(MessagingMessageBrokerRebalanceTest, a_broker_that_does_not_tell_its_topics_is_a_line_for_each_look) {
    const std::string failed =
        "MESSAGE_BROKER: failed to receive metadata from broker: error (-195): \"Local: Broker transport "
        "failure\"";
    const std::string missing = "MESSAGE_BROKER: metadata or metadata topics do not exist";
    m_kafka.metadata_answers = {{RdKafka::ERR__TRANSPORT, {}},
                                {RdKafka::ERR_NO_ERROR, {}, true, true},
                                {RdKafka::ERR_NO_ERROR, {"own"}, false, false},
                                {},
                                {RdKafka::ERR__TRANSPORT, {}}};
    assign_first();
    m_kafka.deliver(unknown_topic("own"));
    const TestBroker broker(consumer_settings());
    ASSERT_TRUE(m_kafka.wait_until_idle());
    EXPECT_THAT(m_log.texts(Level::ERROR), ElementsAre(failed, missing, missing, failed, NOT_THERE));
}

// ---- Events of the library

class EventDouble : public RdKafka::Event {
public:
    int event_type = EVENT_ERROR;
    RdKafka::ErrorCode event_error = RdKafka::ERR_NO_ERROR;
    Severity event_severity = EVENT_SEVERITY_DEBUG;
    bool is_fatal = false;

    // A later library may have kinds that our enumeration does not name, which is what one of the cases is about.
    __attribute__((no_sanitize("undefined"))) Type type() const override {
        Type type;
        static_assert(sizeof(type) == sizeof(event_type));
        std::memcpy(&type, &event_type, sizeof(type));
        return type;
    }
    RdKafka::ErrorCode err() const override { return event_error; }
    Severity severity() const override { return event_severity; }
    std::string fac() const override { return "FAIL"; }
    std::string str() const override { return "what it says"; }
    int throttle_time() const override { return 250; }
    std::string broker_name() const override { return "one:1/7"; }
    int broker_id() const override { return 7; }
    bool fatal() const override { return is_fatal; }
};

TEST_F(MessagingMessageBrokerRebalanceTest, each_event_is_one_line) {
    using Event = RdKafka::Event;
    struct Case {
        const char* description;
        int type;
        RdKafka::ErrorCode error;
        bool is_fatal;
        Event::Severity severity;
        Level level;
        const char* line;
    };
    const std::vector<Case> cases = {
        {"an error, with two blanks where a fatal one says so", Event::EVENT_ERROR,
         RdKafka::ERR__ALL_BROKERS_DOWN, false, Event::EVENT_SEVERITY_ERROR, Level::ERROR,
         "MESSAGE_BROKER:  error (Local: All broker connections are down): what it says"},
        {"a fatal error", Event::EVENT_ERROR, RdKafka::ERR__FATAL, true, Event::EVENT_SEVERITY_ERROR,
         Level::ERROR, "MESSAGE_BROKER: FATAL error (Local: Fatal error): what it says"},
        {"statistics", Event::EVENT_STATS, RdKafka::ERR_NO_ERROR, false, Event::EVENT_SEVERITY_DEBUG,
         Level::ERROR, "MESSAGE_BROKER: STAT: what it says"},
        {"a log line", Event::EVENT_LOG, RdKafka::ERR_NO_ERROR, false, Event::EVENT_SEVERITY_DEBUG,
         Level::INFO, "MESSAGE_BROKER: LOG-7-FAIL: what it says"},
        {"a log line of the highest severity", Event::EVENT_LOG, RdKafka::ERR_NO_ERROR, false,
         Event::EVENT_SEVERITY_EMERG, Level::INFO, "MESSAGE_BROKER: LOG-0-FAIL: what it says"},
        {"a throttle", Event::EVENT_THROTTLE, RdKafka::ERR_NO_ERROR, false, Event::EVENT_SEVERITY_DEBUG,
         Level::INFO, "MESSAGE_BROKER: THROTTLED: 250ms by one:1/7(id: 7)"},
        {"a kind of a later library", 4, RdKafka::ERR__TIMED_OUT, false, Event::EVENT_SEVERITY_DEBUG,
         Level::INFO, "MESSAGE_BROKER: event (4) \"Local: Timed out\": what it says"},
    };
    TestBroker broker(producer_settings());
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        m_log.clear();
        EventDouble event;
        event.event_type = row.type;
        event.event_error = row.error;
        event.is_fatal = row.is_fatal;
        event.event_severity = row.severity;
        broker.event_cb(event);
        EXPECT_EQ(m_log.lines().size(), 1u);
        EXPECT_EQ(m_log.count(row.level, row.line), 1u);
    }
}

} // namespace
