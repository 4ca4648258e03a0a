// The ends of the process that nothing stands before, on purpose: each happens in a child process.
#include <csignal>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "corvalin_lib/messaging_event_dispatcher.h"
#include "corvalin_lib/messaging_message_broker.h"
#include "tests/unit/messaging/kafka_double.h"
#include "tests/unit/messaging/test_broker.h"

namespace {

using namespace corvalin;
using namespace corvalin::test;
using messaging::EventDispatcher;
using messaging::EventHandlers;
using messaging::MessageBrokerSettings;
using testing::KilledBySignal;

class MessagingEndsDeathTest : public ::testing::Test {
protected:
    static MessageBrokerSettings consumer_settings() {
        MessageBrokerSettings settings;
        settings.brokers = "one:1";
        settings.group = "circle";
        settings.topics = {"own"};
        return settings;
    }
    /// A whole life of a broker with this consumer.
    static void run_broker(const MessageBrokerSettings& settings) {
        log_to_standard_error();
        const TestBroker broker(settings);
    }
    static void on_body(const std::string& body) {
        log_to_standard_error();
        EventHandlers handlers;
        handlers["alarm"] = [](const std::string&, void*) {};
        EventDispatcher dispatcher(MessageBrokerSettings{}, std::move(handlers));
        const std::string frame = std::string(1, '\0') + body;
        dispatcher.on_message(reinterpret_cast<const unsigned char*>(frame.data()), frame.size());
    }
    static void deliver_body(KafkaDouble& kafka, const std::string& frame) {
        kafka.rebalance(RdKafka::ERR__ASSIGN_PARTITIONS, {"own/0"});
        kafka.deliver("own", deflated(frame));
    }

    KafkaDouble m_kafka;
};

TEST_F(MessagingEndsDeathTest, a_consumer_that_could_not_be_made_ends_the_process_at_the_first_poll) {
    struct Case {
        const char* description;
        const char* refused; // property; null: see below
        int granted_configurations;
        const char* line; // as a regular expression
    };
    const std::vector<Case> cases = {
        {"no configuration", nullptr, 0, "MESSAGE_BROKER: failed to create consumer configuration"},
        {"no topic configuration", nullptr, 1, "MESSAGE_BROKER: failed to create topic configuration"},
        {"no consumer", nullptr, 2, "MESSAGE_BROKER: failed to create consumer: for a reason"},
        {"1", "rebalance_cb", 2, "MESSAGE_BROKER: failed to setup \"rebalance_cb\": for a reason"},
        {"2", "enable.partition.eof", 2,
         "MESSAGE_BROKER: failed to setup \"enable.partition.eof\": for a reason"},
        {"3", "allow.auto.create.topics", 2,
         "MESSAGE_BROKER: failed to setup \"allow.auto.create.topics\": for a reason"},
        {"4", "group.id", 2, "MESSAGE_BROKER: failed to setup \"group.id\": for a reason"},
        {"5", "metadata.broker.list", 2,
         "MESSAGE_BROKER: failed to setup \"metadata.broker.list\": for a reason"},
        {"6", "event_cb", 2, "MESSAGE_BROKER: failed to setup \"event_cb\": for a reason"},
        {"7", "auto.offset.reset", 2, "MESSAGE_BROKER: failed to setup \"auto.offset.reset\": for a reason"},
        {"8", "default_topic_conf", 2,
         "MESSAGE_BROKER: failed to setup \"default_topic_conf\": for a reason"},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        m_kafka.granted_configurations = row.granted_configurations;
        m_kafka.refused_properties.clear();
        if (row.refused != nullptr) {
            m_kafka.refused_properties[row.refused] = "for a reason";
        }
        m_kafka.consumer_refusal = "for a reason"; // not reached where something else is missing
        EXPECT_EXIT(run_broker(consumer_settings()), died_of_a_fault,
                    std::string("started\n[^\n]*ERROR   \\| ") + row.line + "\n");
    }
}

TEST_F(MessagingEndsDeathTest, a_send_without_a_producer_ends_the_process) {
    m_kafka.producer_refusal = "for a reason";
    EXPECT_EXIT(
        {
            log_to_standard_error();
            TestBroker broker(MessageBrokerSettings{});
            broker.send_text("request", "text");
        },
        died_of_a_fault, "MESSAGE_BROKER: failed to create producer: for a reason");
}

TEST_F(MessagingEndsDeathTest, a_root_that_is_no_object_and_a_type_that_is_no_string_abort) {
    for (const char* const body :
         {"[]", "5", "\"x\"", "null", "true", "[{\"type\":\"alarm\"}]", "{\"type\":5}", "{\"type\":null}",
          "{\"type\":{}}", "{\"type\":[\"alarm\"]}", "{\"type\":true}"}) {
        SCOPED_TRACE(body);
        EXPECT_EXIT(on_body(body), KilledBySignal(SIGABRT), "RapidJSON assertion failed: ");
    }
}

// The thread that builds the dispatcher may tell of its subscription in between.
TEST_F(MessagingEndsDeathTest, a_bad_event_aborts_from_the_consumers_thread_as_well) {
    deliver_body(m_kafka, std::string("\0[]", 3));
    EXPECT_EXIT(
        {
            log_to_standard_error();
            const EventDispatcher dispatcher(consumer_settings(), {});
            m_kafka.wait_until_idle();
        },
        KilledBySignal(SIGABRT),
        "JSON event received: \\[\\]\n([^\n]*subscribed for [^\n]*\n)?RapidJSON assertion failed: ");
}

TEST_F(MessagingEndsDeathTest, a_frame_of_nothing_throws_before_its_bytes_are_looked_at) {
    deliver_body(m_kafka, "");
    EXPECT_EXIT(
        {
            log_to_standard_error();
            const EventDispatcher dispatcher(consumer_settings(), {});
            m_kafka.wait_until_idle();
        },
        KilledBySignal(SIGABRT), "length_error");
}

TEST_F(MessagingEndsDeathTest, an_exception_of_a_handler_ends_the_process) {
    deliver_body(m_kafka, std::string("\0{\"type\":\"alarm\"}", 17));
    EXPECT_EXIT(
        {
            EventHandlers handlers;
            handlers["alarm"] = [](const std::string&, void*) { throw std::runtime_error("out of luck"); };
            const EventDispatcher dispatcher(consumer_settings(), std::move(handlers));
            m_kafka.wait_until_idle();
        },
        KilledBySignal(SIGABRT), "out of luck");
}

TEST_F(MessagingEndsDeathTest, an_empty_handler_ends_the_process) {
    deliver_body(m_kafka, std::string("\0{\"type\":\"alarm\"}", 17));
    EXPECT_EXIT(
        {
            const EventDispatcher dispatcher(consumer_settings(), {{"alarm", nullptr}});
            m_kafka.wait_until_idle();
        },
        KilledBySignal(SIGABRT), "bad_function_call");
}

// Without a double.
TEST(MessagingEndsLibraryDeathTest, a_group_without_a_name_ends_the_process) {
    EXPECT_EXIT(
        {
            log_to_standard_error();
            MessageBrokerSettings settings;
            settings.brokers = "127.0.0.1:1";
            settings.topics = {"own"};
            const TestBroker broker(settings);
        },
        died_of_a_fault,
        "started\n[^\n]*ERROR   \\| MESSAGE_BROKER: failed to create consumer: .*group\\.id");
}

} // namespace
