// broker_fixture: a log, a double of Kafka, and settings for a broker between the two.
#pragma once

#include "corvalin_lib/messaging_message_broker.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/captured_log.h"
#include "tests/unit/messaging/kafka_double.h"
#include "tests/unit/messaging/test_broker.h"

namespace corvalin::test {

using Texts = std::vector<std::string>;

/// The last line of a start with the fixture's settings.
constexpr const char* SUBSCRIBED = "MESSAGE_BROKER: subscribed for [wide], [own] topic(s)";

class BrokerFixture : public ::testing::Test {
protected:
    static messaging::MessageBrokerSettings producer_settings() {
        messaging::MessageBrokerSettings settings;
        settings.brokers = "one:1,two:2";
        return settings;
    }
    messaging::MessageBrokerSettings consumer_settings() {
        messaging::MessageBrokerSettings settings = producer_settings();
        settings.group = "circle";
        settings.topics = {"wide", "own"};
        settings.on_message_received = [this](const unsigned char* data, unsigned long size) {
            m_received.emplace_back(reinterpret_cast<const char*>(data), size);
        };
        return settings;
    }
    /// To hand messages over by hand.
    messaging::MessageBrokerSettings receiver_settings() {
        messaging::MessageBrokerSettings settings = consumer_settings();
        settings.topics.clear();
        return settings;
    }
    void assign_first() { m_kafka.rebalance(RdKafka::ERR__ASSIGN_PARTITIONS, {"wide/0", "own/0"}); }

    CapturedLog m_log{log::Level::INFO};
    KafkaDouble m_kafka;
    Texts m_received; // consumer thread; look at it when the consumer is idle
};

} // namespace corvalin::test
