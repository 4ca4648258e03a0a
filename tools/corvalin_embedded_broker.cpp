// corvalin_embedded_broker: a Kafka broker without an installation, for the demo and the fast tests.
//
// It is the mock cluster of the Kafka client library, alone in a process of its own, so that it goes away and
// comes back as a broker does while the processes that talk to it live on.
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "tools/tool_support/command_line.h"

namespace {

using namespace corvalin::tools;

constexpr const char* NAME = "corvalin_embedded_broker";
constexpr int32_t BROKER_ID = 1; // the library numbers the brokers of a mock cluster from 1
constexpr int MAX_PARTITIONS = 1000;
constexpr int MAX_LATENCY_MS = 3600000;
constexpr int MAX_ERRORS = 10000;
constexpr std::size_t MAX_TOPIC_NAME_BYTES = 249; // as a real broker has it
// Errors and warnings only: each start would notice that no broker is configured, which is so on purpose.
constexpr const char* LIBRARY_LOG_LEVEL = "4";

constexpr const char* COMMANDS =
    "topic NAME [PARTITIONS]     create a topic, with one partition by default\n"
    "down                        end all connections and refuse new ones\n"
    "up                          take connections again, on the same port\n"
    "latency MS                  delay each response by MS milliseconds\n"
    "error REQUEST ERROR [COUNT] fail the next requests, one by default\n"
    "clear-errors REQUEST        forget the errors that were not used up\n"
    "topic-error NAME ERROR      fail queries of this topic until NO_ERROR is set\n"
    "help                        list the commands\n"
    "quit                        end\n";

// The requests that the mock cluster serves and whose errors clients see, by their names in the protocol.
struct RequestKind {
    std::string_view name;
    int16_t key;
};
constexpr std::array REQUEST_KINDS = {
    RequestKind{"Produce", 0},          RequestKind{"Fetch", 1},        RequestKind{"ListOffsets", 2},
    RequestKind{"Metadata", 3},         RequestKind{"OffsetCommit", 8}, RequestKind{"OffsetFetch", 9},
    RequestKind{"FindCoordinator", 10}, RequestKind{"JoinGroup", 11},   RequestKind{"Heartbeat", 12},
    RequestKind{"LeaveGroup", 13},      RequestKind{"SyncGroup", 14},   RequestKind{"ApiVersions", 18},
};

// A command that cannot be carried out; the text is the answer to it.
class CommandError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

void check(rd_kafka_resp_err_t result) {
    if (result != RD_KAFKA_RESP_ERR_NO_ERROR) {
        throw CommandError(rd_kafka_err2str(result));
    }
}

int parse_number(const std::string& text, int lowest, int highest) {
    int number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end || number < lowest || number > highest) {
        throw CommandError("\"" + text + "\" is not a number from " + std::to_string(lowest) + " to " +
                           std::to_string(highest));
    }
    return number;
}

// The mock cluster takes any name, but a topic that a real broker would refuse is a mistake of the caller.
const std::string& check_topic(const std::string& name) {
    constexpr std::string_view allowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
    if (name.find_first_not_of(allowed) != std::string::npos || name == "." || name == ".." ||
        name.size() > MAX_TOPIC_NAME_BYTES) {
        throw CommandError("\"" + name + "\" is not a name for a topic");
    }
    return name;
}

int16_t parse_request_kind(const std::string& name) {
    for (const RequestKind& kind : REQUEST_KINDS) {
        if (kind.name == name) {
            return kind.key;
        }
    }
    throw CommandError("unknown request \"" + name + "\"");
}

// Only what a broker can answer with: the library's own errors, which are negative, exist in the client alone.
// The exception ends the connection that the request came from.
bool is_broker_error(rd_kafka_resp_err_t error) {
    return error >= RD_KAFKA_RESP_ERR_UNKNOWN || error == RD_KAFKA_RESP_ERR__TRANSPORT;
}

rd_kafka_resp_err_t parse_error(const std::string& name) {
    const rd_kafka_err_desc* descriptions = nullptr;
    std::size_t count = 0;
    rd_kafka_get_err_descs(&descriptions, &count);
    for (std::size_t i = 0; i < count; ++i) {
        // The list is indexed by code, with holes.
        if (descriptions[i].name != nullptr && name == descriptions[i].name &&
            is_broker_error(descriptions[i].code)) {
            return descriptions[i].code;
        }
    }
    throw CommandError("unknown error \"" + name + "\"");
}

class EmbeddedBroker {
public:
    EmbeddedBroker() : m_client(create_client()), m_cluster(rd_kafka_mock_cluster_new(m_client.get(), 1)) {
        if (m_cluster == nullptr) {
            throw std::runtime_error("cannot start the broker");
        }
        m_address = rd_kafka_mock_cluster_bootstraps(m_cluster.get());
    }

    const std::string& address() const { return m_address; }

    void create_topic(const std::string& name, int partitions) {
        check(rd_kafka_mock_topic_create(m_cluster.get(), name.c_str(), partitions, 1));
    }

    /// The library keeps the port bound meanwhile, so that no other process can be given it.
    void down() { check(rd_kafka_mock_broker_set_down(m_cluster.get(), BROKER_ID)); }
    void up() { check(rd_kafka_mock_broker_set_up(m_cluster.get(), BROKER_ID)); }

    void set_latency(int latency_ms) {
        check(rd_kafka_mock_broker_set_rtt(m_cluster.get(), BROKER_ID, latency_ms));
    }

    void push_errors(int16_t request, rd_kafka_resp_err_t error, int count) {
        const std::vector<rd_kafka_resp_err_t> errors(static_cast<std::size_t>(count), error);
        rd_kafka_mock_push_request_errors_array(m_cluster.get(), request, errors.size(), errors.data());
    }

    void clear_errors(int16_t request) { rd_kafka_mock_clear_request_errors(m_cluster.get(), request); }

    void set_topic_error(const std::string& name, rd_kafka_resp_err_t error) {
        // The library would create a missing topic with its own number of partitions.
        const rd_kafka_resp_err_t created = rd_kafka_mock_topic_create(m_cluster.get(), name.c_str(), 1, 1);
        if (created != RD_KAFKA_RESP_ERR_TOPIC_ALREADY_EXISTS) {
            check(created);
        }
        rd_kafka_mock_topic_set_error(m_cluster.get(), name.c_str(), error);
    }

private:
    struct Deleter {
        void operator()(rd_kafka_t* client) const { rd_kafka_destroy(client); }
        void operator()(rd_kafka_mock_cluster_t* cluster) const { rd_kafka_mock_cluster_destroy(cluster); }
    };

    static rd_kafka_t* create_client() {
        std::array<char, 512> reason{};
        rd_kafka_conf_t* const conf = rd_kafka_conf_new();
        rd_kafka_t* client = nullptr;
        if (rd_kafka_conf_set(conf, "log_level", LIBRARY_LOG_LEVEL, reason.data(), reason.size()) ==
            RD_KAFKA_CONF_OK) {
            client = rd_kafka_new(RD_KAFKA_PRODUCER, conf, reason.data(), reason.size());
        }
        if (client == nullptr) {
            rd_kafka_conf_destroy(conf); // a successful call would own it
            throw std::runtime_error(std::string("cannot start the broker: ") + reason.data());
        }
        return client;
    }

    // Never talks to anyone; the cluster needs it for its books.
    std::unique_ptr<rd_kafka_t, Deleter> m_client;
    std::unique_ptr<rd_kafka_mock_cluster_t, Deleter> m_cluster;
    std::string m_address;
};

// Carries out one line of standard input.
class Commander {
public:
    explicit Commander(EmbeddedBroker& broker) : m_broker(broker) {}

    /// Writes the answer. False if the command asks for the end.
    bool execute(const std::string& line) {
        std::vector<std::string> words;
        std::istringstream stream(line);
        for (std::string word; stream >> word;) {
            words.push_back(word);
        }
        if (words.empty()) {
            return true;
        }
        try {
            run(words);
            std::cout << "ok" << std::endl;
        } catch (const std::exception& error) {
            std::cout << "error " << error.what() << std::endl;
        }
        return words != std::vector<std::string>{"quit"};
    }

private:
    struct Command {
        std::string_view name;
        std::size_t min_arguments;
        std::size_t max_arguments;
        std::function<void(const std::vector<std::string>& words)> action;
    };

    static std::string word_or(const std::vector<std::string>& words, std::size_t index,
                               const std::string& other) {
        return index < words.size() ? words[index] : other;
    }

    void run(const std::vector<std::string>& words) {
        for (const Command& command : m_commands) {
            if (command.name == words[0]) {
                const std::size_t arguments = words.size() - 1;
                if (arguments < command.min_arguments || arguments > command.max_arguments) {
                    throw CommandError("wrong number of arguments for \"" + words[0] + "\", see \"help\"");
                }
                command.action(words);
                return;
            }
        }
        throw CommandError("unknown command \"" + words[0] + "\", see \"help\"");
    }

    EmbeddedBroker& m_broker; // borrowed
    const std::vector<Command> m_commands = {
        {"topic", 1, 2,
         [this](const auto& words) {
             m_broker.create_topic(check_topic(words[1]),
                                   parse_number(word_or(words, 2, "1"), 1, MAX_PARTITIONS));
         }},
        {"down", 0, 0, [this](const auto&) { m_broker.down(); }},
        {"up", 0, 0, [this](const auto&) { m_broker.up(); }},
        {"latency", 1, 1,
         [this](const auto& words) { m_broker.set_latency(parse_number(words[1], 0, MAX_LATENCY_MS)); }},
        {"error", 2, 3,
         [this](const auto& words) {
             const int16_t request = parse_request_kind(words[1]);
             const rd_kafka_resp_err_t error = parse_error(words[2]);
             m_broker.push_errors(request, error, parse_number(word_or(words, 3, "1"), 1, MAX_ERRORS));
         }},
        {"clear-errors", 1, 1,
         [this](const auto& words) { m_broker.clear_errors(parse_request_kind(words[1])); }},
        {"topic-error", 2, 2,
         [this](const auto& words) {
             m_broker.set_topic_error(check_topic(words[1]), parse_error(words[2]));
         }},
        {"help", 0, 0, [](const auto&) { std::cout << COMMANDS; }},
        {"quit", 0, 0, [](const auto&) {}},
    };
};

// Standard input by lines, and the signals that end the process.
class Input {
public:
    /// Blocks the signals, so it must be built before any other thread exists.
    Input() {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTERM);
        sigaddset(&signals, SIGINT);
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        m_signals = signalfd(-1, &signals, SFD_CLOEXEC);
        if (m_signals < 0) {
            throw std::system_error(errno, std::generic_category(), "cannot wait for signals");
        }
    }
    ~Input() { close(m_signals); }
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;

    /// The next line, the last one even if its line feed is missing. Empty at the end of the input or after a
    /// signal.
    std::optional<std::string> next_line() {
        std::size_t end;
        while ((end = m_text.find('\n')) == std::string::npos && !m_ended) {
            if (!read_more()) {
                return std::nullopt;
            }
        }
        if (m_text.empty()) {
            return std::nullopt;
        }
        std::string line = m_text.substr(0, end);
        m_text.erase(0, end == std::string::npos ? end : end + 1);
        return line;
    }

private:
    // False after a signal.
    bool read_more() {
        std::array<pollfd, 2> sources{pollfd{m_signals, POLLIN, 0}, pollfd{STDIN_FILENO, POLLIN, 0}};
        if (poll(sources.data(), sources.size(), -1) < 0) {
            throw std::system_error(errno, std::generic_category(), "cannot wait for commands");
        }
        if (sources[0].revents != 0) {
            return false;
        }
        std::array<char, 4096> bytes;
        const ssize_t size = read(STDIN_FILENO, bytes.data(), bytes.size());
        if (size < 0) {
            throw std::system_error(errno, std::generic_category(), "cannot read commands");
        }
        m_text.append(bytes.data(), static_cast<std::size_t>(size));
        m_ended = size == 0;
        return true;
    }

    int m_signals = -1; // owned
    std::string m_text;
    bool m_ended = false;
};

} // namespace

int main(int argc, char** argv) {
    std::vector<std::string> topics;
    CommandLine command_line(
        "Runs a Kafka broker for tests and demonstrations on 127.0.0.1, on a port of the kernel's choice.\n"
        "It keeps everything in memory. Its first line is \"broker 127.0.0.1:PORT\".\n",
        NAME);
    command_line
        .add_option("--topic", topics,
                    "Topic to create with one partition, before the first line; may be repeated")
        .type_name("NAME")
        .one_word_each();
    command_line.footer(
        "Commands are read from standard input, one per line. Each is answered by \"ok\" or \"error "
        "TEXT\":\n" +
        std::string(COMMANDS) +
        "\nREQUEST is a name of the protocol, such as Produce, Fetch or Metadata. ERROR is a name such as\n"
        "UNKNOWN_TOPIC_OR_PART; _TRANSPORT ends the connection. A topic that is used and does not exist\n"
        "appears by itself, with four partitions.\n\n"
        "Ends at the end of the input, and by SIGTERM and SIGINT.\n\n" +
        exit_status_help("the broker cannot be started, or the commands cannot be read"));
    command_line.add_version_flag();
    if (const auto status = command_line.parse(argc, argv)) {
        return *status;
    }

    try {
        Input input;
        EmbeddedBroker broker;
        for (const std::string& topic : topics) {
            broker.create_topic(check_topic(topic), 1);
        }
        std::cout << "broker " << broker.address() << std::endl;
        Commander commander(broker);
        while (const auto line = input.next_line()) {
            if (!commander.execute(*line)) {
                break;
            }
        }
    } catch (const std::exception& error) {
        std::cerr << NAME << ": " << error.what() << "\n";
        return EXIT_FAILED;
    }
    return EXIT_OK;
}
