#include "corvalin_lib/messaging_message_broker.h"

#include "corvalin_lib/log.h"
#include "corvalin_lib/thread.h"

#include <sys/prctl.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <sstream>
#include <utility>

namespace corvalin::messaging {

namespace {

constexpr const char* SOURCE = "messaging_message_broker";

constexpr int PRODUCE_ATTEMPTS = 3;
constexpr int FULL_QUEUE_POLL_MS = 1000;
constexpr int FLUSH_MS = 5000;
constexpr int FINAL_FLUSH_MS = 10'000;
constexpr int WAIT_DESTROYED_MS = 5000;
constexpr std::chrono::seconds FIRST_ASSIGNMENT_LIMIT{10};
constexpr uint64_t DEFAULT_RECEIVE_TIMEOUT_MS = 1000;
constexpr int TOPIC_CHECKS = 5;
constexpr long TOPIC_CHECK_PAUSE_NS = 100'000'000;
constexpr int QUERY_TIMEOUT_MS = 1000;
constexpr unsigned long INFLATION_LIMIT = 10;
constexpr unsigned long LIBRARY_TIMER_SLACK_NS = 1'000'000;

using ConfPtr = std::unique_ptr<RdKafka::Conf>;

void log_error(int line, const std::string& text) {
    log::write(SOURCE, line, log::ErrorMessage() << "MESSAGE_BROKER: " << text);
}

// Sets one property. False, and logged, if the library refuses it.
template <class Value>
bool set_property(RdKafka::Conf& conf, const std::string& name, const Value& value) {
    std::string error;
    if (conf.set(name, value, error) == RdKafka::Conf::CONF_OK) {
        return true;
    }
    log_error(__LINE__, "failed to setup \"" + name + "\": " + error);
    return false;
}

// Each as "[first/second]", joined by ", ".
template <class Range, class Format>
std::string bracketed(const Range& range, Format format) {
    std::ostringstream text;
    const char* separator = "";
    for (const auto& element : range) {
        text << separator << "[";
        format(text, element);
        text << "]";
        separator = ", ";
    }
    return text.str();
}

// Threads that are made while this object lives, and those that they make, may be woken from a wait up to a millisecond late
// (PR_SET_TIMERSLACK in prctl(2)). The library's main threads, one for each client, wait in whole milliseconds until the next
// of their timers is due and spin through the rest, for nearly a millisecond in each second (librdkafka issue 4684, up to
// version 2.3). Woken late, they have nothing left to spin through.
class LateWakeUps {
public:
    LateWakeUps() noexcept : m_slack_before(prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0)) {
        prctl(PR_SET_TIMERSLACK, LIBRARY_TIMER_SLACK_NS, 0, 0, 0);
    }
    LateWakeUps(const LateWakeUps&) = delete;
    LateWakeUps& operator=(const LateWakeUps&) = delete;
    ~LateWakeUps() { prctl(PR_SET_TIMERSLACK, static_cast<unsigned long>(m_slack_before), 0, 0, 0); }

private:
    const int m_slack_before;
};

void pause_before_check() {
    timespec left{0, TOPIC_CHECK_PAUSE_NS};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
        // a signal does not shorten the pause
    }
}

} // namespace

MessageBroker::MessageBroker(MessageBrokerSettings settings) : m_settings(std::move(settings)) {
    const LateWakeUps threads_of_the_library;
    start_consumer();
    start_producer();
}

MessageBroker::~MessageBroker() {
    stop_consumer();
    stop_producer();
    RdKafka::wait_destroyed(WAIT_DESTROYED_MS);
}

void MessageBroker::start_producer() {
    const ConfPtr conf(RdKafka::Conf::create(RdKafka::Conf::CONF_GLOBAL));
    if (!set_property(*conf, "metadata.broker.list", m_settings.brokers) ||
        !set_property(*conf, "dr_cb", static_cast<RdKafka::DeliveryReportCb*>(this))) {
        return;
    }
    std::string error;
    m_producer.reset(std::unique_ptr<RdKafka::Producer>(RdKafka::Producer::create(conf.get(), error)));
    if (!m_producer) {
        log_error(__LINE__, "failed to create producer: " + error);
    }
}

void MessageBroker::stop_producer() {
    if (!m_producer) {
        return;
    }
    m_producer->flush(FINAL_FLUSH_MS);
    const int count = m_producer->outq_len();
    if (count != 0) {
        log::write(SOURCE, __LINE__,
                   log::WarningMessage()
                       << "MESSAGE_BROKER: losing data as (" << count << ") message(s) were not delivered");
    }
    m_producer.reset();
}

// Each message is waited for by itself: there are few, and their order of arrival at the log is what operators read.
void MessageBroker::send(std::string topic, const unsigned char* data, unsigned long size) {
    unsigned char* const payload = compress(data, size);
    if (payload == nullptr) {
        return;
    }
    if (!accept_for_delivery(topic, payload, size)) {
        delete[] payload;
        return;
    }
    const RdKafka::ErrorCode error = m_producer->flush(FLUSH_MS);
    if (error != RdKafka::ERR_NO_ERROR) {
        log::write(SOURCE, __LINE__,
                   log::WarningMessage() << "MESSAGE_BROKER: message may not be sent to [" << topic
                                         << "]; error (" << error << "): " << RdKafka::err2str(error));
    }
}

// True if the library has taken the message, and with it the payload: RK_MSG_FREE makes it release an array of ours by
// `free`. On the platforms that we build for, the array allocator is malloc underneath; AddressSanitizer is told at the
// end of this file.
bool MessageBroker::accept_for_delivery(const std::string& topic, unsigned char* payload,
                                        unsigned long size) {
    for (int attempts = PRODUCE_ATTEMPTS; attempts > 0; --attempts) {
        const RdKafka::ErrorCode error =
            m_producer->produce(topic, RdKafka::Topic::PARTITION_UA, RdKafka::Producer::RK_MSG_FREE, payload,
                                size, nullptr, 0, 0, nullptr);
        if (error == RdKafka::ERR_NO_ERROR) {
            return true;
        }
        log::write(SOURCE, __LINE__,
                   log::ErrorMessage() << "MESSAGE_BROKER: failed to send message to [" << topic
                                       << "]; error (" << error << "): " << RdKafka::err2str(error));
        if (error != RdKafka::ERR__QUEUE_FULL) {
            return false;
        }
        m_producer->poll(FULL_QUEUE_POLL_MS);
    }
    return false;
}

void MessageBroker::dr_cb(RdKafka::Message& message) {
    if (message.err() != RdKafka::ERR_NO_ERROR) {
        log::write(SOURCE, __LINE__,
                   log::ErrorMessage()
                       << "MESSAGE_BROKER: message delivery failed to " << message.topic_name() << "["
                       << message.partition() << "], error: " << message.errstr());
        return;
    }
    log::write(SOURCE, __LINE__,
               log::InfoMessage() << "MESSAGE_BROKER: message delivered to " << message.topic_name() << "["
                                  << message.partition() << "] at offset (" << message.offset() << ")");
}

void MessageBroker::start_consumer() {
    if (m_settings.topics.empty()) {
        return;
    }
    m_consumer_running.store(true, std::memory_order_seq_cst);
    m_consumer_thread = std::thread(&MessageBroker::consumer_loop, this);
    if (m_consumer_ready.get_future().wait_for(FIRST_ASSIGNMENT_LIMIT) == std::future_status::timeout) {
        // The thread goes on trying: if the broker comes up later it works as if nothing had happened.
        log_error(__LINE__, "consumer startup failed");
        return;
    }
    log_subscription();
}

// The words promise a count and the line names the topics; operators' filters know it so.
void MessageBroker::log_subscription() const {
    log::write(
        SOURCE, __LINE__,
        log::SystemMessage() << "MESSAGE_BROKER: subscribed for "
                             << bracketed(m_settings.topics,
                                          [](std::ostream& text, const std::string& topic) { text << topic; })
                             << " topic(s)");
}

void MessageBroker::stop_consumer() {
    if (m_settings.topics.empty()) {
        return;
    }
    m_consumer_running.store(false, std::memory_order_seq_cst);
    if (m_consumer_thread.joinable()) {
        m_consumer_thread.join();
    } else {
        log_error(__LINE__, "trying to stop consumer thread from itself! Possible memory leak!!!");
    }
}

void MessageBroker::create_consumer() {
    const ConfPtr conf(RdKafka::Conf::create(RdKafka::Conf::CONF_GLOBAL));
    if (!conf) {
        log_error(__LINE__, "failed to create consumer configuration");
        return;
    }
    if (!set_property(*conf, "rebalance_cb", static_cast<RdKafka::RebalanceCb*>(this)) ||
        !set_property(*conf, "enable.partition.eof", std::string("true")) ||
        !set_property(*conf, "allow.auto.create.topics", std::string("true")) ||
        !set_property(*conf, "group.id", m_settings.group) ||
        !set_property(*conf, "metadata.broker.list", m_settings.brokers) ||
        !set_property(*conf, "event_cb", static_cast<RdKafka::EventCb*>(this))) {
        return;
    }
    const ConfPtr topic_conf(RdKafka::Conf::create(RdKafka::Conf::CONF_TOPIC));
    if (!topic_conf) {
        log_error(__LINE__, "failed to create topic configuration");
        return;
    }
    if (!set_property(*topic_conf, "auto.offset.reset", std::string("latest")) ||
        !set_property(*conf, "default_topic_conf", static_cast<const RdKafka::Conf*>(topic_conf.get()))) {
        return;
    }
    std::string error;
    m_consumer.reset(
        std::unique_ptr<RdKafka::KafkaConsumer>(RdKafka::KafkaConsumer::create(conf.get(), error)));
    if (!m_consumer) {
        log_error(__LINE__, "failed to create consumer: " + error);
        return;
    }
    const RdKafka::ErrorCode code = m_consumer->subscribe(topic_names());
    if (code != RdKafka::ERR_NO_ERROR) {
        log::write(SOURCE, __LINE__,
                   log::ErrorMessage() << "MESSAGE_BROKER: consumer topics subscribe failed, error (" << code
                                       << "): " << RdKafka::err2str(code));
    }
}

// There is no road with a consumer thread and no consumer: without one the first poll faults, and the process ends.
void MessageBroker::consumer_loop() {
    log::write(SOURCE, __LINE__,
               log::SystemMessage() << "MESSAGE_BROKER: messages listening thread [" << current_thread_id()
                                    << "] started");
    create_consumer();
    const int timeout_ms = static_cast<int>(m_settings.receive_timeout_ms != 0 ? m_settings.receive_timeout_ms
                                                                               : DEFAULT_RECEIVE_TIMEOUT_MS);
    bool topic_check_done = false; // once in the life of the thread
    while (m_consumer_running.load(std::memory_order_seq_cst)) {
        const std::unique_ptr<RdKafka::Message> message(m_consumer->consume(timeout_ms));
        if (message->err() == RdKafka::ERR_UNKNOWN_TOPIC_OR_PART && !topic_check_done) {
            topic_check_done = true;
            if (resubscribe_if_created(message->topic_name())) {
                continue;
            }
        }
        handle_message(message.get());
    }
    m_consumer->close();
    m_consumer.reset();
    log::write(SOURCE, __LINE__,
               log::SystemMessage() << "MESSAGE_BROKER: messages listening thread [" << current_thread_id()
                                    << "] stopped");
}

// A topic may be in the making while we subscribe to it. False if it did not show up in time.
bool MessageBroker::resubscribe_if_created(const std::string& topic) {
    log::write(
        SOURCE, __LINE__,
        log::WarningMessage() << "MESSAGE_BROKER: topic [" << topic
                              << "] is unknown, let's check the one has been already created at broker");
    for (int check = 0; check < TOPIC_CHECKS; ++check) {
        pause_before_check();
        if (is_topic_exist_at_broker(topic)) {
            log::write(SOURCE, __LINE__,
                       log::InfoMessage() << "MESSAGE_BROKER: topic [" << topic
                                          << "] exist at broker, let's resubscribe to reload the topic");
            resubscribe();
            return true;
        }
    }
    return false;
}

void MessageBroker::resubscribe() {
    m_consumer->unsubscribe();
    const RdKafka::ErrorCode code = m_consumer->subscribe(topic_names());
    if (code == RdKafka::ERR_NO_ERROR) {
        log::write(SOURCE, __LINE__,
                   log::InfoMessage() << "MESSAGE_BROKER: topics resubscribed successfully");
        return;
    }
    log::write(SOURCE, __LINE__,
               log::ErrorMessage() << "MESSAGE_BROKER: failed to resubscribe topics, error (" << code
                                   << "): " << RdKafka::err2str(code));
    m_consumer_running.store(false, std::memory_order_seq_cst);
}

void MessageBroker::handle_message(RdKafka::Message* message) {
    switch (message->err()) {
    case RdKafka::ERR_NO_ERROR: {
        if (!m_settings.on_message_received) {
            return;
        }
        unsigned long size = message->len();
        const std::unique_ptr<unsigned char[]> inflated(
            decompress(static_cast<const unsigned char*>(message->payload()), size));
        if (inflated) {
            m_settings.on_message_received(inflated.get(), size);
        }
        return;
    }
    case RdKafka::ERR__TIMED_OUT:
        if (m_settings.on_receive_timeout) {
            m_settings.on_receive_timeout();
        }
        return;
    case RdKafka::ERR__PARTITION_EOF:
        if (log::passes(log::Level::TRACE)) {
            log::write(SOURCE, __LINE__,
                       log::TraceMessage()
                           << "MESSAGE_BROKER: EOF reached for partition [" << message->partition() << "]");
        }
        return;
    default:
        log::write(SOURCE, __LINE__,
                   log::ErrorMessage() << "MESSAGE_BROKER: message receiving error (" << message->err()
                                       << "): \"" << message->errstr() << "\"");
    }
}

// The order at the first assignment: offsets settled, the waiting constructor released, partitions assigned.
void MessageBroker::rebalance_cb(RdKafka::KafkaConsumer* consumer, RdKafka::ErrorCode err,
                                 std::vector<RdKafka::TopicPartition*>& partitions) {
    const std::string text =
        bracketed(partitions, [](std::ostream& stream, const RdKafka::TopicPartition* partition) {
            stream << partition->topic() << "/" << partition->partition();
        });
    log::write(SOURCE, __LINE__,
               log::SystemMessage() << "MESSAGE_BROKER: rebalance \"" << RdKafka::err2str(err)
                                    << "\": " << (text.empty() ? "(no partitions)" : text));
    if (err != RdKafka::ERR__ASSIGN_PARTITIONS) {
        m_consumer->unassign();
        return;
    }
    bool is_first = true;
    if (m_first_assignment.compare_exchange_strong(is_first, false, std::memory_order_seq_cst)) {
        sync_offsets(partitions, QUERY_TIMEOUT_MS);
        m_consumer_ready.set_value();
    }
    consumer->assign(partitions);
}

void MessageBroker::sync_offsets(std::vector<RdKafka::TopicPartition*>& partitions, int timeout_ms) {
    for (RdKafka::TopicPartition* const partition : partitions) {
        int64_t low = 0;
        int64_t high = 0;
        const RdKafka::ErrorCode code = m_consumer->query_watermark_offsets(
            partition->topic(), partition->partition(), &low, &high, timeout_ms);
        if (code != RdKafka::ERR_NO_ERROR) {
            log::write(SOURCE, __LINE__,
                       log::ErrorMessage()
                           << "MESSAGE_BROKER: failed to receive offset for [" << partition->topic() << "/"
                           << partition->partition() << "]: error (" << code << "): \""
                           << RdKafka::err2str(code) << "\"");
            continue;
        }
        log::SystemMessage message;
        message << "MESSAGE_BROKER: sync offset for [" << partition->topic() << "/" << partition->partition()
                << "] ";
        if (partition->offset() < high) {
            message << "from (" << partition->offset() << ") to (" << high << ")";
            partition->set_offset(high);
        } else {
            message << "is not required; current is (" << partition->offset() << "), received is (" << high
                    << ")";
        }
        log::write(SOURCE, __LINE__, message);
    }
}

// Asks for the topics that this client holds, and not for the broker's whole list. A topic that the broker marks with
// an error counts as existing.
bool MessageBroker::is_topic_exist_at_broker(const std::string& topic) {
    RdKafka::Metadata* received = nullptr;
    const RdKafka::ErrorCode code = m_consumer->metadata(false, nullptr, &received, QUERY_TIMEOUT_MS);
    const std::unique_ptr<RdKafka::Metadata> metadata(received);
    if (code != RdKafka::ERR_NO_ERROR) {
        log::write(SOURCE, __LINE__,
                   log::ErrorMessage() << "MESSAGE_BROKER: failed to receive metadata from broker: error ("
                                       << code << "): \"" << RdKafka::err2str(code) << "\"");
        return false;
    }
    if (!metadata || metadata->topics() == nullptr) {
        log_error(__LINE__, "metadata or metadata topics do not exist");
        return false;
    }
    return std::any_of(metadata->topics()->begin(), metadata->topics()->end(),
                       [&](const RdKafka::TopicMetadata* known) { return known->topic() == topic; });
}

// The two blanks in front of "error" when the label is empty, and the class of statistics events, stay as they are.
void MessageBroker::event_cb(RdKafka::Event& event) {
    switch (event.type()) {
    case RdKafka::Event::EVENT_ERROR:
        log::write(SOURCE, __LINE__,
                   log::ErrorMessage() << "MESSAGE_BROKER: " << (event.fatal() ? "FATAL" : "") << " error ("
                                       << RdKafka::err2str(event.err()) << "): " << event.str());
        break;
    case RdKafka::Event::EVENT_STATS:
        log::write(SOURCE, __LINE__, log::ErrorMessage() << "MESSAGE_BROKER: STAT: " << event.str());
        break;
    case RdKafka::Event::EVENT_LOG:
        log::write(SOURCE, __LINE__,
                   log::InfoMessage() << "MESSAGE_BROKER: LOG-" << static_cast<int>(event.severity()) << "-"
                                      << event.fac() << ": " << event.str());
        break;
    case RdKafka::Event::EVENT_THROTTLE:
        log::write(SOURCE, __LINE__,
                   log::InfoMessage() << "MESSAGE_BROKER: THROTTLED: " << event.throttle_time() << "ms by "
                                      << event.broker_name() << "(id: " << event.broker_id() << ")");
        break;
    default:
        log::write(SOURCE, __LINE__,
                   log::InfoMessage() << "MESSAGE_BROKER: event (" << static_cast<int>(event.type()) << ") \""
                                      << RdKafka::err2str(event.err()) << "\": " << event.str());
    }
}

unsigned char* MessageBroker::compress(const unsigned char* data, unsigned long& size) {
    uLongf length = compressBound(size);
    std::unique_ptr<unsigned char[]> buffer(new unsigned char[length]());
    const int code = ::compress(buffer.get(), &length, data, size);
    if (code != Z_OK) {
        log::write(SOURCE, __LINE__,
                   log::ErrorMessage() << "MESSAGE_BROKER: message compressing error (" << code << ")");
        return nullptr;
    }
    size = length;
    return buffer.release();
}

// The factor is fixed, and there is no second attempt with more room: what inflates beyond it is lost.
unsigned char* MessageBroker::decompress(const unsigned char* data, unsigned long& size) {
    uLongf length = size * INFLATION_LIMIT;
    std::unique_ptr<unsigned char[]> buffer(new unsigned char[length]());
    const int code = ::uncompress(buffer.get(), &length, data, size);
    if (code != Z_OK) {
        log::write(SOURCE, __LINE__,
                   log::ErrorMessage() << "MESSAGE_BROKER: message decompressing error (" << code << ")");
        return nullptr;
    }
    size = length;
    return buffer.release();
}

std::vector<std::string> MessageBroker::topic_names() const {
    return {m_settings.topics.begin(), m_settings.topics.end()};
}

} // namespace corvalin::messaging

#ifdef __SANITIZE_ADDRESS__
// The one pairing of `new[]` with `free` in this program is meant, see accept_for_delivery, and the check for such
// pairings can only be had as a whole. Weak, so that a program may have options of its own.
// NOLINTNEXTLINE(readability-identifier-naming): the name that the runtime asks for
extern "C" __attribute__((weak)) const char* __asan_default_options() {
    return "alloc_dealloc_mismatch=0";
}
#endif
