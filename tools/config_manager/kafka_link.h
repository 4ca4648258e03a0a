// kafka_link: the manager's side of Kafka: topics that are made as routers need them, and messages that are confirmed.
//
// Threads    one, but `publish`, which several may call.
// Errors     std::runtime_error with the library's reason.
#pragma once

#include <librdkafka/rdkafkacpp.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace corvalin::tools {

/// Creates the topics that are missing, with one partition each. Returns a warning for each topic that has more: events
/// on different partitions overtake each other.
std::vector<std::string> ensure_topics(const std::string& brokers, const std::vector<std::string>& topics);

class KafkaPublisher : private RdKafka::DeliveryReportCb {
public:
    explicit KafkaPublisher(const std::string& brokers);
    KafkaPublisher(const KafkaPublisher&) = delete;
    KafkaPublisher& operator=(const KafkaPublisher&) = delete;
    ~KafkaPublisher() override;

    /// Returns when the broker has the message. Throws if it does not within `timeout_ms`.
    void publish(const std::string& topic, const std::string& payload, int timeout_ms);

private:
    void dr_cb(RdKafka::Message& message) override;

    std::mutex m_lock; // one message at a time, so that a report belongs to the message that is waited for
    std::unique_ptr<RdKafka::Producer> m_producer;
    bool m_is_reported = false; // guarded by m_lock, as the next
    std::string m_error;
};

} // namespace corvalin::tools
