// messaging_message_broker: the process's only contact with Kafka. Sends opaque byte messages to named topics, and
// delivers those of a fixed list of topics to a callback.
//
// Threads    constructor and destructor: the owner's thread. send: any thread. Everything about the consumer,
//            and the callbacks of the settings: the consumer thread. dr_cb: whichever thread is inside send
//            or the destructor. event_cb: the consumer thread, for log events also threads of the library.
//            All threads that the constructor brings about may be woken from a wait a millisecond late; that
//            of its caller is as before when it returns.
// Ownership  the settings are moved in and kept for life. The consumer lives and dies on its own thread.
// Errors     nothing is told to the caller: a failure is a log line, and the service goes on without what
//            failed. Two are not survived: a `send` without a producer, and a consumer that could not be
//            created, fault on the missing object.
//
// Reading begins at the end of each partition: what was published before the first assignment is never seen. Offsets are
// not stored here; committing is left to the library's defaults.
#pragma once

#include "corvalin_lib/owner.h"

#include <librdkafka/rdkafkacpp.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace corvalin::messaging {

struct MessageBrokerSettings {
    std::string brokers; // "host:port,host:port"
    std::string group;
    std::list<std::string> topics; // to subscribe; empty: no consumer at all
    /// Each message, decompressed. The bytes are valid during the call.
    std::function<void(const unsigned char* data, unsigned long size)> on_message_received;
    /// Each poll that ended without a message.
    std::function<void()> on_receive_timeout;
    uint64_t receive_timeout_ms = 0; // of a poll; 0 stands for 1000
};

class MessageBroker : public RdKafka::RebalanceCb, public RdKafka::EventCb, public RdKafka::DeliveryReportCb {
public:
    /// Waits up to 10 seconds for the first assignment. A broker that cannot be reached is no failure: the consumer
    /// goes on trying.
    explicit MessageBroker(MessageBrokerSettings settings);
    MessageBroker(const MessageBroker&) = delete;
    MessageBroker& operator=(const MessageBroker&) = delete;

    void rebalance_cb(RdKafka::KafkaConsumer* consumer, RdKafka::ErrorCode err,
                      std::vector<RdKafka::TopicPartition*>& partitions) override;
    /// Takes one poll of the consumer and up to 10 seconds for the producer's queue, and 5 more for the library.
    ~MessageBroker() override;
    void event_cb(RdKafka::Event& event) override;
    void dr_cb(RdKafka::Message& message) override;

    /// Compresses and sends one message, and waits up to 5 seconds until it is delivered: a message that is not may
    /// still go out later. With a full queue it tries three times, about 3 seconds in all.
    void send(std::string topic, const unsigned char* data, unsigned long size);

    /// Deflates into a zlib stream (RFC 1950). Returns an array that the caller owns, and its used length in `size`;
    /// null, with `size` unchanged, on failure.
    static unsigned char* compress(const unsigned char* data, unsigned long& size);
    /// Inflates a zlib stream, to ten times its size at most. Otherwise as above.
    static unsigned char* decompress(const unsigned char* data, unsigned long& size);

protected:
    void start_producer();
    void stop_producer();
    void start_consumer();
    void stop_consumer();

    void create_consumer();
    void consumer_loop();
    void handle_message(RdKafka::Message* message);
    void sync_offsets(std::vector<RdKafka::TopicPartition*>& partitions, int timeout_ms);
    bool is_topic_exist_at_broker(const std::string& topic);

    MessageBrokerSettings m_settings;
    // Set and reset by the owner's thread, while the consumer thread may already, or still, send.
    Owner<RdKafka::Producer> m_producer;
    // Consumer thread only.
    Owner<RdKafka::KafkaConsumer> m_consumer;
    std::thread m_consumer_thread;
    std::atomic<bool> m_consumer_running{false};
    std::promise<void> m_consumer_ready; // fulfilled at the first assignment
    std::atomic<bool> m_first_assignment{true};

private:
    bool accept_for_delivery(const std::string& topic, unsigned char* payload, unsigned long size);
    bool resubscribe_if_created(const std::string& topic);
    void resubscribe();
    void log_subscription() const;
    std::vector<std::string> topic_names() const;
};

} // namespace corvalin::messaging
