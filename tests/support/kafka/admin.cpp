#include "tests/support/kafka/admin.h"

#include "tests/support/waiting.h"

#include <librdkafka/rdkafka.h>

#include <array>
#include <memory>
#include <stdexcept>

namespace corvalin::test {

namespace {

constexpr int LIMIT_MS = 30000;

struct Deleter {
    void operator()(rd_kafka_t* client) const { rd_kafka_destroy(client); }
    void operator()(rd_kafka_topic_t* topic) const { rd_kafka_topic_destroy(topic); }
    void operator()(rd_kafka_queue_t* queue) const { rd_kafka_queue_destroy(queue); }
    void operator()(rd_kafka_event_t* event) const { rd_kafka_event_destroy(event); }
    void operator()(rd_kafka_NewTopic_t* topic) const { rd_kafka_NewTopic_destroy(topic); }
    void operator()(const rd_kafka_metadata_t* metadata) const { rd_kafka_metadata_destroy(metadata); }
};
template <class Object>
using Handle = std::unique_ptr<Object, Deleter>;

Handle<rd_kafka_t> create_client(const std::string& broker) {
    std::array<char, 512> reason{};
    rd_kafka_conf_t* const conf = rd_kafka_conf_new();
    rd_kafka_conf_set(conf, "bootstrap.servers", broker.c_str(), nullptr, 0);
    rd_kafka_conf_set(conf, "log_level", "0", nullptr, 0);
    Handle<rd_kafka_t> client(rd_kafka_new(RD_KAFKA_PRODUCER, conf, reason.data(), reason.size()));
    if (client == nullptr) {
        rd_kafka_conf_destroy(conf);
        throw std::runtime_error(reason.data());
    }
    return client;
}

void request_topic(rd_kafka_t* client, const std::string& name, int partitions) {
    std::array<char, 512> reason{};
    const Handle<rd_kafka_NewTopic_t> topic(
        rd_kafka_NewTopic_new(name.c_str(), partitions, 1, reason.data(), reason.size()));
    if (topic == nullptr) {
        throw std::runtime_error(reason.data());
    }
    const Handle<rd_kafka_queue_t> queue(rd_kafka_queue_new(client));
    rd_kafka_NewTopic_t* topics[] = {topic.get()};
    rd_kafka_CreateTopics(client, topics, 1, nullptr, queue.get());
    const Handle<rd_kafka_event_t> event(rd_kafka_queue_poll(queue.get(), LIMIT_MS));
    if (event == nullptr) {
        throw std::runtime_error("no answer of the broker to a new topic");
    }
    if (rd_kafka_event_error(event.get()) != RD_KAFKA_RESP_ERR_NO_ERROR) {
        throw std::runtime_error(rd_kafka_event_error_string(event.get()));
    }
    std::size_t count = 0;
    const rd_kafka_topic_result_t* const* const results =
        rd_kafka_CreateTopics_result_topics(rd_kafka_event_CreateTopics_result(event.get()), &count);
    if (count != 1 || rd_kafka_topic_result_error(results[0]) != RD_KAFKA_RESP_ERR_NO_ERROR) {
        throw std::runtime_error("topic " + name + ": " +
                                 (count == 1 ? rd_kafka_topic_result_error_string(results[0]) : "no result"));
    }
}

bool is_led(rd_kafka_t* client, const std::string& name, int partitions) {
    const Handle<rd_kafka_topic_t> topic(rd_kafka_topic_new(client, name.c_str(), nullptr));
    const rd_kafka_metadata_t* found = nullptr;
    if (rd_kafka_metadata(client, 0, topic.get(), &found, LIMIT_MS) != RD_KAFKA_RESP_ERR_NO_ERROR) {
        return false;
    }
    const Handle<const rd_kafka_metadata_t> metadata(found);
    const rd_kafka_metadata_topic_t& entry = metadata->topics[0];
    bool all = entry.err == RD_KAFKA_RESP_ERR_NO_ERROR && entry.partition_cnt == partitions;
    for (int i = 0; all && i < entry.partition_cnt; ++i) {
        all = entry.partitions[i].leader >= 0;
    }
    return all;
}

} // namespace

void create_topic_as_admin(const std::string& broker, const std::string& name, int partitions) {
    const Handle<rd_kafka_t> client = create_client(broker);
    request_topic(client.get(), name, partitions);
    // The controller has it; the broker hears of it a moment later.
    if (!wait_until([&] { return is_led(client.get(), name, partitions); })) {
        throw std::runtime_error("topic " + name + " was created and has no leader");
    }
}

} // namespace corvalin::test
