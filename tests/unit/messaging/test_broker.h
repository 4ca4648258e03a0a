// test_broker: the broker with its parts in the open, and bytes as the wire has them.
#pragma once

#include "corvalin_lib/messaging_message_broker.h"

#include <string>

#include <gtest/gtest.h>

namespace corvalin::test {

class TestBroker : public messaging::MessageBroker {
public:
    using MessageBroker::MessageBroker;

    using MessageBroker::handle_message;
    using MessageBroker::is_topic_exist_at_broker;
    using MessageBroker::stop_consumer;
    using MessageBroker::stop_producer;

    using MessageBroker::m_consumer;
    using MessageBroker::m_consumer_ready;
    using MessageBroker::m_consumer_running;
    using MessageBroker::m_consumer_thread;
    using MessageBroker::m_first_assignment;
    using MessageBroker::m_producer;
    using MessageBroker::m_settings;

    void send_text(const std::string& topic, const std::string& text) {
        send(topic, reinterpret_cast<const unsigned char*>(text.data()), text.size());
    }
};

/// A zlib stream of `text`, written by zlib itself. Level -1 is its default, 0 stores.
std::string deflated(const std::string& text, int level = -1);
/// The text of a zlib stream of any length. Throws std::runtime_error if it is none.
std::string inflated(const std::string& stream);

/// Lines go to the standard error stream from here on, where a death test looks.
void log_to_standard_error();

/// For EXPECT_EXIT: the process died of a null pointer. The sanitizers end it themselves, and tell of it.
bool died_of_a_fault(int status);

} // namespace corvalin::test
