// kafka_peer: the other side of the conversation. It takes what the router sends to one topic and sends what a
// configuration manager would send, or whatever a test wants the router to meet.
//
// Threads    one thread at a time.
// Ownership  its own Kafka clients, without a group, so that it reads at once on any broker.
// Errors     std::runtime_error for what Kafka refuses.
#pragma once

#include "tests/support/packet_builder.h"
#include "tests/support/waiting.h"

#include <librdkafka/rdkafkacpp.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace corvalin::test {

/// A message on a topic.
struct KafkaMessage {
    Bytes payload;
    int32_t partition = -1;
    int64_t offset = -1;
    bool has_key = false;
    bool has_headers = false;
};

class KafkaPeer {
public:
    /// Reads partition 0 of `request_topic`, which exists, from its end as it is now.
    KafkaPeer(const std::string& broker, const std::string& request_topic);
    ~KafkaPeer();
    KafkaPeer(const KafkaPeer&) = delete;
    KafkaPeer& operator=(const KafkaPeer&) = delete;

    /// The next message, in the order of the topic. Nothing if none came within the limit.
    std::optional<KafkaMessage> receive(std::chrono::milliseconds limit = WAIT_LIMIT);
    /// The text of the next message, which is a JSON event; empty, and the test has failed, if none came.
    std::string receive_json(std::chrono::milliseconds limit = WAIT_LIMIT);

    /// These return when the broker has the message.
    void send_json(const std::string& topic, const std::string& json);
    void send(const std::string& topic, const Bytes& payload);
    void send_without_payload(const std::string& topic);

private:
    class Delivery;

    void produce(const std::string& topic, const void* payload, std::size_t size);

    std::unique_ptr<Delivery> m_delivery; // outlives the producer
    std::unique_ptr<RdKafka::Producer> m_producer;
    std::unique_ptr<RdKafka::KafkaConsumer> m_consumer;
};

} // namespace corvalin::test
