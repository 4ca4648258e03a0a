// The broker against doubles of the library's objects: what it asks of them, in which order, and what it makes of each
// answer.
#include "corvalin_lib/messaging_message_broker.h"

#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <future>
#include <string>
#include <type_traits>
#include <utility>
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
using messaging::MessageBroker;
using messaging::MessageBrokerSettings;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

class MessagingMessageBrokerTest : public BrokerFixture {};

// ---- Shape

TEST_F(MessagingMessageBrokerTest, settings_begin_empty) {
    const MessageBrokerSettings settings;
    EXPECT_EQ(settings.brokers, "");
    EXPECT_EQ(settings.group, "");
    EXPECT_TRUE(settings.topics.empty());
    EXPECT_FALSE(settings.on_message_received);
    EXPECT_FALSE(settings.on_receive_timeout);
    EXPECT_EQ(settings.receive_timeout_ms, 0u);
}

TEST_F(MessagingMessageBrokerTest, bases_and_fields_stand_in_their_order) {
    TestBroker test_broker(producer_settings());
    MessageBroker& broker = test_broker.broker();
    const auto place = [&broker](const auto& part) {
        return reinterpret_cast<const char*>(&part) - reinterpret_cast<const char*>(&broker);
    };
    EXPECT_TRUE(std::has_virtual_destructor_v<MessageBroker>);
    const std::vector<std::ptrdiff_t> places{place(static_cast<RdKafka::RebalanceCb&>(broker)),
                                             place(static_cast<RdKafka::EventCb&>(broker)),
                                             place(static_cast<RdKafka::DeliveryReportCb&>(broker)),
                                             place(test_broker.m_settings),
                                             place(test_broker.m_producer),
                                             place(test_broker.m_consumer),
                                             place(test_broker.m_consumer_thread),
                                             place(test_broker.m_consumer_running),
                                             place(test_broker.m_consumer_ready),
                                             place(test_broker.m_first_assignment)};
    EXPECT_EQ(places.front(), 0);
    EXPECT_TRUE(std::is_sorted(places.begin(), places.end()));
}

// ---- Producer

TEST_F(MessagingMessageBrokerTest, without_topics_there_is_a_producer_and_no_consumer) {
    {
        TestBroker broker(producer_settings());
        EXPECT_FALSE(broker.m_consumer_thread.joinable());
        EXPECT_FALSE(broker.m_consumer_running);
        EXPECT_TRUE(broker.m_producer);
        EXPECT_EQ(m_kafka.delivery_callback(), static_cast<RdKafka::DeliveryReportCb*>(&broker.broker()));
        EXPECT_EQ(m_kafka.event_callback(), nullptr);
        broker.stop_consumer();
    }
    EXPECT_THAT(m_kafka.calls(),
                ElementsAre("create global conf", "set global metadata.broker.list=one:1,two:2",
                            "set global dr_cb", "create producer global", "delete global conf", "flush 10000",
                            "outq_len", "delete producer", "wait_destroyed 5000"));
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(MessagingMessageBrokerTest, a_producer_that_cannot_be_made_is_one_line_and_no_more) {
    struct Case {
        const char* description;
        const char* property; // null: the producer itself
        const char* line;
        Texts calls;
    };
    const std::vector<Case> cases = {
        {"the brokers",
         "metadata.broker.list",
         "MESSAGE_BROKER: failed to setup \"metadata.broker.list\": for a reason",
         {"create global conf", "set global metadata.broker.list=one:1,two:2", "delete global conf"}},
        {"the delivery report",
         "dr_cb",
         "MESSAGE_BROKER: failed to setup \"dr_cb\": for a reason",
         {"create global conf", "set global metadata.broker.list=one:1,two:2", "set global dr_cb",
          "delete global conf"}},
        {"the producer",
         nullptr,
         "MESSAGE_BROKER: failed to create producer: for a reason",
         {"create global conf", "set global metadata.broker.list=one:1,two:2", "set global dr_cb",
          "create producer global", "delete global conf"}},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        m_log.clear();
        m_kafka.refused_properties.clear();
        if (row.property != nullptr) {
            m_kafka.refused_properties[row.property] = "for a reason";
        } else {
            m_kafka.producer_refusal = "for a reason";
        }
        const std::size_t before = m_kafka.calls().size();
        {
            const TestBroker broker(producer_settings());
            EXPECT_FALSE(broker.m_producer);
        }
        Texts calls = m_kafka.calls();
        calls.erase(calls.begin(), calls.begin() + static_cast<std::ptrdiff_t>(before));
        Texts expected = row.calls;
        expected.emplace_back("wait_destroyed 5000"); // and no flush of what is not there
        EXPECT_EQ(calls, expected);
        EXPECT_THAT(m_log.records(), ElementsAre(std::string("ERROR messaging_message_broker: ") + row.line));
    }
}

TEST_F(MessagingMessageBrokerTest, a_message_is_one_zlib_stream_with_nothing_around_it) {
    TestBroker broker(producer_settings());
    broker.send_text("request", "some text");
    ASSERT_EQ(m_kafka.produced().size(), 1u);
    const ProducedMessage message = m_kafka.produced()[0];
    EXPECT_EQ(message.topic, "request");
    EXPECT_EQ(message.partition, -1);
    EXPECT_EQ(message.flags, 1); // the library frees the payload, and makes no copy
    EXPECT_EQ(message.payload, deflated("some text"));
    EXPECT_FALSE(message.has_key);
    EXPECT_EQ(message.key_length, 0u);
    EXPECT_EQ(message.timestamp, 0);
    EXPECT_FALSE(message.has_opaque);
    EXPECT_THAT(m_kafka.calls({"produce", "poll", "flush"}), ElementsAre("produce request", "flush 5000"));
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(MessagingMessageBrokerTest, a_full_queue_is_tried_three_times_with_a_poll_behind_each) {
    TestBroker broker(producer_settings());
    m_kafka.produce_answers.assign(3, RdKafka::ERR__QUEUE_FULL);
    broker.send_text("request", "some text");
    EXPECT_THAT(m_kafka.calls({"produce", "poll", "flush"}),
                ElementsAre("produce request", "poll 1000", "produce request", "poll 1000", "produce request",
                            "poll 1000"));
    EXPECT_EQ(m_log.lines().size(), 3u);
    EXPECT_EQ(
        m_log.count(Level::ERROR,
                    "MESSAGE_BROKER: failed to send message to [request]; error (-184): Local: Queue full"),
        3u);
    EXPECT_EQ(array_releases(m_kafka.produced().back().payload_pointer), 1);
}

TEST_F(MessagingMessageBrokerTest, a_queue_that_has_room_again_takes_the_message) {
    for (std::size_t failures = 1; failures <= 2; ++failures) {
        SCOPED_TRACE(failures);
        m_log.clear();
        TestBroker broker(producer_settings());
        m_kafka.produce_answers.assign(failures, RdKafka::ERR__QUEUE_FULL);
        broker.send_text("request", "some text");
        EXPECT_EQ(m_log.lines(Level::ERROR).size(), failures);
        EXPECT_EQ(m_kafka.calls().back(), "flush 5000");
        EXPECT_EQ(m_kafka.calls({"poll"}).size(), failures == 1 ? 1u : 3u); // of both rounds
    }
}

TEST_F(MessagingMessageBrokerTest, any_other_refusal_is_final) {
    TestBroker broker(producer_settings());
    m_kafka.produce_answers = {RdKafka::ERR_MSG_SIZE_TOO_LARGE};
    broker.send_text("request", "some text");
    EXPECT_THAT(m_kafka.calls({"produce", "poll", "flush"}), ElementsAre("produce request"));
    EXPECT_THAT(m_log.records(), ElementsAre("ERROR messaging_message_broker: MESSAGE_BROKER: failed to send "
                                             "message to [request]; error (10): "
                                             "Broker: Message size too large"));
    EXPECT_EQ(array_releases(m_kafka.produced().back().payload_pointer), 1);
}

TEST_F(MessagingMessageBrokerTest, a_refusal_behind_a_full_queue_is_final_as_well) {
    TestBroker broker(producer_settings());
    m_kafka.produce_answers = {RdKafka::ERR__QUEUE_FULL, RdKafka::ERR__UNKNOWN_TOPIC};
    broker.send_text("request", "some text");
    EXPECT_THAT(m_kafka.calls({"produce", "poll", "flush"}),
                ElementsAre("produce request", "poll 1000", "produce request"));
    EXPECT_THAT(m_log.texts(Level::ERROR),
                ElementsAre("MESSAGE_BROKER: failed to send message to [request]; error (-184): "
                            "Local: Queue full",
                            "MESSAGE_BROKER: failed to send message to [request]; error (-188): "
                            "Local: Unknown topic"));
    EXPECT_EQ(m_log.lines().size(), 2u);
    EXPECT_EQ(array_releases(m_kafka.produced().back().payload_pointer), 1);
}

TEST_F(MessagingMessageBrokerTest,
       a_message_that_the_library_gives_up_later_is_a_line_and_is_not_sent_again) {
    TestBroker broker(producer_settings());
    m_kafka.flush_answers = {RdKafka::ERR__TIMED_OUT};
    broker.send_text("first", "some text");
    EXPECT_THAT(m_log.texts(),
                ElementsAre("MESSAGE_BROKER: message may not be sent to [first]; error (-185): "
                            "Local: Timed out"));
    // Whoever flushes next is handed the report.
    m_kafka.on_flush = [this] {
        MessageDouble failed(
            {RdKafka::ERR__MSG_TIMED_OUT, "first", -1, -1001, {}, "Local: Message timed out"});
        m_kafka.delivery_callback()->dr_cb(failed);
    };
    broker.send_text("second", "some text");
    EXPECT_THAT(m_log.texts(Level::ERROR),
                ElementsAre("MESSAGE_BROKER: message delivery failed to first[-1], error: "
                            "Local: Message timed out"));
    EXPECT_EQ(m_log.lines().size(), 2u);
    EXPECT_THAT(m_kafka.calls({"produce"}), ElementsAre("produce first", "produce second"));
    m_kafka.on_flush = nullptr;
}

TEST_F(MessagingMessageBrokerTest, a_flush_that_runs_out_leaves_the_message_with_a_warning) {
    TestBroker broker(producer_settings());
    m_kafka.flush_answers = {RdKafka::ERR__TIMED_OUT};
    broker.send_text("request", "some text");
    EXPECT_THAT(m_log.records(), ElementsAre("WARNING messaging_message_broker: MESSAGE_BROKER: message may "
                                             "not be sent to [request]; error (-185): "
                                             "Local: Timed out"));
}

TEST_F(MessagingMessageBrokerTest, a_message_that_cannot_be_compressed_does_not_reach_the_producer) {
    TestBroker broker(producer_settings());
    const FailingCompression failing(Z_MEM_ERROR);
    broker.send_text("request", "some text");
    EXPECT_THAT(m_kafka.produced(), IsEmpty());
    EXPECT_THAT(m_kafka.calls({"flush"}), IsEmpty());
    EXPECT_THAT(m_log.texts(), ElementsAre("MESSAGE_BROKER: message compressing error (-4)"));
}

TEST_F(MessagingMessageBrokerTest, a_delivery_report_is_one_line) {
    TestBroker broker(producer_settings());
    MessageDouble delivered({RdKafka::ERR_NO_ERROR, "request", 3, 17, {}, ""});
    MessageDouble failed({RdKafka::ERR__MSG_TIMED_OUT, "request", 4, -1001, {}, "Local: Message timed out"});
    broker.dr_cb(delivered);
    broker.dr_cb(failed);
    EXPECT_THAT(m_log.texts(Level::INFO),
                ElementsAre("MESSAGE_BROKER: message delivered to request[3] at offset (17)"));
    EXPECT_THAT(
        m_log.texts(Level::ERROR),
        ElementsAre(
            "MESSAGE_BROKER: message delivery failed to request[4], error: Local: Message timed out"));
    EXPECT_EQ(m_log.lines().size(), 2u);
}

TEST_F(MessagingMessageBrokerTest,
       what_is_left_in_the_queue_at_the_stop_is_told_and_a_second_stop_does_nothing) {
    TestBroker broker(producer_settings());
    m_kafka.queue_length = 2;
    m_kafka.flush_answers = {RdKafka::ERR__TIMED_OUT};
    broker.stop_producer();
    EXPECT_FALSE(broker.m_producer);
    broker.stop_producer();
    EXPECT_THAT(m_kafka.calls({"flush", "outq_len", "delete"}),
                ElementsAre("delete global conf", "flush 10000", "outq_len", "delete producer"));
    EXPECT_THAT(m_log.records(), ElementsAre("WARNING messaging_message_broker: MESSAGE_BROKER: losing data "
                                             "as (2) message(s) were not delivered"));
}

// ---- Consumer: start and stop

TEST_F(MessagingMessageBrokerTest, the_consumer_is_made_before_the_producer_and_ends_before_it) {
    assign_first();
    m_kafka.in_close([](RdKafka::KafkaConsumer&, RdKafka::RebalanceCb& callback) {
        std::vector<RdKafka::TopicPartition*> none;
        callback.rebalance_cb(nullptr, RdKafka::ERR__REVOKE_PARTITIONS, none);
    });
    {
        TestBroker broker(consumer_settings());
        EXPECT_EQ(m_kafka.rebalance_callback(), static_cast<RdKafka::RebalanceCb*>(&broker.broker()));
        EXPECT_EQ(m_kafka.event_callback(), static_cast<RdKafka::EventCb*>(&broker.broker()));
        ASSERT_TRUE(m_kafka.wait_until_idle());
        EXPECT_TRUE(broker.m_consumer_running);
    }
    Texts calls = m_kafka.calls();
    // The assignment follows its release of the constructor, and so goes on beside the producer.
    std::erase(calls, "assign wide/0@0,own/0@0");
    EXPECT_THAT(
        calls,
        ElementsAre("create global conf", "set global rebalance_cb", "set global enable.partition.eof=true",
                    "set global allow.auto.create.topics=true", "set global group.id=circle",
                    "set global metadata.broker.list=one:1,two:2", "set global event_cb", "create topic conf",
                    "set topic auto.offset.reset=latest", "set global default_topic_conf=topic",
                    "create consumer global", "subscribe wide,own", "delete topic conf", "delete global conf",
                    "consume", "query_watermark_offsets wide/0 1000", "query_watermark_offsets own/0 1000",
                    "create global conf", "set global metadata.broker.list=one:1,two:2", "set global dr_cb",
                    "create producer global", "delete global conf", "close", "unassign", "delete consumer",
                    "flush 10000", "outq_len", "delete producer", "wait_destroyed 5000"));
    EXPECT_THAT(m_log.texts(),
                ElementsAre(MatchesRegex("MESSAGE_BROKER: messages listening thread \\[[0-9]+\\] started"),
                            "MESSAGE_BROKER: rebalance \"Local: Assign partitions\": [wide/0], [own/0]",
                            "MESSAGE_BROKER: sync offset for [wide/0] from (-1001) to (0)",
                            "MESSAGE_BROKER: sync offset for [own/0] from (-1001) to (0)", SUBSCRIBED,
                            "MESSAGE_BROKER: rebalance \"Local: Revoke partitions\": (no partitions)",
                            MatchesRegex("MESSAGE_BROKER: messages listening thread \\[[0-9]+\\] stopped")));
    EXPECT_EQ(m_log.lines(Level::SYSTEM).size(), 7u);
}

TEST_F(MessagingMessageBrokerTest, the_listening_thread_names_itself_by_the_kernels_id) {
    assign_first();
    std::string id;
    m_kafka.in_consume(
        [&id](RdKafka::KafkaConsumer&, RdKafka::RebalanceCb&) { id = std::to_string(gettid()); });
    {
        const TestBroker broker(consumer_settings());
        ASSERT_TRUE(m_kafka.wait_until_idle());
    }
    EXPECT_NE(id, std::to_string(gettid()));
    EXPECT_EQ(m_log.texts().front(), "MESSAGE_BROKER: messages listening thread [" + id + "] started");
    EXPECT_EQ(m_log.texts().back(), "MESSAGE_BROKER: messages listening thread [" + id + "] stopped");
}

TEST_F(MessagingMessageBrokerTest, a_poll_takes_as_long_as_the_settings_say_and_else_a_second) {
    for (const auto& [wanted, expected] : {std::pair<uint64_t, int>{0, 1000}, {1, 1}, {250, 250}}) {
        SCOPED_TRACE(wanted);
        assign_first();
        MessageBrokerSettings settings = consumer_settings();
        settings.receive_timeout_ms = wanted;
        const TestBroker broker(settings);
        ASSERT_TRUE(m_kafka.wait_until_idle());
        EXPECT_EQ(m_kafka.consume_timeout_ms(), expected);
    }
}

TEST_F(MessagingMessageBrokerTest, a_stop_waits_for_the_poll_in_progress_and_then_closes) {
    assign_first();
    std::atomic<bool>* running = nullptr;
    std::promise<void> known;
    std::promise<void> entered;
    bool is_told_within_the_poll = false;
    m_kafka.in_consume([&](RdKafka::KafkaConsumer&, RdKafka::RebalanceCb&) {
        known.get_future().wait();
        entered.set_value();
        is_told_within_the_poll = wait_until([&] { return !running->load(); });
        m_kafka.deliver("own", deflated("behind the stop"));
    });
    TestBroker broker(consumer_settings());
    running = &broker.m_consumer_running;
    known.set_value();
    ASSERT_EQ(entered.get_future().wait_for(WAIT_LIMIT), std::future_status::ready);
    broker.stop_consumer();
    EXPECT_TRUE(is_told_within_the_poll);
    EXPECT_FALSE(broker.m_consumer_thread.joinable());
    EXPECT_THAT(m_kafka.calls({"consume", "close"}), ElementsAre("consume", "consume", "close"));
    EXPECT_THAT(m_received, IsEmpty());
    EXPECT_THAT(m_log.texts().back(),
                MatchesRegex("MESSAGE_BROKER: messages listening thread \\[[0-9]+\\] stopped"));
}

TEST_F(MessagingMessageBrokerTest, a_second_stop_of_the_consumer_speaks_of_itself) {
    assign_first();
    TestBroker broker(consumer_settings());
    broker.stop_consumer();
    EXPECT_THAT(m_log.lines(Level::ERROR), IsEmpty());
    EXPECT_FALSE(broker.m_consumer);
    broker.stop_consumer();
    EXPECT_EQ(
        m_log.count(Level::ERROR,
                    "MESSAGE_BROKER: trying to stop consumer thread from itself! Possible memory leak!!!"),
        1u);
}

TEST_F(MessagingMessageBrokerTest,
       a_start_without_an_assignment_goes_on_after_ten_seconds_and_one_may_come_later) {
    m_kafka.subscribe_answers = {RdKafka::ERR__INVALID_ARG};
    const auto begin = std::chrono::steady_clock::now();
    TestBroker broker(consumer_settings());
    const auto taken = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(taken, std::chrono::seconds(10));
    EXPECT_LT(taken, std::chrono::seconds(14));
    EXPECT_THAT(m_log.texts(Level::ERROR),
                ElementsAre("MESSAGE_BROKER: consumer topics subscribe failed, error (-186): "
                            "Local: Invalid argument or configuration",
                            "MESSAGE_BROKER: consumer startup failed"));
    EXPECT_TRUE(broker.m_producer);
    assign_first();
    m_kafka.deliver("own", deflated("late"));
    ASSERT_TRUE(m_kafka.wait_until_idle());
    EXPECT_THAT(m_received, ElementsAre("late"));
    EXPECT_EQ(m_kafka.calls({"query_watermark_offsets"}).size(), 2u);
    EXPECT_EQ(m_log.count(Level::SYSTEM, SUBSCRIBED), 0u);
}

// ---- Consumer: messages

TEST_F(MessagingMessageBrokerTest, messages_are_inflated_and_handed_on_in_their_order) {
    assign_first();
    m_kafka.deliver("wide", deflated("first"));
    m_kafka.deliver("own", deflated(std::string("\0\1", 2)));
    m_kafka.deliver("own", deflated(""));
    const TestBroker broker(consumer_settings());
    ASSERT_TRUE(m_kafka.wait_until_idle());
    EXPECT_THAT(m_received, ElementsAre("first", std::string("\0\1", 2), ""));
    EXPECT_THAT(m_log.lines(Level::ERROR), IsEmpty());
}

TEST_F(MessagingMessageBrokerTest, a_message_that_cannot_be_inflated_is_dropped_and_the_next_one_read) {
    assign_first();
    m_kafka.deliver("own", "{\"type\":\"plain text\"}");
    m_kafka.deliver({RdKafka::ERR_NO_ERROR, "own", 0, 2, {}, ""}); // no payload at all
    m_kafka.deliver("own", "");
    m_kafka.deliver("own", deflated(std::string(1000, 'x')));
    m_kafka.deliver("own", deflated("good"));
    const TestBroker broker(consumer_settings());
    ASSERT_TRUE(m_kafka.wait_until_idle());
    EXPECT_THAT(m_received, ElementsAre("good"));
    EXPECT_THAT(m_log.texts(Level::ERROR), ElementsAre("MESSAGE_BROKER: message decompressing error (-3)",
                                                       "MESSAGE_BROKER: message decompressing error (-3)",
                                                       "MESSAGE_BROKER: message decompressing error (-3)",
                                                       "MESSAGE_BROKER: message decompressing error (-5)"));
}

TEST_F(MessagingMessageBrokerTest, without_a_receiver_messages_are_not_even_inflated) {
    assign_first();
    m_kafka.deliver("own", "no zlib stream");
    m_kafka.deliver("own", deflated("good"));
    MessageBrokerSettings settings = consumer_settings();
    settings.on_message_received = nullptr;
    const TestBroker broker(settings);
    ASSERT_TRUE(m_kafka.wait_until_idle());
    EXPECT_THAT(m_log.lines(Level::ERROR), IsEmpty());
}

TEST_F(MessagingMessageBrokerTest, polls_without_a_message_are_told_to_who_asks_and_else_to_nobody) {
    MessageBrokerSettings settings = producer_settings();
    int timeouts = 0;
    settings.on_receive_timeout = [&timeouts] { ++timeouts; };
    TestBroker asking(settings);
    MessageDouble timed_out({RdKafka::ERR__TIMED_OUT, "", 0, 0, {}, "Local: Timed out"});
    asking.handle_message(&timed_out);
    asking.handle_message(&timed_out);
    EXPECT_EQ(timeouts, 2);
    TestBroker silent(producer_settings());
    silent.handle_message(&timed_out);
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(MessagingMessageBrokerTest, the_end_of_a_partition_shows_at_the_level_trace_only) {
    for (const Level level : {Level::INFO, Level::DEBUG, Level::TRACE}) {
        const CapturedLog log(level);
        TestBroker broker(receiver_settings());
        MessageDouble end({RdKafka::ERR__PARTITION_EOF, "own", 6, 0, {}, ""});
        broker.handle_message(&end);
        EXPECT_THAT(m_received, IsEmpty());
        EXPECT_EQ(log.count(Level::TRACE, "MESSAGE_BROKER: EOF reached for partition [6]"),
                  level == Level::TRACE ? 1u : 0u);
        EXPECT_EQ(log.lines().size(), level == Level::TRACE ? 1u : 0u);
    }
}

TEST_F(MessagingMessageBrokerTest, any_other_error_of_a_message_is_a_line) {
    TestBroker broker(receiver_settings());
    MessageDouble failed({RdKafka::ERR__TRANSPORT, "own", 0, 0, {}, "connection refused"});
    broker.handle_message(&failed);
    EXPECT_THAT(m_log.texts(Level::ERROR),
                ElementsAre("MESSAGE_BROKER: message receiving error (-195): \"connection refused\""));
    EXPECT_THAT(m_received, IsEmpty());
}

} // namespace
