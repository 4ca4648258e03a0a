#include "tests/unit/messaging/kafka_double.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

#include "tests/support/waiting.h"

// NOLINTBEGIN(readability-identifier-naming): the linker makes these names of the wrapped calls
extern "C" {
int __real_nanosleep(const timespec* wanted, timespec* left);
int __real_compress(unsigned char* target, unsigned long* size, const unsigned char* source,
                    unsigned long source_size);
RdKafka::Conf* __real__ZN7RdKafka4Conf6createENS0_8ConfTypeE(RdKafka::Conf::ConfType type);
RdKafka::Producer*
__real__ZN7RdKafka8Producer6createEPKNS_4ConfERNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(
    const RdKafka::Conf* conf, std::string& reason);
RdKafka::KafkaConsumer*
__real__ZN7RdKafka13KafkaConsumer6createEPKNS_4ConfERNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(
    const RdKafka::Conf* conf, std::string& reason);
int __real__ZN7RdKafka14wait_destroyedEi(int timeout_ms);
}
// NOLINTEND(readability-identifier-naming)

namespace corvalin::test {

namespace {

std::atomic<KafkaDouble*> installed{nullptr}; // borrowed
std::atomic<const void*> watched_array{nullptr};
std::atomic<int> watched_releases{0};
std::atomic<int> compression_failure{0};

// A poll without a message. Short: tests wait for what happens, not for time.
constexpr std::chrono::milliseconds IDLE_POLL{2};

[[noreturn]] void unexpected(const char* operation) {
    throw std::logic_error(std::string("unexpected call of ") + operation);
}

std::string join(const std::vector<std::string>& texts) {
    std::string joined;
    for (const std::string& text : texts) {
        joined += (joined.empty() ? "" : ",") + text;
    }
    return joined;
}

std::string name_of(const RdKafka::TopicPartition& partition) {
    return partition.topic() + "/" + std::to_string(partition.partition());
}

} // namespace

// ---- Message

void* MessageDouble::payload() const {
    return m_message.payload ? const_cast<char*>(m_message.payload->data()) : nullptr;
}
RdKafka::Topic* MessageDouble::topic() const {
    unexpected("Message::topic");
}
const std::string* MessageDouble::key() const {
    unexpected("Message::key");
}
const void* MessageDouble::key_pointer() const {
    unexpected("Message::key_pointer");
}
std::size_t MessageDouble::key_len() const {
    unexpected("Message::key_len");
}
RdKafka::MessageTimestamp MessageDouble::timestamp() const {
    unexpected("Message::timestamp");
}
void* MessageDouble::msg_opaque() const {
    unexpected("Message::msg_opaque");
}
int64_t MessageDouble::latency() const {
    unexpected("Message::latency");
}
rd_kafka_message_s* MessageDouble::c_ptr() {
    unexpected("Message::c_ptr");
}
RdKafka::Message::Status MessageDouble::status() const {
    unexpected("Message::status");
}
RdKafka::Headers* MessageDouble::headers() {
    unexpected("Message::headers");
}
RdKafka::Headers* MessageDouble::headers(RdKafka::ErrorCode* /*error*/) {
    unexpected("Message::headers");
}
int32_t MessageDouble::broker_id() const {
    unexpected("Message::broker_id");
}

// ---- Metadata

namespace {

class TopicMetadataDouble : public RdKafka::TopicMetadata {
public:
    explicit TopicMetadataDouble(std::string name) : m_name(std::move(name)) {}
    std::string topic() const override { return m_name; }
    const PartitionMetadataVector* partitions() const override { unexpected("TopicMetadata::partitions"); }
    RdKafka::ErrorCode err() const override { unexpected("TopicMetadata::err"); }

private:
    std::string m_name;
};

class MetadataDouble : public RdKafka::Metadata {
public:
    explicit MetadataDouble(const MetadataAnswer& answer) : m_has_topics(answer.has_topics) {
        for (const std::string& name : answer.topics) {
            m_topics.push_back(std::make_unique<TopicMetadataDouble>(name));
            m_list.push_back(m_topics.back().get());
        }
    }
    const TopicMetadataVector* topics() const override { return m_has_topics ? &m_list : nullptr; }
    const BrokerMetadataVector* brokers() const override { unexpected("Metadata::brokers"); }
    int32_t orig_broker_id() const override { unexpected("Metadata::orig_broker_id"); }
    std::string orig_broker_name() const override { unexpected("Metadata::orig_broker_name"); }

private:
    bool m_has_topics;
    std::vector<std::unique_ptr<TopicMetadataDouble>> m_topics;
    TopicMetadataVector m_list;
};

// What producer and consumer have in common and the code under test leaves alone.
template <class Base>
class HandleDouble : public Base {
public:
    using ErrorCode = RdKafka::ErrorCode;
    using Partitions = std::vector<RdKafka::TopicPartition*>;

    std::string name() const override { unexpected("Handle::name"); }
    std::string memberid() const override { unexpected("Handle::memberid"); }
    int poll(int /*timeout_ms*/) override { unexpected("Handle::poll"); }
    int outq_len() override { unexpected("Handle::outq_len"); }
    ErrorCode metadata(bool /*all*/, const RdKafka::Topic* /*topic*/, RdKafka::Metadata** /*metadata*/,
                       int /*timeout_ms*/) override {
        unexpected("Handle::metadata");
    }
    ErrorCode pause(Partitions& /*partitions*/) override { unexpected("Handle::pause"); }
    ErrorCode resume(Partitions& /*partitions*/) override { unexpected("Handle::resume"); }
    ErrorCode query_watermark_offsets(const std::string& /*topic*/, int32_t /*partition*/, int64_t* /*low*/,
                                      int64_t* /*high*/, int /*timeout_ms*/) override {
        unexpected("Handle::query_watermark_offsets");
    }
    ErrorCode get_watermark_offsets(const std::string& /*topic*/, int32_t /*partition*/, int64_t* /*low*/,
                                    int64_t* /*high*/) override {
        unexpected("Handle::get_watermark_offsets");
    }
    ErrorCode offsetsForTimes(Partitions& /*offsets*/, int /*timeout_ms*/) override {
        unexpected("Handle::offsetsForTimes");
    }
    RdKafka::Queue* get_partition_queue(const RdKafka::TopicPartition* /*partition*/) override {
        unexpected("Handle::get_partition_queue");
    }
    ErrorCode set_log_queue(RdKafka::Queue* /*queue*/) override { unexpected("Handle::set_log_queue"); }
    void yield() override { unexpected("Handle::yield"); }
    std::string clusterid(int /*timeout_ms*/) override { unexpected("Handle::clusterid"); }
    rd_kafka_s* c_ptr() override { unexpected("Handle::c_ptr"); }
    int32_t controllerid(int /*timeout_ms*/) override { unexpected("Handle::controllerid"); }
    ErrorCode fatal_error(std::string& /*text*/) const override { unexpected("Handle::fatal_error"); }
    ErrorCode oauthbearer_set_token(const std::string& /*token*/, int64_t /*life_ms*/,
                                    const std::string& /*principal*/,
                                    const std::list<std::string>& /*extensions*/,
                                    std::string& /*text*/) override {
        unexpected("Handle::oauthbearer_set_token");
    }
    ErrorCode oauthbearer_set_token_failure(const std::string& /*text*/) override {
        unexpected("Handle::oauthbearer_set_token_failure");
    }
    RdKafka::Error* sasl_background_callbacks_enable() override {
        unexpected("Handle::sasl_background_callbacks_enable");
    }
    RdKafka::Queue* get_sasl_queue() override { unexpected("Handle::get_sasl_queue"); }
    RdKafka::Queue* get_background_queue() override { unexpected("Handle::get_background_queue"); }
    void* mem_malloc(std::size_t /*size*/) override { unexpected("Handle::mem_malloc"); }
    void mem_free(void* /*memory*/) override { unexpected("Handle::mem_free"); }
    RdKafka::Error* sasl_set_credentials(const std::string& /*user*/, const std::string& /*word*/) override {
        unexpected("Handle::sasl_set_credentials");
    }
};

} // namespace

// ---- Configuration

class ConfDouble : public RdKafka::Conf {
public:
    ConfDouble(KafkaDouble& kafka, ConfType type)
        : m_kafka(kafka), m_kind(type == CONF_GLOBAL ? "global" : "topic") {
        m_kafka.note("create " + m_kind + " conf");
    }
    ~ConfDouble() override { m_kafka.note("delete " + m_kind + " conf"); }

    const std::string& kind() const { return m_kind; }

    ConfResult set(const std::string& name, const std::string& value, std::string& reason) override {
        return answer(name, name + "=" + value, reason);
    }
    ConfResult set(const std::string& name, RdKafka::DeliveryReportCb* callback,
                   std::string& reason) override {
        keep(m_kafka.m_delivery_callback, callback);
        return answer(name, name, reason);
    }
    ConfResult set(const std::string& name, RdKafka::EventCb* callback, std::string& reason) override {
        keep(m_kafka.m_event_callback, callback);
        return answer(name, name, reason);
    }
    ConfResult set(const std::string& name, RdKafka::RebalanceCb* callback, std::string& reason) override {
        keep(m_kafka.m_rebalance_callback, callback);
        return answer(name, name, reason);
    }
    ConfResult set(const std::string& name, const RdKafka::Conf* topic_conf, std::string& reason) override {
        return answer(name, name + "=" + static_cast<const ConfDouble*>(topic_conf)->kind(), reason);
    }

    ConfResult set(const std::string& /*name*/, RdKafka::OAuthBearerTokenRefreshCb* /*callback*/,
                   std::string& /*reason*/) override {
        unexpected("Conf::set");
    }
    ConfResult set(const std::string& /*name*/, RdKafka::PartitionerCb* /*callback*/,
                   std::string& /*reason*/) override {
        unexpected("Conf::set");
    }
    ConfResult set(const std::string& /*name*/, RdKafka::PartitionerKeyPointerCb* /*callback*/,
                   std::string& /*reason*/) override {
        unexpected("Conf::set");
    }
    ConfResult set(const std::string& /*name*/, RdKafka::SocketCb* /*callback*/,
                   std::string& /*reason*/) override {
        unexpected("Conf::set");
    }
    ConfResult set(const std::string& /*name*/, RdKafka::OpenCb* /*callback*/,
                   std::string& /*reason*/) override {
        unexpected("Conf::set");
    }
    ConfResult set(const std::string& /*name*/, RdKafka::OffsetCommitCb* /*callback*/,
                   std::string& /*reason*/) override {
        unexpected("Conf::set");
    }
    ConfResult set(const std::string& /*name*/, RdKafka::SslCertificateVerifyCb* /*callback*/,
                   std::string& /*reason*/) override {
        unexpected("Conf::set");
    }
    ConfResult set(const std::string& /*name*/, RdKafka::ConsumeCb* /*callback*/,
                   std::string& /*reason*/) override {
        unexpected("Conf::set");
    }
    ConfResult set_ssl_cert(RdKafka::CertificateType /*type*/, RdKafka::CertificateEncoding /*encoding*/,
                            const void* /*buffer*/, std::size_t /*size*/, std::string& /*reason*/) override {
        unexpected("Conf::set_ssl_cert");
    }
    ConfResult get(const std::string& /*name*/, std::string& /*value*/) const override {
        unexpected("Conf::get");
    }
    ConfResult get(RdKafka::DeliveryReportCb*& /*callback*/) const override { unexpected("Conf::get"); }
    ConfResult get(RdKafka::OAuthBearerTokenRefreshCb*& /*callback*/) const override {
        unexpected("Conf::get");
    }
    ConfResult get(RdKafka::EventCb*& /*callback*/) const override { unexpected("Conf::get"); }
    ConfResult get(RdKafka::PartitionerCb*& /*callback*/) const override { unexpected("Conf::get"); }
    ConfResult get(RdKafka::PartitionerKeyPointerCb*& /*callback*/) const override {
        unexpected("Conf::get");
    }
    ConfResult get(RdKafka::SocketCb*& /*callback*/) const override { unexpected("Conf::get"); }
    ConfResult get(RdKafka::OpenCb*& /*callback*/) const override { unexpected("Conf::get"); }
    ConfResult get(RdKafka::RebalanceCb*& /*callback*/) const override { unexpected("Conf::get"); }
    ConfResult get(RdKafka::OffsetCommitCb*& /*callback*/) const override { unexpected("Conf::get"); }
    ConfResult get(RdKafka::SslCertificateVerifyCb*& /*callback*/) const override { unexpected("Conf::get"); }
    std::list<std::string>* dump() override { unexpected("Conf::dump"); }
    rd_kafka_conf_s* c_ptr_global() override { unexpected("Conf::c_ptr_global"); }
    rd_kafka_topic_conf_s* c_ptr_topic() override { unexpected("Conf::c_ptr_topic"); }
    ConfResult set_engine_callback_data(void* /*value*/, std::string& /*reason*/) override {
        unexpected("Conf::set_engine_callback_data");
    }
    ConfResult enable_sasl_queue(bool /*enable*/, std::string& /*reason*/) override {
        unexpected("Conf::enable_sasl_queue");
    }

private:
    template <class Callback>
    void keep(Callback*& field, Callback* callback) {
        const std::lock_guard<std::mutex> guard(m_kafka.m_lock);
        field = callback;
    }

    ConfResult answer(const std::string& name, const std::string& text, std::string& reason) {
        m_kafka.note("set " + m_kind + " " + text);
        const std::lock_guard<std::mutex> guard(m_kafka.m_lock);
        const auto refusal = m_kafka.refused_properties.find(name);
        if (refusal == m_kafka.refused_properties.end()) {
            return CONF_OK;
        }
        reason = refusal->second;
        return CONF_INVALID;
    }

    KafkaDouble& m_kafka;
    const std::string m_kind;
};

// ---- Producer

class ProducerDouble : public HandleDouble<RdKafka::Producer> {
public:
    explicit ProducerDouble(KafkaDouble& kafka) : m_kafka(kafka) {}
    ~ProducerDouble() override { m_kafka.note("delete producer"); }

    ErrorCode produce(const std::string topic, int32_t partition, int flags, void* payload, std::size_t size,
                      const void* key, std::size_t key_length, int64_t timestamp, void* opaque) override {
        m_kafka.note("produce " + topic);
        const std::lock_guard<std::mutex> guard(m_kafka.m_lock);
        watched_releases = 0;
        watched_array = payload;
        m_kafka.m_produced.push_back({topic, partition, flags,
                                      std::string(static_cast<const char*>(payload), size), payload,
                                      key != nullptr, key_length, timestamp, opaque != nullptr});
        const ErrorCode error = m_kafka.next(m_kafka.produce_answers);
        if (error == RdKafka::ERR_NO_ERROR && (flags & RK_MSG_FREE) != 0) {
            std::free(payload); // as the library does when the message has gone out
        }
        return error;
    }
    int poll(int timeout_ms) override {
        m_kafka.note("poll " + std::to_string(timeout_ms));
        return 0;
    }
    ErrorCode flush(int timeout_ms) override {
        m_kafka.note("flush " + std::to_string(timeout_ms));
        if (m_kafka.on_flush) {
            m_kafka.on_flush();
        }
        const std::lock_guard<std::mutex> guard(m_kafka.m_lock);
        return m_kafka.next(m_kafka.flush_answers);
    }
    int outq_len() override {
        m_kafka.note("outq_len");
        return m_kafka.queue_length;
    }

    ErrorCode produce(RdKafka::Topic* /*topic*/, int32_t /*partition*/, int /*flags*/, void* /*payload*/,
                      std::size_t /*size*/, const std::string* /*key*/, void* /*opaque*/) override {
        unexpected("Producer::produce");
    }
    ErrorCode produce(RdKafka::Topic* /*topic*/, int32_t /*partition*/, int /*flags*/, void* /*payload*/,
                      std::size_t /*size*/, const void* /*key*/, std::size_t /*key_length*/,
                      void* /*opaque*/) override {
        unexpected("Producer::produce");
    }
    ErrorCode produce(const std::string /*topic*/, int32_t /*partition*/, int /*flags*/, void* /*payload*/,
                      std::size_t /*size*/, const void* /*key*/, std::size_t /*key_length*/,
                      int64_t /*timestamp*/, RdKafka::Headers* /*headers*/, void* /*opaque*/) override {
        unexpected("Producer::produce");
    }
    ErrorCode produce(RdKafka::Topic* /*topic*/, int32_t /*partition*/, const std::vector<char>* /*payload*/,
                      const std::vector<char>* /*key*/, void* /*opaque*/) override {
        unexpected("Producer::produce");
    }
    ErrorCode purge(int /*flags*/) override { unexpected("Producer::purge"); }
    RdKafka::Error* init_transactions(int /*timeout_ms*/) override {
        unexpected("Producer::init_transactions");
    }
    RdKafka::Error* begin_transaction() override { unexpected("Producer::begin_transaction"); }
    RdKafka::Error* send_offsets_to_transaction(const Partitions& /*offsets*/,
                                                const RdKafka::ConsumerGroupMetadata* /*group*/,
                                                int /*timeout_ms*/) override {
        unexpected("Producer::send_offsets_to_transaction");
    }
    RdKafka::Error* commit_transaction(int /*timeout_ms*/) override {
        unexpected("Producer::commit_transaction");
    }
    RdKafka::Error* abort_transaction(int /*timeout_ms*/) override {
        unexpected("Producer::abort_transaction");
    }

private:
    KafkaDouble& m_kafka;
};

// ---- Consumer

class ConsumerDouble : public HandleDouble<RdKafka::KafkaConsumer> {
public:
    explicit ConsumerDouble(KafkaDouble& kafka) : m_kafka(kafka) {}
    ~ConsumerDouble() override { m_kafka.note("delete consumer"); }

    ErrorCode subscribe(const std::vector<std::string>& topics) override {
        m_kafka.note("subscribe " + join(topics));
        const std::lock_guard<std::mutex> guard(m_kafka.m_lock);
        return m_kafka.next(m_kafka.subscribe_answers);
    }
    ErrorCode unsubscribe() override {
        m_kafka.note("unsubscribe");
        return RdKafka::ERR__STATE; // which nobody looks at
    }
    ErrorCode assign(const Partitions& partitions) override {
        std::vector<std::string> texts;
        for (const RdKafka::TopicPartition* const partition : partitions) {
            texts.push_back(name_of(*partition) + "@" + std::to_string(partition->offset()));
        }
        m_kafka.note("assign " + join(texts));
        if (m_kafka.on_assign) {
            m_kafka.on_assign();
        }
        return RdKafka::ERR__STATE;
    }
    ErrorCode unassign() override {
        m_kafka.note("unassign");
        return RdKafka::ERR__STATE;
    }
    RdKafka::Message* consume(int timeout_ms) override {
        std::unique_lock<std::mutex> guard(m_kafka.m_lock);
        m_kafka.m_consume_timeout_ms = timeout_ms;
        if (m_kafka.m_script.empty()) {
            m_kafka.m_is_idle = true;
            m_kafka.m_changed.notify_all();
            m_kafka.m_changed.wait_for(guard, IDLE_POLL);
            return timed_out();
        }
        const KafkaDouble::Step step = std::move(m_kafka.m_script.front());
        m_kafka.m_script.pop_front();
        RdKafka::RebalanceCb* const callback = m_kafka.m_rebalance_callback;
        guard.unlock();
        m_kafka.note("consume");
        if (step.message) {
            return new MessageDouble(*step.message);
        }
        step.action(*this, *callback);
        return timed_out();
    }
    ErrorCode close() override {
        m_kafka.note("close");
        if (m_kafka.m_close_action) {
            m_kafka.m_close_action(*this, *m_kafka.rebalance_callback());
        }
        return RdKafka::ERR__STATE;
    }
    ErrorCode query_watermark_offsets(const std::string& topic, int32_t partition, int64_t* low,
                                      int64_t* high, int timeout_ms) override {
        const std::string name = topic + "/" + std::to_string(partition);
        m_kafka.note("query_watermark_offsets " + name + " " + std::to_string(timeout_ms));
        if (m_kafka.on_query) {
            m_kafka.on_query();
        }
        const std::lock_guard<std::mutex> guard(m_kafka.m_lock);
        const WatermarkAnswer answer = m_kafka.watermarks[name];
        *low = answer.low;
        *high = answer.high;
        return answer.error;
    }
    ErrorCode metadata(bool all, const RdKafka::Topic* topic, RdKafka::Metadata** metadata,
                       int timeout_ms) override {
        m_kafka.note(std::string("metadata ") + (all ? "all" : "local") +
                     (topic != nullptr ? " topic " : " ") + std::to_string(timeout_ms));
        const std::lock_guard<std::mutex> guard(m_kafka.m_lock);
        const MetadataAnswer answer = m_kafka.next(m_kafka.metadata_answers);
        if (answer.error == RdKafka::ERR_NO_ERROR && !answer.is_null) {
            *metadata = new MetadataDouble(answer);
        }
        return answer.error;
    }

    ErrorCode assignment(Partitions& /*partitions*/) override { unexpected("KafkaConsumer::assignment"); }
    ErrorCode subscription(std::vector<std::string>& /*topics*/) override {
        unexpected("KafkaConsumer::subscription");
    }
    ErrorCode commitSync() override { unexpected("KafkaConsumer::commitSync"); }
    ErrorCode commitAsync() override { unexpected("KafkaConsumer::commitAsync"); }
    ErrorCode commitSync(RdKafka::Message* /*message*/) override { unexpected("KafkaConsumer::commitSync"); }
    ErrorCode commitAsync(RdKafka::Message* /*message*/) override {
        unexpected("KafkaConsumer::commitAsync");
    }
    ErrorCode commitSync(Partitions& /*offsets*/) override { unexpected("KafkaConsumer::commitSync"); }
    ErrorCode commitAsync(const Partitions& /*offsets*/) override {
        unexpected("KafkaConsumer::commitAsync");
    }
    ErrorCode commitSync(RdKafka::OffsetCommitCb* /*callback*/) override {
        unexpected("KafkaConsumer::commitSync");
    }
    ErrorCode commitSync(Partitions& /*offsets*/, RdKafka::OffsetCommitCb* /*callback*/) override {
        unexpected("KafkaConsumer::commitSync");
    }
    ErrorCode committed(Partitions& /*partitions*/, int /*timeout_ms*/) override {
        unexpected("KafkaConsumer::committed");
    }
    ErrorCode position(Partitions& /*partitions*/) override { unexpected("KafkaConsumer::position"); }
    ErrorCode seek(const RdKafka::TopicPartition& /*partition*/, int /*timeout_ms*/) override {
        unexpected("KafkaConsumer::seek");
    }
    ErrorCode offsets_store(Partitions& /*offsets*/) override { unexpected("KafkaConsumer::offsets_store"); }
    RdKafka::ConsumerGroupMetadata* groupMetadata() override { unexpected("KafkaConsumer::groupMetadata"); }
    bool assignment_lost() override { unexpected("KafkaConsumer::assignment_lost"); }
    std::string rebalance_protocol() override { unexpected("KafkaConsumer::rebalance_protocol"); }
    RdKafka::Error* incremental_assign(const Partitions& /*partitions*/) override {
        unexpected("KafkaConsumer::incremental_assign");
    }
    RdKafka::Error* incremental_unassign(const Partitions& /*partitions*/) override {
        unexpected("KafkaConsumer::incremental_unassign");
    }
    RdKafka::Error* close(RdKafka::Queue* /*queue*/) override { unexpected("KafkaConsumer::close"); }
    bool closed() override { unexpected("KafkaConsumer::closed"); }

private:
    static RdKafka::Message* timed_out() {
        KafkaMessage message;
        message.error = RdKafka::ERR__TIMED_OUT;
        return new MessageDouble(message);
    }

    KafkaDouble& m_kafka;
};

// ---- The double

KafkaDouble::KafkaDouble() {
    KafkaDouble* expected = nullptr;
    if (!installed.compare_exchange_strong(expected, this)) {
        throw std::logic_error("there is a double of Kafka already");
    }
}

KafkaDouble::~KafkaDouble() {
    installed.store(nullptr);
}

KafkaDouble* KafkaDouble::instance() {
    return installed.load();
}

void KafkaDouble::note(const std::string& call) {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_calls.push_back(call);
}

template <class Value>
Value KafkaDouble::next(std::deque<Value>& answers) {
    if (answers.empty()) {
        return Value{};
    }
    Value answer = std::move(answers.front());
    answers.pop_front();
    return answer;
}

void KafkaDouble::deliver(KafkaMessage message) {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_script.push_back({std::move(message), nullptr});
    m_is_idle = false;
    m_changed.notify_all();
}

void KafkaDouble::deliver(const std::string& topic, const std::string& payload) {
    KafkaMessage message;
    message.topic = topic;
    message.payload = payload;
    deliver(std::move(message));
}

void KafkaDouble::in_consume(Action action) {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_script.push_back({std::nullopt, std::move(action)});
    m_is_idle = false;
    m_changed.notify_all();
}

void KafkaDouble::rebalance(RdKafka::ErrorCode error, const std::vector<std::string>& partitions) {
    in_consume([error, partitions](RdKafka::KafkaConsumer& consumer, RdKafka::RebalanceCb& callback) {
        std::vector<RdKafka::TopicPartition*> list;
        for (const std::string& name : partitions) {
            const std::size_t slash = name.rfind('/');
            list.push_back(
                RdKafka::TopicPartition::create(name.substr(0, slash), std::stoi(name.substr(slash + 1))));
        }
        callback.rebalance_cb(&consumer, error, list);
        RdKafka::TopicPartition::destroy(list);
    });
}

void KafkaDouble::in_close(Action action) {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_close_action = std::move(action);
}

std::vector<std::string> KafkaDouble::calls() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_calls;
}

std::vector<std::string> KafkaDouble::calls(const std::set<std::string>& words) const {
    std::vector<std::string> chosen = calls();
    std::erase_if(chosen,
                  [&](const std::string& call) { return words.count(call.substr(0, call.find(' '))) == 0; });
    return chosen;
}

std::vector<ProducedMessage> KafkaDouble::produced() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_produced;
}

bool KafkaDouble::wait_until_idle() const {
    std::unique_lock<std::mutex> guard(m_lock);
    return m_changed.wait_for(guard, WAIT_LIMIT, [this] { return m_is_idle; });
}

std::optional<int> KafkaDouble::consume_timeout_ms() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_consume_timeout_ms;
}

RdKafka::EventCb* KafkaDouble::event_callback() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_event_callback;
}

RdKafka::DeliveryReportCb* KafkaDouble::delivery_callback() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_delivery_callback;
}

RdKafka::RebalanceCb* KafkaDouble::rebalance_callback() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_rebalance_callback;
}

int array_releases([[maybe_unused]] const void* payload) {
#ifdef __SANITIZE_ADDRESS__
    return 1;
#else
    return watched_array == payload ? watched_releases.load() : -1;
#endif
}

FailingCompression::FailingCompression(int code) {
    compression_failure = code;
}

FailingCompression::~FailingCompression() {
    compression_failure = 0;
}

// ---- What the linker leads here

struct KafkaFactories {
    static RdKafka::Conf* conf(KafkaDouble& kafka, RdKafka::Conf::ConfType type) {
        {
            const std::lock_guard<std::mutex> guard(kafka.m_lock);
            if (kafka.granted_configurations-- <= 0) {
                return nullptr;
            }
        }
        return new ConfDouble(kafka, type);
    }
    static RdKafka::Producer* producer(KafkaDouble& kafka, const RdKafka::Conf* conf, std::string& reason) {
        kafka.note("create producer " + static_cast<const ConfDouble*>(conf)->kind());
        if (kafka.on_create_producer) {
            kafka.on_create_producer();
        }
        if (kafka.producer_refusal) {
            reason = *kafka.producer_refusal;
            return nullptr;
        }
        return new ProducerDouble(kafka);
    }
    static RdKafka::KafkaConsumer* consumer(KafkaDouble& kafka, const RdKafka::Conf* conf,
                                            std::string& reason) {
        kafka.note("create consumer " + static_cast<const ConfDouble*>(conf)->kind());
        if (kafka.consumer_refusal) {
            reason = *kafka.consumer_refusal;
            return nullptr;
        }
        return new ConsumerDouble(kafka);
    }
    static int wait_destroyed(KafkaDouble& kafka, int timeout_ms) {
        kafka.note("wait_destroyed " + std::to_string(timeout_ms));
        return -1; // some object is left, which nobody looks at
    }
};

// The pauses of the topic check are written down and cut short, the first is interrupted after a tenth of its time.
// Those of the statistics thread are cut short too. Others are none of ours.
int sleep_or_answer(const timespec* wanted, timespec* left) {
    KafkaDouble* const kafka = KafkaDouble::instance();
    const bool is_statistic = wanted->tv_sec >= 5;
    const bool is_pause =
        wanted->tv_sec == 0 && (wanted->tv_nsec == 100'000'000 || wanted->tv_nsec == 90'000'000);
    if (kafka == nullptr || (!is_statistic && !is_pause)) {
        return __real_nanosleep(wanted, left);
    }
    if (is_pause) {
        const bool is_first = kafka->calls({"sleep"}).empty();
        kafka->note("sleep " + std::to_string(wanted->tv_nsec));
        if (is_first) {
            *left = {0, 90'000'000};
            errno = EINTR;
            return -1;
        }
    }
    const timespec instead{0, 1'000'000};
    return __real_nanosleep(&instead, nullptr);
}

} // namespace corvalin::test

#ifndef __SANITIZE_ADDRESS__
// Arrays come from malloc underneath, which is what the code under test rests on as well.
void operator delete[](void* array) noexcept {
    if (array != nullptr && array == corvalin::test::watched_array) {
        ++corvalin::test::watched_releases;
    }
    std::free(array);
}
void operator delete[](void* array, std::size_t /*size*/) noexcept {
    operator delete[](array);
}
#endif

// NOLINTBEGIN(readability-identifier-naming): the linker makes these names of the wrapped calls
using corvalin::test::KafkaDouble;
using corvalin::test::KafkaFactories;

extern "C" {
int __wrap_nanosleep(const timespec* wanted, timespec* left) {
    return corvalin::test::sleep_or_answer(wanted, left);
}

int __wrap_compress(unsigned char* target, unsigned long* size, const unsigned char* source,
                    unsigned long source_size) {
    const int failure = corvalin::test::compression_failure;
    return failure != 0 ? failure : __real_compress(target, size, source, source_size);
}

RdKafka::Conf* __wrap__ZN7RdKafka4Conf6createENS0_8ConfTypeE(RdKafka::Conf::ConfType type) {
    KafkaDouble* const kafka = KafkaDouble::instance();
    return kafka != nullptr ? KafkaFactories::conf(*kafka, type)
                            : __real__ZN7RdKafka4Conf6createENS0_8ConfTypeE(type);
}

RdKafka::Producer*
__wrap__ZN7RdKafka8Producer6createEPKNS_4ConfERNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(
    const RdKafka::Conf* conf, std::string& reason) {
    KafkaDouble* const kafka = KafkaDouble::instance();
    return kafka != nullptr
               ? KafkaFactories::producer(*kafka, conf, reason)
               : __real__ZN7RdKafka8Producer6createEPKNS_4ConfERNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(
                     conf, reason);
}

RdKafka::KafkaConsumer*
__wrap__ZN7RdKafka13KafkaConsumer6createEPKNS_4ConfERNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(
    const RdKafka::Conf* conf, std::string& reason) {
    KafkaDouble* const kafka = KafkaDouble::instance();
    return kafka != nullptr
               ? KafkaFactories::consumer(*kafka, conf, reason)
               : __real__ZN7RdKafka13KafkaConsumer6createEPKNS_4ConfERNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(
                     conf, reason);
}

int __wrap__ZN7RdKafka14wait_destroyedEi(int timeout_ms) {
    KafkaDouble* const kafka = KafkaDouble::instance();
    return kafka != nullptr ? KafkaFactories::wait_destroyed(*kafka, timeout_ms)
                            : __real__ZN7RdKafka14wait_destroyedEi(timeout_ms);
}
}
// NOLINTEND(readability-identifier-naming)
