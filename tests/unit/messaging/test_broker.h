// test_broker: the broker with its parts in the open, and bytes as the wire has them.
#pragma once

#include "corvalin_lib/messaging_message_broker.h"

#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "tests/support/zlib_text.h"

namespace corvalin::test {

/// Holds a broker and is none: the consumer thread that a broker's constructor starts calls it at once, and would meet a
/// derived class that is still being built.
class TestBroker {
    // Never built. A name of a protected member that is taken from here fits any broker.
    struct Parts : messaging::MessageBroker {
        using MessageBroker::handle_message;
        using MessageBroker::is_topic_exist_at_broker;
        using MessageBroker::m_consumer;
        using MessageBroker::m_consumer_ready;
        using MessageBroker::m_consumer_running;
        using MessageBroker::m_consumer_thread;
        using MessageBroker::m_first_assignment;
        using MessageBroker::m_producer;
        using MessageBroker::m_settings;
        using MessageBroker::stop_consumer;
        using MessageBroker::stop_producer;
    };

    messaging::MessageBroker m_broker; // built before the references below, which look into it

public:
    explicit TestBroker(messaging::MessageBrokerSettings settings) : m_broker(std::move(settings)) {}

    messaging::MessageBroker& broker() { return m_broker; }

    void send_text(const std::string& topic, const std::string& text) {
        m_broker.send(topic, reinterpret_cast<const unsigned char*>(text.data()), text.size());
    }
    void event_cb(RdKafka::Event& event) { m_broker.event_cb(event); }
    void dr_cb(RdKafka::Message& message) { m_broker.dr_cb(message); }
    void handle_message(RdKafka::Message* message) { (m_broker.*&Parts::handle_message)(message); }
    bool is_topic_exist_at_broker(const std::string& topic) {
        return (m_broker.*&Parts::is_topic_exist_at_broker)(topic);
    }
    void stop_consumer() { (m_broker.*&Parts::stop_consumer)(); }
    void stop_producer() { (m_broker.*&Parts::stop_producer)(); }

    messaging::MessageBrokerSettings& m_settings = m_broker.*&Parts::m_settings;
    Owner<RdKafka::Producer>& m_producer = m_broker.*&Parts::m_producer;
    Owner<RdKafka::KafkaConsumer>& m_consumer = m_broker.*&Parts::m_consumer;
    std::thread& m_consumer_thread = m_broker.*&Parts::m_consumer_thread;
    std::atomic<bool>& m_consumer_running = m_broker.*&Parts::m_consumer_running;
    std::promise<void>& m_consumer_ready = m_broker.*&Parts::m_consumer_ready;
    std::atomic<bool>& m_first_assignment = m_broker.*&Parts::m_first_assignment;
};

/// Lines go to the standard error stream from here on, where a death test looks.
void log_to_standard_error();

/// For EXPECT_EXIT: the process died of a null pointer. The sanitizers end it themselves, and tell of it.
bool died_of_a_fault(int status);

} // namespace corvalin::test
