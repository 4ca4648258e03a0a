// broker: a Kafka broker as a child process, on a port of 127.0.0.1 that the kernel chooses.
//
// There are two, with one interface: the embedded one, always there and able to fail on command, and Apache
// Kafka, which shares no code with the client library.
//
// Threads    one thread at a time.
// Ownership  the process ends with the object, and all that it has stored goes with it.
// Errors     BrokerUnavailable if this machine has no such broker to offer; std::runtime_error for whatever
//            else the broker does not do.
#pragma once

#include "tests/support/tool_process.h"

#include <chrono>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace corvalin::test {

/// The text says in plain words what is missing.
class BrokerUnavailable : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Broker {
public:
    /// Waits for the end of the process, which takes its files with it.
    virtual ~Broker();
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    /// "127.0.0.1:PORT", the same for the broker's whole life.
    const std::string& address() const { return m_address; }

    /// The topic can be used when this returns.
    virtual void create_topic(const std::string& name, int partitions = 1) = 0;

    /// All connections end and new ones are refused, without a word to anybody. Nothing if it is down already.
    void down();
    /// It is reached again, on its port and with all that it had stored. Nothing if it is up already.
    void up();
    bool is_up() const { return m_up; }

protected:
    /// Starts the process and waits for its first line, which tells the address.
    Broker(std::vector<std::string> command, std::chrono::milliseconds start_limit);

    /// Has the process carry out a command.
    void command(const std::string& line);

    virtual void go_down() = 0;
    virtual void come_up() = 0;

private:
    ToolProcess m_process;
    const std::chrono::milliseconds m_start_limit;
    std::string m_address;
    bool m_up = true;
};

/// The mock cluster of the client library. Groups take 3 s for their first assignment and 44 s for any later one, so
/// give every consumer a group that was never used before. Topics that are used and do not exist appear, with four
/// partitions.
class EmbeddedBroker : public Broker {
public:
    EmbeddedBroker();
    void create_topic(const std::string& name, int partitions = 1) override;

    /// Delays each response.
    void set_latency(std::chrono::milliseconds latency);
    /// Fails the next requests of this kind ("Produce", "Fetch") with this error ("UNKNOWN_TOPIC_OR_PART"; "_TRANSPORT"
    /// ends the connection).
    void push_errors(const std::string& request, const std::string& error, int count = 1);
    void clear_errors(const std::string& request);
    /// Queries of the topic fail until "NO_ERROR" is set. A missing topic is created with one partition.
    void set_topic_error(const std::string& topic, const std::string& error);

protected:
    void go_down() override;
    void come_up() override;
};

/// Apache Kafka. `down` kills it. Clients find it again seconds after `up` has returned.
class ApacheBroker : public Broker {
public:
    ApacheBroker();
    /// By the admin interface of the client library.
    void create_topic(const std::string& name, int partitions = 1) override;

    /// Removes all members of a group. A member that was killed would hold it for 45 s.
    void free_group(const std::string& group);

    /// Lets clients of this client.id read so many bytes a second; 0 for as many as they like.
    void limit_reading(const std::string& client, int bytes_per_second);

protected:
    void go_down() override;
    void come_up() override;
};

enum class BrokerKind { EMBEDDED, APACHE };
/// "Embedded" or "Apache", as test names have it.
std::string name_of(BrokerKind kind);
std::ostream& operator<<(std::ostream& stream, BrokerKind kind);

std::unique_ptr<Broker> start_broker(BrokerKind kind);

/// True where a missing broker must not pass as a skipped test.
bool is_continuous_integration();

} // namespace corvalin::test
