#include "tests/support/kafka/broker.h"

#include "tests/support/kafka/admin.h"

#include <cstdlib>
#include <utility>

namespace corvalin::test {

namespace {

constexpr std::chrono::seconds EMBEDDED_START_LIMIT{30};
// Above the limits of the script itself, which knows why it waits.
constexpr std::chrono::seconds APACHE_START_LIMIT{110};
constexpr int EXIT_UNAVAILABLE = 77;
const std::string ADDRESS_PREFIX = "broker ";

std::string last_line(std::string text) {
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text.substr(text.rfind('\n') + 1);
}

} // namespace

Broker::Broker(std::vector<std::string> command, std::chrono::milliseconds start_limit)
    : m_process(std::move(command), ToolProcess::Input::LINES), m_start_limit(start_limit) {
    const std::string line = m_process.read_line(start_limit);
    if (line.compare(0, ADDRESS_PREFIX.size(), ADDRESS_PREFIX) == 0) {
        m_address = line.substr(ADDRESS_PREFIX.size());
        return;
    }
    const int status = m_process.wait();
    if (status == EXIT_UNAVAILABLE) {
        throw BrokerUnavailable(last_line(m_process.err()));
    }
    throw std::runtime_error("the broker ended with status " + std::to_string(status) + ": " +
                             m_process.err());
}

// Killed, the process could not remove what its broker has stored.
Broker::~Broker() {
    m_process.close_input();
    m_process.wait();
}

void Broker::command(const std::string& line) {
    m_process.write_line(line);
    const std::string answer = m_process.read_line(m_start_limit);
    if (answer != "ok") {
        throw std::runtime_error("broker, " + line + ": " + answer + m_process.err());
    }
}

void Broker::down() {
    if (m_up) {
        go_down();
        m_up = false;
    }
}

void Broker::up() {
    if (!m_up) {
        come_up();
        m_up = true;
    }
}

EmbeddedBroker::EmbeddedBroker() : Broker({CORVALIN_EMBEDDED_BROKER_PATH}, EMBEDDED_START_LIMIT) {
}

void EmbeddedBroker::create_topic(const std::string& name, int partitions) {
    command("topic " + name + " " + std::to_string(partitions));
}

void EmbeddedBroker::set_latency(std::chrono::milliseconds latency) {
    command("latency " + std::to_string(latency.count()));
}

void EmbeddedBroker::push_errors(const std::string& request, const std::string& error, int count) {
    command("error " + request + " " + error + " " + std::to_string(count));
}

void EmbeddedBroker::clear_errors(const std::string& request) {
    command("clear-errors " + request);
}

void EmbeddedBroker::set_topic_error(const std::string& topic, const std::string& error) {
    command("topic-error " + topic + " " + error);
}

void EmbeddedBroker::go_down() {
    command("down");
}

void EmbeddedBroker::come_up() {
    command("up");
}

ApacheBroker::ApacheBroker() : Broker({"python3", CORVALIN_KAFKA_BROKER_SCRIPT}, APACHE_START_LIMIT) {
}

void ApacheBroker::create_topic(const std::string& name, int partitions) {
    create_topic_as_admin(address(), name, partitions);
}

void ApacheBroker::free_group(const std::string& group) {
    command("free-group " + group);
}

void ApacheBroker::limit_reading(const std::string& client, int bytes_per_second) {
    command("slow " + client + " " + std::to_string(bytes_per_second));
}

void ApacheBroker::go_down() {
    command("kill");
}

void ApacheBroker::come_up() {
    command("restart");
}

std::string name_of(BrokerKind kind) {
    return kind == BrokerKind::EMBEDDED ? "Embedded" : "Apache";
}

std::ostream& operator<<(std::ostream& stream, BrokerKind kind) {
    return stream << name_of(kind);
}

std::unique_ptr<Broker> start_broker(BrokerKind kind) {
    if (kind == BrokerKind::EMBEDDED) {
        return std::make_unique<EmbeddedBroker>();
    }
    return std::make_unique<ApacheBroker>();
}

bool is_continuous_integration() {
    const char* const value = std::getenv("CI");
    return value != nullptr && std::string(value) == "true";
}

} // namespace corvalin::test
