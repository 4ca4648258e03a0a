// The embedded broker as its users run it: a process that is told what to do on standard input and that Kafka
// clients talk to.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <librdkafka/rdkafka.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/tool_process.h"

namespace corvalin::test {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

constexpr int CLIENT_LIMIT_MS = 30000;
constexpr const char* PREFIX = "broker 127.0.0.1:";

class Socket {
public:
    Socket() : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
    ~Socket() { close(m_fd); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    /// These give 0 or the number of the error.
    int connect_to(uint16_t port) const { return call(::connect, port); }
    int bind_to(uint16_t port) const { return call(::bind, port); }
    /// True if the other side ends the connection; it sends nothing by itself.
    bool is_ended_by_peer() const {
        const timeval limit{30, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        char byte;
        const ssize_t size = recv(m_fd, &byte, 1, 0);
        return size == 0 || (size < 0 && errno == ECONNRESET);
    }

private:
    int call(int (*function)(int, const sockaddr*, socklen_t), uint16_t port) const {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port);
        return function(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ? 0 : errno;
    }

    int m_fd;
};

// A Kafka client that asks for one thing at a time.
class Client {
public:
    explicit Client(const std::string& broker) {
        std::array<char, 512> reason{};
        rd_kafka_conf_t* const conf = rd_kafka_conf_new();
        rd_kafka_conf_set(conf, "bootstrap.servers", broker.c_str(), nullptr, 0);
        rd_kafka_conf_set(conf, "log_level", "0", nullptr, 0);
        rd_kafka_conf_set_dr_msg_cb(conf, [](rd_kafka_t*, const rd_kafka_message_t* message, void* opaque) {
            static_cast<Client*>(opaque)->m_delivery = message->err;
        });
        rd_kafka_conf_set_opaque(conf, this);
        m_handle.reset(rd_kafka_new(RD_KAFKA_PRODUCER, conf, reason.data(), reason.size()));
        if (m_handle == nullptr) {
            throw std::runtime_error(reason.data());
        }
    }

    struct Topic {
        rd_kafka_resp_err_t error;
        int partitions;
        bool operator==(const Topic&) const = default;
    };

    /// What the broker tells of a topic.
    Topic query(const std::string& name) {
        const auto topic = topic_object(name);
        const rd_kafka_metadata_t* metadata = nullptr;
        const rd_kafka_resp_err_t error =
            rd_kafka_metadata(m_handle.get(), 0, topic.get(), &metadata, CLIENT_LIMIT_MS);
        if (error != RD_KAFKA_RESP_ERR_NO_ERROR) {
            throw std::runtime_error(rd_kafka_err2str(error));
        }
        const Topic found{metadata->topics[0].err, metadata->topics[0].partition_cnt};
        rd_kafka_metadata_destroy(metadata);
        return found;
    }

    /// Sends a message and gives the broker's answer to it.
    rd_kafka_resp_err_t send(const std::string& name) {
        m_delivery = RD_KAFKA_RESP_ERR__TIMED_OUT;
        char text[] = "text";
        if (rd_kafka_produce(topic_object(name).get(), RD_KAFKA_PARTITION_UA, RD_KAFKA_MSG_F_COPY, text,
                             sizeof(text), nullptr, 0, nullptr) != 0) {
            return rd_kafka_last_error();
        }
        rd_kafka_flush(m_handle.get(), CLIENT_LIMIT_MS);
        return m_delivery;
    }

    /// Number of messages in the only partition.
    int64_t message_count(const std::string& topic) {
        int64_t low = -1;
        int64_t high = -1;
        const rd_kafka_resp_err_t error =
            rd_kafka_query_watermark_offsets(m_handle.get(), topic.c_str(), 0, &low, &high, CLIENT_LIMIT_MS);
        if (error != RD_KAFKA_RESP_ERR_NO_ERROR) {
            throw std::runtime_error(rd_kafka_err2str(error));
        }
        return high - low;
    }

private:
    struct Deleter {
        void operator()(rd_kafka_t* handle) const { rd_kafka_destroy(handle); }
        void operator()(rd_kafka_topic_t* topic) const { rd_kafka_topic_destroy(topic); }
    };

    std::unique_ptr<rd_kafka_topic_t, Deleter> topic_object(const std::string& name) {
        return std::unique_ptr<rd_kafka_topic_t, Deleter>(
            rd_kafka_topic_new(m_handle.get(), name.c_str(), nullptr));
    }

    std::unique_ptr<rd_kafka_t, Deleter> m_handle;
    rd_kafka_resp_err_t m_delivery = RD_KAFKA_RESP_ERR_NO_ERROR;
};

class EmbeddedBrokerTest : public testing::Test {
protected:
    void start(const std::vector<std::string>& arguments = {}) {
        std::vector<std::string> words = {CORVALIN_EMBEDDED_BROKER_PATH};
        words.insert(words.end(), arguments.begin(), arguments.end());
        m_process = std::make_unique<ToolProcess>(words, ToolProcess::Input::LINES);
        const std::string line = m_process->read_line();
        ASSERT_THAT(line, MatchesRegex("broker 127.0.0.1:[0-9]+")) << m_process->err();
        m_port = static_cast<uint16_t>(std::stoi(line.substr(std::string(PREFIX).size())));
    }

    std::string address() const { return "127.0.0.1:" + std::to_string(m_port); }

    std::string command(const std::string& line) {
        m_process->write_line(line);
        return m_process->read_line();
    }

    std::unique_ptr<ToolProcess> m_process;
    uint16_t m_port = 0;
};

TEST_F(EmbeddedBrokerTest, creates_topics_with_one_partition_unless_told_otherwise) {
    start({"--topic", "early", "--topic", "early_too"});
    EXPECT_EQ(command("topic one"), "ok");
    EXPECT_EQ(command("topic three 3"), "ok");
    Client client(address());
    EXPECT_EQ(client.query("early"), (Client::Topic{RD_KAFKA_RESP_ERR_NO_ERROR, 1}));
    EXPECT_EQ(client.query("early_too"), (Client::Topic{RD_KAFKA_RESP_ERR_NO_ERROR, 1}));
    EXPECT_EQ(client.query("one"), (Client::Topic{RD_KAFKA_RESP_ERR_NO_ERROR, 1}));
    EXPECT_EQ(client.query("three"), (Client::Topic{RD_KAFKA_RESP_ERR_NO_ERROR, 3}));
}

TEST_F(EmbeddedBrokerTest, answers_a_command_that_it_cannot_carry_out_with_the_reason) {
    start();
    ASSERT_EQ(command("topic twice"), "ok");
    const struct {
        const char* description;
        const char* command;
        const char* answer;
    } cases[] = {
        {"topic that exists", "topic twice", "error Broker: Topic already exists"},
        {"name that no broker takes", "topic a/b", "error \"a/b\" is not a name for a topic"},
        {"name of the current directory", "topic .", "error \".\" is not a name for a topic"},
        {"no partition", "topic a 0", "error \"0\" is not a number from 1 to 1000"},
        {"too many partitions", "topic a 1001", "error \"1001\" is not a number from 1 to 1000"},
        {"text behind the number", "latency 1ms", "error \"1ms\" is not a number from 0 to 3600000"},
        {"negative latency", "latency -1", "error \"-1\" is not a number from 0 to 3600000"},
        {"request that does not exist", "error Nothing UNKNOWN", "error unknown request \"Nothing\""},
        {"error that does not exist", "error Fetch NOTHING", "error unknown error \"NOTHING\""},
        {"error that no broker answers with", "error Fetch _TIMED_OUT", "error unknown error \"_TIMED_OUT\""},
        {"no errors", "error Fetch UNKNOWN 0", "error \"0\" is not a number from 1 to 10000"},
        {"topic error for no name", "topic-error a/b UNKNOWN", "error \"a/b\" is not a name for a topic"},
        {"argument missing", "topic", "error wrong number of arguments for \"topic\", see \"help\""},
        {"argument too many", "down now", "error wrong number of arguments for \"down\", see \"help\""},
        {"no command", "sideways", "error unknown command \"sideways\", see \"help\""},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(command(row.command), row.answer) << row.description;
    }
    EXPECT_EQ(command("\n  topic \t after 1  "), "ok") << "blanks separate, and an empty line is no command";
}

TEST_F(EmbeddedBrokerTest, refuses_connections_while_it_is_down_and_keeps_its_port_and_messages) {
    start({"--topic", "kept"});
    ASSERT_EQ(Client(address()).send("kept"), RD_KAFKA_RESP_ERR_NO_ERROR);
    const Socket connected;
    ASSERT_EQ(connected.connect_to(m_port), 0);

    EXPECT_EQ(command("down"), "ok");
    EXPECT_TRUE(connected.is_ended_by_peer());
    EXPECT_EQ(Socket().connect_to(m_port), ECONNREFUSED);

    EXPECT_EQ(command("up"), "ok");
    Client client(address());
    EXPECT_EQ(client.message_count("kept"), 1);
    EXPECT_EQ(client.send("kept"), RD_KAFKA_RESP_ERR_NO_ERROR);
    EXPECT_EQ(client.message_count("kept"), 2);
}

TEST_F(EmbeddedBrokerTest, leaves_its_port_to_nobody_while_it_is_down) {
    start();
    // No connection before: what is left of one would keep the port as well.
    ASSERT_EQ(command("down"), "ok");
    EXPECT_EQ(Socket().bind_to(m_port), EADDRINUSE);
}

TEST_F(EmbeddedBrokerTest, takes_down_and_up_as_often_as_they_come) {
    start({"--topic", "kept"});
    for (const char* const line : {"up", "down", "down", "up", "up", "down", "up"}) {
        EXPECT_EQ(command(line), "ok") << line;
    }
    EXPECT_EQ(Client(address()).send("kept"), RD_KAFKA_RESP_ERR_NO_ERROR);
}

TEST_F(EmbeddedBrokerTest, a_client_that_saw_it_go_finds_it_again) {
    start({"--topic", "kept"});
    Client client(address());
    ASSERT_EQ(client.send("kept"), RD_KAFKA_RESP_ERR_NO_ERROR);
    ASSERT_EQ(command("down"), "ok");
    ASSERT_EQ(command("up"), "ok");
    EXPECT_EQ(client.send("kept"), RD_KAFKA_RESP_ERR_NO_ERROR);
}

TEST_F(EmbeddedBrokerTest, delays_its_responses_by_the_latency) {
    start({"--topic", "slow"});
    Client client(address());
    client.query("slow"); // connects
    EXPECT_EQ(command("latency 400"), "ok");
    const auto before = std::chrono::steady_clock::now();
    client.query("slow");
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(400));
}

TEST_F(EmbeddedBrokerTest, fails_as_many_requests_as_it_was_told) {
    start({"--topic", "failing"});
    Client client(address());
    ASSERT_EQ(client.send("failing"), RD_KAFKA_RESP_ERR_NO_ERROR);
    EXPECT_EQ(command("error Produce MSG_SIZE_TOO_LARGE 2"), "ok");
    EXPECT_EQ(command("error Produce INVALID_MSG"), "ok");
    EXPECT_EQ(client.send("failing"), RD_KAFKA_RESP_ERR_MSG_SIZE_TOO_LARGE);
    EXPECT_EQ(client.send("failing"), RD_KAFKA_RESP_ERR_MSG_SIZE_TOO_LARGE);
    EXPECT_EQ(client.send("failing"), RD_KAFKA_RESP_ERR_INVALID_MSG);
    EXPECT_EQ(client.send("failing"), RD_KAFKA_RESP_ERR_NO_ERROR);
    EXPECT_EQ(client.message_count("failing"), 2);
}

TEST_F(EmbeddedBrokerTest, forgets_errors_that_were_not_used_up) {
    start({"--topic", "failing"});
    Client client(address());
    EXPECT_EQ(command("error Produce MSG_SIZE_TOO_LARGE 100"), "ok");
    EXPECT_EQ(client.send("failing"), RD_KAFKA_RESP_ERR_MSG_SIZE_TOO_LARGE);
    EXPECT_EQ(command("clear-errors Produce"), "ok");
    EXPECT_EQ(client.send("failing"), RD_KAFKA_RESP_ERR_NO_ERROR);
}

TEST_F(EmbeddedBrokerTest, fails_queries_of_a_topic_until_it_is_told_otherwise) {
    start({"--topic", "other"});
    EXPECT_EQ(command("topic-error missing UNKNOWN_TOPIC_OR_PART"), "ok");
    Client client(address());
    EXPECT_EQ(client.query("missing").error, RD_KAFKA_RESP_ERR_UNKNOWN_TOPIC_OR_PART);
    EXPECT_EQ(client.query("missing").error, RD_KAFKA_RESP_ERR_UNKNOWN_TOPIC_OR_PART);
    EXPECT_EQ(client.query("other"), (Client::Topic{RD_KAFKA_RESP_ERR_NO_ERROR, 1}));
    EXPECT_EQ(command("topic-error missing NO_ERROR"), "ok");
    EXPECT_EQ(client.query("missing"), (Client::Topic{RD_KAFKA_RESP_ERR_NO_ERROR, 1}));
}

TEST_F(EmbeddedBrokerTest, tells_its_commands) {
    start();
    m_process->write_line("help");
    std::string names;
    for (std::string line = m_process->read_line(); !line.empty() && line != "ok";
         line = m_process->read_line()) {
        names += line.substr(0, line.find(' ')) + " ";
    }
    EXPECT_EQ(names, "topic down up latency error clear-errors topic-error help quit ");
}

TEST_F(EmbeddedBrokerTest, ends_at_the_end_of_its_input_after_a_last_line_without_a_line_feed) {
    start();
    m_process->write("topic last");
    m_process->close_input();
    EXPECT_EQ(m_process->wait(), 0) << m_process->err();
    EXPECT_EQ(m_process->out(), "ok\n");
    EXPECT_EQ(m_process->err(), "");
    EXPECT_EQ(Socket().connect_to(m_port), ECONNREFUSED);
}

TEST_F(EmbeddedBrokerTest, ends_by_quit_and_carries_out_nothing_behind_it) {
    start();
    m_process->write("quit\ntopic late\n");
    EXPECT_EQ(m_process->wait(), 0) << m_process->err();
    EXPECT_EQ(m_process->out(), "ok\n");
}

TEST_F(EmbeddedBrokerTest, ends_by_signals_up_or_down) {
    for (const int number : {SIGTERM, SIGINT}) {
        for (const char* const line : {"up", "down"}) {
            start();
            ASSERT_EQ(command(line), "ok");
            m_process->send_signal(number);
            EXPECT_EQ(m_process->wait(), 0) << "signal " << number << ", " << line;
        }
    }
}

TEST_F(EmbeddedBrokerTest, ends_with_the_statuses_of_all_tools) {
    const struct {
        const char* description;
        std::vector<std::string> arguments;
        int status;
        const char* out;
        const char* err;
    } cases[] = {
        {"help", {"--help"}, 0, "topic NAME [PARTITIONS]", ""},
        {"version", {"--version"}, 0, "corvalin_embedded_broker ", ""},
        {"unknown option", {"--port", "1"}, 2, "", "Try 'corvalin_embedded_broker --help' for more."},
        {"topic with a bad name", {"--topic", "a b"}, 1, "", "\"a b\" is not a name for a topic"},
    };
    for (const auto& row : cases) {
        std::vector<std::string> words = {CORVALIN_EMBEDDED_BROKER_PATH};
        words.insert(words.end(), row.arguments.begin(), row.arguments.end());
        ToolProcess process(words);
        EXPECT_EQ(process.wait(), row.status) << row.description;
        EXPECT_THAT(process.out(), HasSubstr(row.out)) << row.description;
        EXPECT_THAT(process.err(), HasSubstr(row.err)) << row.description;
    }
}

} // namespace
} // namespace corvalin::test
