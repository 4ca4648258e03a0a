// The life of the process from outside: its log from the first line to the last, signals, exit statuses.
#include "tests/support/system/router_fixture.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <librdkafka/rdkafkacpp.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <list>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace corvalin::test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::MatchesRegex;

namespace fs = std::filesystem;

std::string in_brackets(pid_t thread) {
    return "[" + std::to_string(thread) + "]";
}

// Takes the lines of the three threads out, which may stand anywhere behind the start of their thread.
std::vector<std::string> take_thread_lines(std::vector<std::string>& log) {
    std::vector<std::string> taken;
    for (auto line = log.begin(); line != log.end();) {
        const bool is_thread_start = line->find("_SERVICE: thread [") != std::string::npos ||
                                     line->find("PACKETS_READER: thread [") != std::string::npos ||
                                     line->find("messages listening thread [") != std::string::npos;
        if (is_thread_start && line->find("] started") != std::string::npos) {
            taken.push_back(*line);
            line = log.erase(line);
        } else {
            ++line;
        }
    }
    std::sort(taken.begin(), taken.end());
    return taken;
}

// The lines of the Kafka configuration.
std::vector<std::string> kafka_lines(const std::string& broker, const std::string& name) {
    std::array<char, 16> number{};
    std::snprintf(number.data(), number.size(), "(0x%08x)", static_cast<unsigned int>(RdKafka::version()));
    std::vector<std::string> lines = {"SYSTEM  | SERVICE: kafka running version: " + RdKafka::version_str() +
                                      " " + number.data()};
    if (RdKafka::version_str() != "1.5.2") {
        lines.push_back("WARNING | SERVICE: kafka running version differs to expected 1.5.2");
    }
    lines.insert(lines.end(),
                 {"SYSTEM  | CONFIGURATION: reading from file [/etc/tolvaine/corvalin/kafka.conf]",
                  "SYSTEM  | CONFIGURATION: option [kafka_broker] is set to [" + broker + "]",
                  "SYSTEM  | CONFIGURATION: option [kafka_topic_broadcast] is set to [broadcast]",
                  "SYSTEM  | CONFIGURATION: option [kafka_topic_request] is set to [request]",
                  "SYSTEM  | SERVICE: kafka topic is set to [" + name + "]",
                  "SYSTEM  | SERVICE: kafka group is set to [" + name + "]"});
    return lines;
}

// The lines of a start on a broker whose topics are empty: first assignment, and the requests for both lists.
std::vector<std::string> subscription_lines(const std::string& name) {
    const auto request = [&name](const std::string& configuration) {
        return R"(SYSTEM  | EVENT_DISPATCHER: dispatch to [request]: {"type":"configuration_request", )"
               R"("configuration":")" +
               configuration + R"(", "config_topic":")" + name + R"("})";
    };
    return {
        "SYSTEM  | MESSAGE_BROKER: rebalance \"Local: Assign partitions\": [broadcast/0], [" + name + "/0]",
        "SYSTEM  | MESSAGE_BROKER: sync offset for [broadcast/0] from (-1001) to (0)",
        "SYSTEM  | MESSAGE_BROKER: sync offset for [" + name + "/0] from (-1001) to (0)",
        "SYSTEM  | MESSAGE_BROKER: subscribed for [broadcast], [" + name + "] topic(s)",
        request("corvalin_media_nodes"),
        "INFO    | MESSAGE_BROKER: message delivered to request[0] at offset (0)",
        request("corvalin_writer_nodes"),
        "INFO    | MESSAGE_BROKER: message delivered to request[0] at offset (1)",
    };
}

class LifecycleTest : public RouterTest {
protected:
    static std::vector<std::string> stop_lines(int signal) {
        return {"SYSTEM  | SERVICE: signal " + std::to_string(signal) + " has been received",
                "SYSTEM  | SERVICE: application stop has been requested"};
    }
};

TEST_F(LifecycleTest, the_lines_of_a_start_and_a_stop_stand_in_their_order) {
    start("media_node=127.0.0.1:9\n", {"--pid-file", "x/../router.pid", "--args", "discard_writer_node"});
    const std::string main_thread = in_brackets(router().pid());
    const int receive_descriptor = router().receive_socket().descriptor;
    const std::vector<pid_t> threads = threads_of(router().pid());
    EXPECT_EQ(router().stop(), exited(0));

    std::vector<std::string> log = router().log();
    const std::vector<std::string> thread_lines = take_thread_lines(log);
    ASSERT_EQ(thread_lines.size(), 3u);
    EXPECT_THAT(thread_lines[0],
                MatchesRegex("SYSTEM  \\| MESSAGE_BROKER: messages listening thread \\[[0-9]+\\] started"));
    EXPECT_THAT(thread_lines[1], MatchesRegex("SYSTEM  \\| PACKETS_READER: thread \\[[0-9]+\\] started"));
    EXPECT_THAT(thread_lines[2], MatchesRegex("SYSTEM  \\| STATISTIC_SERVICE: thread \\[[0-9]+\\] started"));
    std::set<pid_t> announced = {router().pid()};
    for (const std::string& line : thread_lines) {
        announced.insert(static_cast<pid_t>(std::stol(line.substr(line.find('[') + 1))));
    }
    EXPECT_EQ(announced.size(), 4u);
    for (const pid_t thread : announced) {
        EXPECT_THAT(threads, Contains(thread));
    }

    std::vector<std::string> expected = {
        "SYSTEM  | SERVICE: exec path: " + router_executable(),
        "SYSTEM  | SERVICE:  pid file: " + (m_place.folder() / "router.pid").string(),
        "", // the build version, below
        "SYSTEM  | SERVICE: [corvalinrouter] main thread " + main_thread + " started",
        "SYSTEM  | CONFIGURATION: reading from file [/etc/tolvaine/corvalin/router.conf]",
        "SYSTEM  | CONFIGURATION: option [media_node] is set to [127.0.0.1:9]",
        "SYSTEM  | CONFIGURATION: reading from args: discard_writer_node",
        "SYSTEM  | CONFIGURATION: flag [discard_writer_node] applied",
        "", // the version of the library that it was built against, below
    };
    const std::string name = "corvalin_router_127o0o0o1_0";
    for (const auto& part :
         {kafka_lines(router().broker(), name), subscription_lines(name), stop_lines(SIGTERM)}) {
        expected.insert(expected.end(), part.begin(), part.end());
    }
    expected.insert(
        expected.end(),
        {"INFO    | SOCKET[" + std::to_string(receive_descriptor) + "]: system interrupted call",
         "SYSTEM  | PACKETS_READER: thread " + main_thread + " stopped",
         "SYSTEM  | MESSAGE_BROKER: rebalance \"Local: Revoke partitions\": [broadcast/0], [" + name + "/0]",
         // From here on it is one line of the thread itself.
         "SYSTEM  | MESSAGE_BROKER: " +
             thread_lines[0].substr(thread_lines[0].find("messages"),
                                    thread_lines[0].rfind(' ') - thread_lines[0].find("messages")) +
             " stopped",
         "SYSTEM  | STATISTIC_SERVICE: thread " + main_thread + " stopped",
         "SYSTEM  | SERVICE: [corvalinrouter] main thread " + main_thread + " stopped"});
    ASSERT_EQ(log.size(), expected.size());
    EXPECT_THAT(log[2],
                MatchesRegex("SYSTEM  \\| build version: \"[0-9]{6}:[0-9]{6} [0-9a-f]{16}@[^ \"]+\""));
    EXPECT_THAT(log[8], MatchesRegex("SYSTEM  \\| SERVICE: kafka build version:   [0-9a-f]{16}@[^ ]+"));
    expected[2] = log[2];
    expected[8] = log[8];
    EXPECT_EQ(log, expected);

    // In the foreground nothing but the reports goes to syslog, nothing to standard output, and no pid file is
    // written.
    EXPECT_EQ(syslog().records().size(), reports(syslog(), 0).size());
    EXPECT_EQ(router().output(), std::vector<std::string>{});
    EXPECT_FALSE(fs::exists(m_place.folder() / "router.pid"));
}

TEST_F(LifecycleTest, each_stop_signal_ends_a_waiting_router_with_status_0) {
    const std::array<int, 3> signals = {SIGINT, SIGQUIT, SIGTERM};
    std::list<RouterPlace> places;
    std::list<RouterProcess> routers; // side by side, as a stop waits for the sleep of the statistics
    for ([[maybe_unused]] const int number : signals) {
        routers.emplace_back(places.emplace_back());
    }
    auto stopped = routers.begin();
    for (const int number : signals) {
        ASSERT_TRUE(stopped->wait_until_receiving());
        stopped->signal(number); // no datagram has to come for it to be seen
        ++stopped;
    }
    auto awaited = routers.begin();
    for (const int number : signals) {
        EXPECT_EQ(awaited->wait_for_exit(), exited(0)) << "signal " << number;
        for (const std::string& line : stop_lines(number)) {
            EXPECT_EQ(awaited->log_count(line), 1u) << line;
        }
        ++awaited;
    }
}

TEST_F(LifecycleTest, a_second_stop_signal_is_logged_again_and_changes_nothing) {
    start("");
    ASSERT_TRUE(router().wait_until_receiving());
    router().signal(SIGTERM);
    router().wait_for_log("SYSTEM  | PACKETS_READER: thread " + in_brackets(router().pid()) + " stopped");
    router().signal(SIGINT); // into the wait for the statistics
    EXPECT_EQ(router().wait_for_exit(), exited(0));
    EXPECT_EQ(router().log_count("SYSTEM  | SERVICE: application stop has been requested"), 2u);
    EXPECT_EQ(router().log_count("SYSTEM  | SERVICE: signal 2 has been received"), 1u);
    EXPECT_EQ(router().log().back(),
              "SYSTEM  | SERVICE: [corvalinrouter] main thread " + in_brackets(router().pid()) + " stopped");
}

TEST_F(LifecycleTest, the_other_signals_are_logged_interrupt_the_read_and_change_nothing) {
    start_with_nodes(2, 0);
    const std::string interrupted = "INFO    | SOCKET[" +
                                    std::to_string(router().receive_socket().descriptor) +
                                    "]: system interrupted call";
    write_file(m_place.router_conf(), "writer_node=127.0.0.1:9\nlog_level=TRACE\n"); // nobody reads it again
    const struct {
        int number;
        const char* line;
    } signals[] = {
        {SIGHUP, "SYSTEM  | SERVICE: update has been requested"},
        {SIGUSR1, "SYSTEM  | SERVICE: user action #1 has been requested"},
        {SIGUSR2, "SYSTEM  | SERVICE: user action #2 has been requested"},
    };
    std::vector<std::string> expected = router().log();
    std::size_t sessions = 0;
    for (const auto& row : signals) {
        ASSERT_TRUE(router().wait_until_receiving());
        router().signal(row.number);
        expected.insert(expected.end(),
                        {"SYSTEM  | SERVICE: signal " + std::to_string(row.number) + " has been received",
                         row.line, interrupted});
        ASSERT_TRUE(router().wait_for_log(interrupted, sessions + 1));
        send_start(sessions, TO_WRITER);
        EXPECT_TRUE(writer(sessions % 2).receive().has_value()) << "signal " << row.number;
        expected.push_back("SYSTEM  | ROUTING_MANAGER: " + std::string(DEFAULT_UUID_TEXT) +
                           ": assigned hosts: " + writer(sessions % 2).address());
        ++sessions;
    }
    EXPECT_EQ(router().log(), expected);
}

TEST_F(LifecycleTest, a_signal_of_a_broken_pipe_is_ignored_without_a_line) {
    start_with_nodes(1, 0);
    const auto before = router().log();
    router().signal(SIGPIPE);
    send_start(1, TO_WRITER);
    EXPECT_TRUE(writer().receive().has_value());
    EXPECT_EQ(router().log().size(), before.size() + 1) << "more than the assignment";
    const std::string ignored = status_field(router().pid(), "SigIgn");
    EXPECT_NE(std::stoull(ignored, nullptr, 16) & (1ull << (SIGPIPE - 1)), 0u) << ignored;
}

TEST_F(LifecycleTest, a_signal_before_the_subscription_takes_its_default_action) {
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGUSR2, SIGTERM}) {
        RouterProcess::Options options;
        options.blocked_log = true; // it stands at its first line, which comes before the subscription
        RouterProcess blocked(m_place, {}, options);
        ASSERT_TRUE(wait_until([&] {
            const auto call = blocking_call(blocked.pid(), blocked.pid());
            return call && call->number == SYS_write && call->descriptor == 2;
        }));
        blocked.signal(number);
        blocked.unblock_log();
        EXPECT_EQ(blocked.wait_for_exit(), killed_by(number));
    }
}

// A router whose configuration is a pipe: the start stands in it until the test has written its end.
class StandingStart {
public:
    explicit StandingStart(RouterPlace& place)
        : m_path((place.folder() / "router_conf_pipe").string()), m_pipe(make_pipe()),
          m_router(place, {"--config", m_path}) {
        m_router.wait_for_log("SYSTEM  | CONFIGURATION: reading from file [" + m_path + "]");
        EXPECT_TRUE(wait_until([this] {
            const auto call = blocking_call(m_router.pid(), m_router.pid());
            return call && call->number == SYS_read;
        }));
    }
    ~StandingStart() {
        if (m_pipe >= 0) {
            close(m_pipe);
        }
    }
    StandingStart(const StandingStart&) = delete;
    StandingStart& operator=(const StandingStart&) = delete;

    RouterProcess& router() { return m_router; }
    void go_on(const std::string& configuration) {
        EXPECT_EQ(write(m_pipe, configuration.data(), configuration.size()),
                  static_cast<ssize_t>(configuration.size()));
        close(m_pipe);
        m_pipe = -1;
    }

private:
    // For reading too, so that neither side waits for the other, and not for the router to inherit.
    int make_pipe() const {
        EXPECT_EQ(mkfifo(m_path.c_str(), 0600), 0);
        return open(m_path.c_str(), O_RDWR | O_CLOEXEC);
    }

    const std::string m_path;
    int m_pipe;
    RouterProcess m_router;
};

TEST_F(LifecycleTest, a_stop_signal_before_the_loop_is_seen_at_its_first_check_without_a_read) {
    StandingStart start(m_place);
    RouterProcess& process = start.router();
    process.signal(SIGTERM);
    ASSERT_TRUE(process.wait_for_log("SYSTEM  | SERVICE: application stop has been requested"));
    start.go_on("discard_media_node\n");
    EXPECT_EQ(process.wait_for_exit(), exited(0));
    // The start went its whole way, and so did the stop; nothing was interrupted, since nothing was read.
    EXPECT_EQ(process.log_count("SYSTEM  | CONFIGURATION: flag [discard_media_node] applied"), 1u);
    EXPECT_EQ(
        process.log_count("SYSTEM  | PACKETS_READER: thread " + in_brackets(process.pid()) + " stopped"), 1u);
    EXPECT_EQ(
        process.log_count("SYSTEM  | STATISTIC_SERVICE: thread " + in_brackets(process.pid()) + " stopped"),
        1u);
    EXPECT_THAT(process.log(), ::testing::Not(Contains(::testing::HasSubstr("SOCKET["))));
}

// Libraries, and a sanitizer's runtime, have threads that let no signal in.
bool takes_signal(pid_t process, pid_t thread, int number) {
    std::ifstream status("/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("SigBlk:")) {
            return (std::stoull(line.substr(7), nullptr, 16) >> (number - 1) & 1) == 0;
        }
    }
    return false;
}

TEST_F(LifecycleTest, a_stop_signal_on_another_thread_takes_effect_with_the_next_datagram) {
    start("");
    ASSERT_TRUE(router().wait_until_receiving());
    const std::vector<pid_t> threads = threads_of(router().pid());
    const auto other = std::find_if(threads.begin(), threads.end(), [this](pid_t thread) {
        return thread != router().pid() && takes_signal(router().pid(), thread, SIGTERM);
    });
    ASSERT_NE(other, threads.end());
    ASSERT_EQ(syscall(SYS_tgkill, router().pid(), *other, SIGTERM), 0);
    ASSERT_TRUE(router().wait_for_log("SYSTEM  | SERVICE: application stop has been requested"));
    ASSERT_TRUE(router().wait_until_receiving()) << "the read was interrupted";
    send(Bytes(1, 0)); // whatever it is
    EXPECT_EQ(router().wait_for_exit(), exited(0));
    EXPECT_THAT(router().log(), ::testing::Not(Contains(::testing::HasSubstr("SOCKET["))));
}

TEST_F(LifecycleTest, a_stop_under_load_ends_with_status_0) {
    start_with_nodes(1, 1);
    std::atomic<bool> is_done{false};
    std::thread load([&] {
        UdpSender sender(m_sender ? router().port() : 0);
        uint64_t seq = 0;
        while (!is_done.load(std::memory_order_relaxed)) {
            const uint64_t id = ++seq % 1000;
            sender.send(start_packet().id(id).seq(seq).flags(TO_BOTH).bytes());
            sender.send(data_packet().id(id).seq(++seq).payload_units(100).bytes());
        }
    });
    EXPECT_TRUE(writer().receive().has_value());
    router().signal(SIGTERM);
    EXPECT_EQ(router().wait_for_exit(), exited(0));
    is_done.store(true, std::memory_order_relaxed);
    load.join();
    EXPECT_EQ(router().log().back(),
              "SYSTEM  | SERVICE: [corvalinrouter] main thread " + in_brackets(router().pid()) + " stopped");
}

TEST_F(LifecycleTest, a_port_in_use_fails_the_start_with_the_reason) {
    const UdpNode occupant;
    const std::string port = std::to_string(occupant.port());
    // Threads of the service run when the process exits: often enough to show an exit that falls over them. Side by
    // side, as each waits for its broker.
    constexpr int ROUNDS = 20;
    std::list<RouterPlace> places;
    std::list<RouterProcess> routers;
    for (int round = 0; round < ROUNDS; ++round) {
        routers.emplace_back(places.emplace_back(), std::vector<std::string>{"--args", "port=" + port});
    }
    for (RouterProcess& process : routers) {
        EXPECT_EQ(process.wait_for_exit(), exited(1));
        std::vector<std::string> log = process.log();
        const std::vector<std::string> thread_lines = take_thread_lines(log);
        for (const std::string& line : thread_lines) {
            EXPECT_EQ(line.find("PACKETS_READER"), std::string::npos) << line;
        }
        ASSERT_GE(log.size(), 3u);
        EXPECT_THAT(std::vector<std::string>(log.end() - 3, log.end()),
                    ElementsAre("INFO    | MESSAGE_BROKER: message delivered to request[0] at offset (1)",
                                MatchesRegex("ERROR   \\| SOCKET\\[[0-9]+\\]: failed to bind a socket, error "
                                             "\\(98\\): Address already in use"),
                                "SYSTEM  | SERVICE: [corvalinrouter] main thread " +
                                    in_brackets(process.pid()) + " stopped"));
        EXPECT_EQ(process.log_count("SYSTEM  | SERVICE: kafka topic is set to [corvalin_router_127o0o0o1_" +
                                    port + "]"),
                  1u);
    }
    // The banner shows the configured port.
    for (RouterPlace& place : places) {
        EXPECT_EQ(reports(place.syslog(), occupant.port()).size(), place.syslog().records().size());
    }
}

TEST_F(LifecycleTest, the_router_listens_on_its_configured_port_on_all_addresses) {
    if (!in_own_network()) { // where nobody else can take the port meanwhile
        return;
    }
    uint16_t free_port = 0;
    {
        const UdpNode node;
        free_port = node.port();
    }
    UdpNode node;
    write_file(m_place.router_conf(),
               "port=" + std::to_string(free_port) + "\nwriter_node=" + node.address());
    RouterProcess process(m_place);
    ASSERT_TRUE(process.wait_until_receiving());
    EXPECT_EQ(process.port(), free_port);
    UdpSender sender(free_port);
    sender.send(start_packet().id(1).seq(1).flags(TO_WRITER).bytes());
    EXPECT_TRUE(node.receive().has_value());
    EXPECT_EQ(syslog().texts(STATISTIC_NOTICE).size(), reports(syslog(), free_port).size());
}

TEST_F(LifecycleTest, a_router_without_syslog_routes) {
    write_file(m_place.router_conf(), "");
    fs::remove(syslog().path());
    start_with_nodes(1, 0);
    send_start(1, TO_WRITER);
    EXPECT_TRUE(writer().receive().has_value());
    EXPECT_EQ(syslog().records().size(), 0u);
}

TEST_F(LifecycleTest, nothing_is_left_behind) {
    const auto outside = [] {
        std::set<std::string> names;
        for (const char* path : {"/etc/tolvaine", "/var/log/tolvaine", "/dev/log"}) {
            std::error_code ignored;
            if (fs::exists(fs::symlink_status(path, ignored))) {
                names.insert(path);
            }
        }
        return names;
    };
    const auto before = outside();
    fs::path folder;
    pid_t pid = 0;
    {
        RouterPlace place;
        RouterProcess process(place);
        process.wait_until_receiving();
        folder = place.folder();
        pid = process.pid();
        EXPECT_TRUE(is_alive(pid));
    }
    EXPECT_FALSE(fs::exists(folder));
    EXPECT_FALSE(is_alive(pid));
    EXPECT_EQ(outside(), before);
}

} // namespace
