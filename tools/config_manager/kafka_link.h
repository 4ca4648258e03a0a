// kafka_link: the manager's side of Kafka: topics that are made as routers need them, and messages that are confirmed.
//
// Threads    any.
// Errors     std::runtime_error with the library's reason.
#pragma once

#include "tools/config_manager/event_sink.h"

#include <librdkafka/rdkafkacpp.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace corvalin::tools {

class KafkaLink : public EventSink, private RdKafka::DeliveryReportCb {
public:
    /// Connects in the background.
    explicit KafkaLink(const std::string& brokers);
    KafkaLink(const KafkaLink&) = delete;
    KafkaLink& operator=(const KafkaLink&) = delete;
    ~KafkaLink() override;

    TopicState provide_topic(const std::string& name) override;
    void send(const std::string& topic, const std::string& payload) override;

private:
    void dr_cb(RdKafka::Message& message) override;
    int partition_count(const std::string& name);
    bool create_topic(const std::string& name);

    std::unique_ptr<RdKafka::Producer> m_producer;
    // One message at a time, so that a report belongs to the message that is waited for.
    std::mutex m_lock;
    // Guarded by m_lock.
    uintptr_t m_awaited = 0; // number of the last message
    bool m_is_reported = false;
    std::string m_error;
};

} // namespace corvalin::tools
