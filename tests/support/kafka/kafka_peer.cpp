#include "tests/support/kafka/kafka_peer.h"

#include "tests/support/kafka/event_frame.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <utility>
#include <vector>

namespace corvalin::test {

namespace {

constexpr int LIMIT_MS = 30000;
constexpr int POLL_MS = 100;

using Properties = std::vector<std::pair<std::string, std::string>>;

void set(RdKafka::Conf& conf, const Properties& properties) {
    for (const auto& [name, value] : properties) {
        std::string reason;
        if (conf.set(name, value, reason) != RdKafka::Conf::CONF_OK) {
            throw std::runtime_error(reason);
        }
    }
}

std::unique_ptr<RdKafka::Conf> create_conf(const std::string& broker) {
    std::unique_ptr<RdKafka::Conf> conf(RdKafka::Conf::create(RdKafka::Conf::CONF_GLOBAL));
    set(*conf, {{"bootstrap.servers", broker},
                {"client.id", "kafka_peer"}, // what a broker is told about routers must not hold for us
                {"log_level", "0"},
                // A broker that comes back is found at once, not after the 10 s to which the pause grows.
                {"reconnect.backoff.max.ms", "200"}});
    return conf;
}

template <class Client>
std::unique_ptr<Client> created(Client* client, const std::string& reason) {
    if (client == nullptr) {
        throw std::runtime_error(reason);
    }
    return std::unique_ptr<Client>(client);
}

void check(RdKafka::ErrorCode code, const std::string& what) {
    if (code != RdKafka::ERR_NO_ERROR) {
        throw std::runtime_error(what + ": " + RdKafka::err2str(code));
    }
}

} // namespace

class KafkaPeer::Delivery : public RdKafka::DeliveryReportCb {
public:
    void dr_cb(RdKafka::Message& message) override { m_result = message.err(); }
    void expect() { m_result = RdKafka::ERR__TIMED_OUT; }
    RdKafka::ErrorCode result() const { return m_result; }

private:
    RdKafka::ErrorCode m_result = RdKafka::ERR_NO_ERROR;
};

KafkaPeer::KafkaPeer(const std::string& broker, const std::string& request_topic)
    : m_delivery(std::make_unique<Delivery>()) {
    std::string reason;
    const auto producer_conf = create_conf(broker);
    set(*producer_conf, {{"linger.ms", "0"}});
    producer_conf->set("dr_cb", m_delivery.get(), reason);
    m_producer = created(RdKafka::Producer::create(producer_conf.get(), reason), reason);

    const auto consumer_conf = create_conf(broker);
    set(*consumer_conf,
        {{"group.id", "kafka_peer"}, // demanded, and never joined
         {"enable.auto.commit", "false"},
         {"fetch.wait.max.ms", "10"}}); // the embedded broker would hold messages back for 500
    m_consumer = created(RdKafka::KafkaConsumer::create(consumer_conf.get(), reason), reason);

    // By number, as "the end" would be looked up later, when the first request may be there already.
    int64_t low = 0;
    int64_t high = 0;
    check(m_consumer->query_watermark_offsets(request_topic, 0, &low, &high, LIMIT_MS), request_topic);
    const std::unique_ptr<RdKafka::TopicPartition> partition(
        RdKafka::TopicPartition::create(request_topic, 0, high));
    check(m_consumer->assign({partition.get()}), request_topic);
}

KafkaPeer::~KafkaPeer() {
    m_consumer->close();
}

std::optional<KafkaMessage> KafkaPeer::receive(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    do {
        const std::unique_ptr<RdKafka::Message> message(m_consumer->consume(POLL_MS));
        // Errors tell of a broker that is away; it may come back within the limit.
        if (message->err() == RdKafka::ERR_NO_ERROR) {
            const auto* const bytes = static_cast<const uint8_t*>(message->payload());
            RdKafka::Headers* const headers = message->headers();
            return KafkaMessage{Bytes(bytes, bytes + message->len()), message->partition(), message->offset(),
                                message->key_pointer() != nullptr,
                                headers != nullptr && headers->size() != 0};
        }
    } while (std::chrono::steady_clock::now() < deadline);
    return std::nullopt;
}

std::string KafkaPeer::receive_json(std::chrono::milliseconds limit) {
    const auto message = receive(limit);
    if (!message) {
        ADD_FAILURE() << "no message on the request topic";
        return "";
    }
    return json_of(message->payload);
}

void KafkaPeer::send_json(const std::string& topic, const std::string& json) {
    send(topic, json_payload(json));
}

void KafkaPeer::send(const std::string& topic, const Bytes& payload) {
    produce(topic, payload.data(), payload.size());
}

void KafkaPeer::send_without_payload(const std::string& topic) {
    produce(topic, nullptr, 0);
}

void KafkaPeer::produce(const std::string& topic, const void* payload, std::size_t size) {
    m_delivery->expect();
    check(m_producer->produce(topic, 0, RdKafka::Producer::RK_MSG_COPY, const_cast<void*>(payload), size,
                              nullptr, 0, 0, nullptr),
          topic);
    m_producer->flush(LIMIT_MS);
    check(m_delivery->result(), topic);
}

} // namespace corvalin::test
