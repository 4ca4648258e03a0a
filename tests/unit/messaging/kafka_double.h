// kafka_double: takes the place of the Kafka client library's objects, writes down what they are asked, and answers as a
// test says. The linker leads the library's factories here; without a double they give the library's own objects.
//
// Threads    the consumer and the producer are used by threads of the code under test; everything here locks.
//            What is made to run inside `consume` runs on the thread that consumes.
// Ownership  outlives every object that it gave out. At most one lives at a time.
// Errors     an operation that the code under test has no business with throws std::logic_error.
#pragma once

#include <librdkafka/rdkafkacpp.h>

#include <time.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace corvalin::test {

/// A message as the library hands it out.
struct KafkaMessage {
    RdKafka::ErrorCode error = RdKafka::ERR_NO_ERROR;
    std::string topic;
    int32_t partition = 0;
    int64_t offset = 0;
    std::optional<std::string> payload; // none: a null pointer and length 0
    std::string error_text;
};

class MessageDouble : public RdKafka::Message {
public:
    explicit MessageDouble(KafkaMessage message) : m_message(std::move(message)) {}

    RdKafka::ErrorCode err() const override { return m_message.error; }
    std::string errstr() const override { return m_message.error_text; }
    std::string topic_name() const override { return m_message.topic; }
    int32_t partition() const override { return m_message.partition; }
    int64_t offset() const override { return m_message.offset; }
    void* payload() const override;
    std::size_t len() const override { return m_message.payload ? m_message.payload->size() : 0; }

    RdKafka::Topic* topic() const override;
    const std::string* key() const override;
    const void* key_pointer() const override;
    std::size_t key_len() const override;
    RdKafka::MessageTimestamp timestamp() const override;
    void* msg_opaque() const override;
    int64_t latency() const override;
    rd_kafka_message_s* c_ptr() override;
    Status status() const override;
    RdKafka::Headers* headers() override;
    RdKafka::Headers* headers(RdKafka::ErrorCode* error) override;
    int32_t broker_id() const override;

private:
    KafkaMessage m_message;
};

/// An answer to a query of the broker's topics.
struct MetadataAnswer {
    RdKafka::ErrorCode error = RdKafka::ERR_NO_ERROR;
    std::vector<std::string> topics;
    bool is_null = false;
    bool has_topics = true; // false: an object without a list
};

struct WatermarkAnswer {
    RdKafka::ErrorCode error = RdKafka::ERR_NO_ERROR;
    int64_t low = 0;
    int64_t high = 0;
};

/// What a producer was given.
struct ProducedMessage {
    std::string topic;
    int32_t partition;
    int flags;
    std::string payload;
    const void* payload_pointer;
    bool has_key;
    std::size_t key_length;
    int64_t timestamp;
    bool has_opaque;
};

class KafkaDouble {
public:
    KafkaDouble();
    ~KafkaDouble();
    KafkaDouble(const KafkaDouble&) = delete;
    KafkaDouble& operator=(const KafkaDouble&) = delete;
    /// The one that lives, or null.
    static KafkaDouble* instance();

    // ---- Answers, set before the code under test begins. A queue that has run out answers without an error.
    int granted_configurations = 1000;                     // null behind them
    std::map<std::string, std::string> refused_properties; // by name, with the reason
    std::optional<std::string> producer_refusal;           // the reason
    std::function<void()> on_create_producer;              // inside each creation
    std::optional<std::string> consumer_refusal;
    std::deque<RdKafka::ErrorCode> produce_answers;
    std::deque<RdKafka::ErrorCode> flush_answers;
    std::function<void()> on_flush; // inside each flush
    int queue_length = 0;
    std::deque<RdKafka::ErrorCode> subscribe_answers;
    std::deque<MetadataAnswer> metadata_answers;
    std::map<std::string, WatermarkAnswer> watermarks; // by "topic/partition"
    std::function<void()> on_query;                    // inside each query of watermarks
    std::function<void()> on_assign;                   // inside each assignment

    // ---- What the consumer meets, in this order; time-outs behind it.
    void deliver(KafkaMessage message);
    void deliver(const std::string& topic, const std::string& payload);
    /// Runs `action` inside `consume`, which then times out.
    void in_consume(std::function<void(RdKafka::KafkaConsumer&, RdKafka::RebalanceCb&)> action);
    /// A rebalance with these partitions, "topic/number" each, at the library's invalid offset.
    void rebalance(RdKafka::ErrorCode error, const std::vector<std::string>& partitions);
    /// What `close` is to run.
    void in_close(std::function<void(RdKafka::KafkaConsumer&, RdKafka::RebalanceCb&)> action);

    // ---- What happened
    /// One text for each call, in order. A `consume` that only timed out is not among them.
    std::vector<std::string> calls() const;
    /// Those that begin with one of these words.
    std::vector<std::string> calls(const std::set<std::string>& words) const;
    std::vector<ProducedMessage> produced() const;
    /// Waits until the script has been met and the consumer polls again.
    bool wait_until_idle() const;
    std::optional<int> consume_timeout_ms() const;
    RdKafka::EventCb* event_callback() const;
    RdKafka::DeliveryReportCb* delivery_callback() const;
    RdKafka::RebalanceCb* rebalance_callback() const;

private:
    friend class ConfDouble;
    friend class ProducerDouble;
    friend class ConsumerDouble;
    friend struct KafkaFactories;
    friend int sleep_or_answer(const timespec* wanted, timespec* left);

    using Action = std::function<void(RdKafka::KafkaConsumer&, RdKafka::RebalanceCb&)>;
    struct Step {
        std::optional<KafkaMessage> message;
        Action action;
    };

    void note(const std::string& call);
    template <class Value>
    Value next(std::deque<Value>& answers);

    mutable std::mutex m_lock;
    mutable std::condition_variable m_changed;
    std::vector<std::string> m_calls; // guarded by m_lock, as all below
    std::vector<ProducedMessage> m_produced;
    std::deque<Step> m_script;
    Action m_close_action;
    bool m_is_idle = false;
    std::optional<int> m_consume_timeout_ms;
    RdKafka::EventCb* m_event_callback = nullptr;
    RdKafka::DeliveryReportCb* m_delivery_callback = nullptr;
    RdKafka::RebalanceCb* m_rebalance_callback = nullptr;
};

/// How often the array at `payload` has been given back by `delete[]` since it was produced last. AddressSanitizer
/// keeps its own books, and there the answer is the one that it would let pass.
int array_releases(const void* payload);

/// Makes zlib's `compress` fail with this code while it lives.
class FailingCompression {
public:
    explicit FailingCompression(int code);
    ~FailingCompression();
    FailingCompression(const FailingCompression&) = delete;
    FailingCompression& operator=(const FailingCompression&) = delete;
};

} // namespace corvalin::test
