#include "tools/config_manager/kafka_link.h"

#include <librdkafka/rdkafka.h>

#include <array>
#include <chrono>
#include <stdexcept>
#include <utility>

namespace corvalin::tools {

namespace {

constexpr int ADMIN_TIMEOUT_MS = 10'000;
constexpr int POLL_MS = 50;

using ConfPtr = std::unique_ptr<RdKafka::Conf>;

ConfPtr make_conf(const std::string& brokers) {
    ConfPtr conf(RdKafka::Conf::create(RdKafka::Conf::CONF_GLOBAL));
    std::string error;
    if (conf->set("metadata.broker.list", brokers, error) != RdKafka::Conf::CONF_OK) {
        throw std::runtime_error(error);
    }
    return conf;
}

std::unique_ptr<RdKafka::Producer> make_producer(const RdKafka::Conf& conf) {
    std::string error;
    std::unique_ptr<RdKafka::Producer> producer(RdKafka::Producer::create(&conf, error));
    if (!producer) {
        throw std::runtime_error(error);
    }
    return producer;
}

// The C++ interface has no administration.
class NewTopics {
public:
    explicit NewTopics(const std::vector<std::string>& names) {
        std::array<char, 512> error{};
        for (const std::string& name : names) {
            rd_kafka_NewTopic_t* const topic =
                rd_kafka_NewTopic_new(name.c_str(), 1, 1, error.data(), error.size());
            if (topic == nullptr) {
                throw std::runtime_error("topic [" + name + "]: " + error.data());
            }
            m_topics.push_back(topic);
        }
    }
    NewTopics(const NewTopics&) = delete;
    NewTopics& operator=(const NewTopics&) = delete;
    ~NewTopics() { rd_kafka_NewTopic_destroy_array(m_topics.data(), m_topics.size()); }

    rd_kafka_NewTopic_t** data() { return m_topics.data(); }
    std::size_t size() const { return m_topics.size(); }

private:
    std::vector<rd_kafka_NewTopic_t*> m_topics;
};

// The partitions of each topic; -1 for a topic that the broker does not know.
std::vector<int> partition_counts(RdKafka::Producer& producer, const std::vector<std::string>& names) {
    RdKafka::Metadata* received = nullptr;
    const RdKafka::ErrorCode code = producer.metadata(true, nullptr, &received, ADMIN_TIMEOUT_MS);
    const std::unique_ptr<RdKafka::Metadata> metadata(received);
    if (code != RdKafka::ERR_NO_ERROR) {
        throw std::runtime_error("no answer from the broker: " + RdKafka::err2str(code));
    }
    std::vector<int> counts;
    for (const std::string& name : names) {
        int count = -1;
        for (const RdKafka::TopicMetadata* const topic : *metadata->topics()) {
            if (topic->topic() == name && topic->err() == RdKafka::ERR_NO_ERROR) {
                count = static_cast<int>(topic->partitions()->size());
            }
        }
        counts.push_back(count);
    }
    return counts;
}

void create_topics(RdKafka::Producer& producer, const std::vector<std::string>& names) {
    NewTopics topics(names);
    rd_kafka_t* const handle = producer.c_ptr();
    const std::unique_ptr<rd_kafka_queue_t, void (*)(rd_kafka_queue_t*)> queue(rd_kafka_queue_new(handle),
                                                                               &rd_kafka_queue_destroy);
    rd_kafka_CreateTopics(handle, topics.data(), topics.size(), nullptr, queue.get());
    const std::unique_ptr<rd_kafka_event_t, void (*)(rd_kafka_event_t*)> event(
        rd_kafka_queue_poll(queue.get(), ADMIN_TIMEOUT_MS), &rd_kafka_event_destroy);
    if (!event) {
        throw std::runtime_error("the broker did not create the topics in time");
    }
    if (rd_kafka_event_error(event.get()) != RD_KAFKA_RESP_ERR_NO_ERROR) {
        throw std::runtime_error(std::string("cannot create topics: ") +
                                 rd_kafka_event_error_string(event.get()));
    }
    std::size_t count = 0;
    const rd_kafka_topic_result_t** const results =
        rd_kafka_CreateTopics_result_topics(rd_kafka_event_CreateTopics_result(event.get()), &count);
    for (std::size_t index = 0; index < count; ++index) {
        const rd_kafka_resp_err_t error = rd_kafka_topic_result_error(results[index]);
        if (error != RD_KAFKA_RESP_ERR_NO_ERROR && error != RD_KAFKA_RESP_ERR_TOPIC_ALREADY_EXISTS) {
            throw std::runtime_error(std::string("cannot create topic [") +
                                     rd_kafka_topic_result_name(results[index]) +
                                     "]: " + rd_kafka_err2str(error));
        }
    }
}

} // namespace

std::vector<std::string> ensure_topics(const std::string& brokers, const std::vector<std::string>& topics) {
    const auto producer = make_producer(*make_conf(brokers));
    const std::vector<int> counts = partition_counts(*producer, topics);
    std::vector<std::string> missing;
    std::vector<std::string> warnings;
    for (std::size_t index = 0; index < topics.size(); ++index) {
        if (counts[index] < 0) {
            missing.push_back(topics[index]);
        } else if (counts[index] > 1) {
            warnings.push_back("topic [" + topics[index] + "] has " + std::to_string(counts[index]) +
                               " partitions: events on different ones may overtake each other");
        }
    }
    if (!missing.empty()) {
        create_topics(*producer, missing);
    }
    return warnings;
}

KafkaPublisher::KafkaPublisher(const std::string& brokers) {
    const ConfPtr conf = make_conf(brokers);
    std::string error;
    if (conf->set("dr_cb", static_cast<RdKafka::DeliveryReportCb*>(this), error) != RdKafka::Conf::CONF_OK) {
        throw std::runtime_error(error);
    }
    m_producer = make_producer(*conf);
}

KafkaPublisher::~KafkaPublisher() = default;

void KafkaPublisher::publish(const std::string& topic, const std::string& payload, int timeout_ms) {
    const std::lock_guard<std::mutex> lock(m_lock);
    m_is_reported = false;
    m_error.clear();
    // The library makes a copy, and reads the payload only, whatever the type says.
    const RdKafka::ErrorCode code =
        m_producer->produce(topic, RdKafka::Topic::PARTITION_UA, RdKafka::Producer::RK_MSG_COPY,
                            const_cast<char*>(payload.data()), payload.size(), nullptr, 0, 0, nullptr);
    if (code != RdKafka::ERR_NO_ERROR) {
        throw std::runtime_error("cannot send to [" + topic + "]: " + RdKafka::err2str(code));
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!m_is_reported && std::chrono::steady_clock::now() < deadline) {
        m_producer->poll(POLL_MS);
    }
    if (!m_is_reported) {
        m_producer->purge(RdKafka::Producer::PURGE_QUEUE | RdKafka::Producer::PURGE_INFLIGHT);
        m_producer->poll(POLL_MS);
        throw std::runtime_error("no answer from the broker for [" + topic + "]");
    }
    if (!m_error.empty()) {
        throw std::runtime_error("cannot send to [" + topic + "]: " + m_error);
    }
}

// Runs within `poll`, on the thread that holds the lock.
void KafkaPublisher::dr_cb(RdKafka::Message& message) {
    m_is_reported = true;
    if (message.err() != RdKafka::ERR_NO_ERROR) {
        m_error = message.errstr();
    }
}

} // namespace corvalin::tools
