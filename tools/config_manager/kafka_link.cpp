#include "tools/config_manager/kafka_link.h"

#include <librdkafka/rdkafka.h>

#include <array>
#include <chrono>
#include <stdexcept>

namespace corvalin::tools {

namespace {

constexpr int ADMIN_TIMEOUT_MS = 10'000;
constexpr int SEND_TIMEOUT_MS = 10'000;
constexpr int POLL_MS = 50;
constexpr int MISSING = -1;
constexpr int BROKERS_DEFAULT =
    -1; // for the replication factor: the operator of the brokers knows how many there are

// The C++ interface of the library has no administration.
struct Deleter {
    void operator()(rd_kafka_NewTopic_t* topic) const { rd_kafka_NewTopic_destroy(topic); }
    void operator()(rd_kafka_AdminOptions_t* options) const { rd_kafka_AdminOptions_destroy(options); }
    void operator()(rd_kafka_queue_t* queue) const { rd_kafka_queue_destroy(queue); }
    void operator()(rd_kafka_event_t* event) const { rd_kafka_event_destroy(event); }
};
template <class T>
using Owned = std::unique_ptr<T, Deleter>;

} // namespace

KafkaLink::KafkaLink(const std::string& brokers) {
    const std::unique_ptr<RdKafka::Conf> conf(RdKafka::Conf::create(RdKafka::Conf::CONF_GLOBAL));
    std::string error;
    if (conf->set("metadata.broker.list", brokers, error) != RdKafka::Conf::CONF_OK ||
        conf->set("dr_cb", static_cast<RdKafka::DeliveryReportCb*>(this), error) != RdKafka::Conf::CONF_OK) {
        throw std::runtime_error(error);
    }
    m_producer.reset(RdKafka::Producer::create(conf.get(), error));
    if (!m_producer) {
        throw std::runtime_error(error);
    }
}

KafkaLink::~KafkaLink() = default;

TopicState KafkaLink::provide_topic(const std::string& name) {
    const int partitions = partition_count(name);
    if (partitions == MISSING) {
        return {create_topic(name), 1};
    }
    return {false, partitions};
}

// Asks for all topics: a broker that is asked for one that it does not know may make it, with its own number of
// partitions.
int KafkaLink::partition_count(const std::string& name) {
    RdKafka::Metadata* received = nullptr;
    const RdKafka::ErrorCode code = m_producer->metadata(true, nullptr, &received, ADMIN_TIMEOUT_MS);
    const std::unique_ptr<RdKafka::Metadata> metadata(received);
    if (code != RdKafka::ERR_NO_ERROR) {
        throw std::runtime_error("no answer from the broker: " + RdKafka::err2str(code));
    }
    for (const RdKafka::TopicMetadata* const topic : *metadata->topics()) {
        if (topic->topic() == name && topic->err() == RdKafka::ERR_NO_ERROR) {
            return static_cast<int>(topic->partitions()->size());
        }
    }
    return MISSING;
}

// False if somebody else has made it meanwhile.
bool KafkaLink::create_topic(const std::string& name) {
    const auto fail = [&name](const std::string& reason) {
        throw std::runtime_error("cannot create topic [" + name + "]: " + reason);
    };
    std::array<char, 512> error{};
    const Owned<rd_kafka_NewTopic_t> topic(
        rd_kafka_NewTopic_new(name.c_str(), 1, BROKERS_DEFAULT, error.data(), error.size()));
    if (!topic) {
        fail(error.data());
    }
    rd_kafka_t* const handle = m_producer->c_ptr();
    const Owned<rd_kafka_AdminOptions_t> options(
        rd_kafka_AdminOptions_new(handle, RD_KAFKA_ADMIN_OP_CREATETOPICS));
    // Until all brokers know it.
    rd_kafka_AdminOptions_set_operation_timeout(options.get(), ADMIN_TIMEOUT_MS, error.data(), error.size());
    const Owned<rd_kafka_queue_t> queue(rd_kafka_queue_new(handle));
    rd_kafka_NewTopic_t* topics[] = {topic.get()};
    rd_kafka_CreateTopics(handle, topics, 1, options.get(), queue.get());
    const Owned<rd_kafka_event_t> event(rd_kafka_queue_poll(queue.get(), 2 * ADMIN_TIMEOUT_MS));
    if (!event) {
        fail("the broker did not do it in time");
    }
    if (rd_kafka_event_error(event.get()) != RD_KAFKA_RESP_ERR_NO_ERROR) {
        fail(rd_kafka_event_error_string(event.get()));
    }
    std::size_t count = 0;
    const rd_kafka_topic_result_t** const results =
        rd_kafka_CreateTopics_result_topics(rd_kafka_event_CreateTopics_result(event.get()), &count);
    const rd_kafka_resp_err_t code =
        count == 1 ? rd_kafka_topic_result_error(results[0]) : RD_KAFKA_RESP_ERR_UNKNOWN;
    if (code == RD_KAFKA_RESP_ERR_TOPIC_ALREADY_EXISTS) {
        return false;
    }
    if (code != RD_KAFKA_RESP_ERR_NO_ERROR) {
        fail(rd_kafka_err2str(code));
    }
    return true;
}

void KafkaLink::send(const std::string& topic, const std::string& payload) {
    const std::lock_guard<std::mutex> lock(m_lock);
    ++m_awaited;
    m_is_reported = false;
    m_error.clear();
    // The library makes a copy, and reads the payload only, whatever the type says. The number comes back with the
    // report.
    const RdKafka::ErrorCode code = m_producer->produce(
        topic, RdKafka::Topic::PARTITION_UA, RdKafka::Producer::RK_MSG_COPY,
        const_cast<char*>(payload.data()), payload.size(), nullptr, 0, 0, reinterpret_cast<void*>(m_awaited));
    if (code != RdKafka::ERR_NO_ERROR) {
        throw std::runtime_error("cannot send to [" + topic + "]: " + RdKafka::err2str(code));
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(SEND_TIMEOUT_MS);
    while (!m_is_reported && std::chrono::steady_clock::now() < deadline) {
        m_producer->poll(POLL_MS);
    }
    if (!m_is_reported) {
        // What was given up must not go out later, after newer events.
        m_producer->purge(RdKafka::Producer::PURGE_QUEUE | RdKafka::Producer::PURGE_INFLIGHT);
        m_producer->poll(POLL_MS);
        throw std::runtime_error("no answer from the broker for [" + topic + "]");
    }
    if (!m_error.empty()) {
        throw std::runtime_error("cannot send to [" + topic + "]: " + m_error);
    }
}

// Runs within `poll`, on the thread that holds the lock. A report may be one of a message that was given up.
void KafkaLink::dr_cb(RdKafka::Message& message) {
    if (reinterpret_cast<uintptr_t>(message.msg_opaque()) != m_awaited) {
        return;
    }
    m_is_reported = true;
    if (message.err() != RdKafka::ERR_NO_ERROR) {
        m_error = message.errstr();
    }
}

} // namespace corvalin::tools
