// The tool that watches a router: it reads what the real router wrote, and names the faults that were injected.
#include "tests/support/system/router_fixture.h"
#include "tests/support/system/udp_diag.h"
#include "tests/support/tool_process.h"

#include "corvalin_lib/json.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using namespace corvalin::test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::UnorderedElementsAre;

constexpr const char* HOST_AND_TAG = "2026-11-21T12:00:00.250000+00:00 media corvalin_router: ";

enum class Shape { LINE_FEEDS, ESCAPED, JSON };

std::string escaped(std::string text, const std::string& line_feed) {
    for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at)) {
        text.replace(at, 1, line_feed);
    }
    return text;
}

// What a log daemon makes of a record.
std::string logged(const SyslogRecord& record, Shape shape) {
    std::string text = record.text;
    text.erase(text.find_last_not_of('\n') + 1);
    switch (shape) {
    case Shape::LINE_FEEDS:
        return HOST_AND_TAG + text + "\n";
    case Shape::ESCAPED:
        return HOST_AND_TAG + escaped(text, "#012") + "\n";
    case Shape::JSON:
        return "{\"SYSLOG_FACILITY\":\"" + std::to_string(record.priority / 8) + "\",\"MESSAGE\":\"" +
               escaped(text, "\\n") + "\"}\n";
    }
    return {};
}

rapidjson::Document parsed(const std::string& json) {
    rapidjson::Document document;
    document.Parse(json.data(), json.size());
    EXPECT_FALSE(document.HasParseError()) << json;
    return document;
}

std::string report_of(uint64_t data_packets) {
    Counters counters = zero_counters();
    counters["packet 'data'  type number"] = data_packets;
    return HOST_AND_TAG + expected_report_text(5000, counters);
}

class WatchTest : public RouterTest {
protected:
    /// All that the router wrote so far, as one log.
    std::string write_log(Shape shape) {
        std::string log;
        for (const SyslogRecord& record : syslog().records()) {
            log += logged(record, shape);
        }
        for (const std::string& line : router().raw_log()) {
            log += shape == Shape::JSON ? "" : line + "\n";
        }
        const std::filesystem::path path = m_place.folder() / "router.log";
        write_file(path, log);
        return path.string();
    }

    /// Names of what the doctor finds in the log, "layer/name". The kernel's drops are those of the router's socket.
    std::vector<std::string> diagnosis(Shape shape = Shape::ESCAPED) {
        ToolProcess doctor({CORVALIN_WATCH_PATH, "doctor", "--json", "--since-start", "--udp-port",
                            std::to_string(router().port()), write_log(shape)});
        const int status = doctor.wait();
        std::vector<std::string> names;
        const rapidjson::Document json = parsed(doctor.out());
        if (json.HasParseError()) {
            return names;
        }
        EXPECT_TRUE(json["kernel_seen"].GetBool());
        for (const auto& finding : json["findings"].GetArray()) {
            names.push_back(std::string(finding["layer"].GetString()) + "/" + finding["name"].GetString());
            m_amounts[names.back()] = finding["amount"].GetUint64();
        }
        EXPECT_EQ(status, names.empty() ? 0 : 1) << doctor.err();
        return names;
    }

    /// Real sessions to the router. Up to 130 packets at a time: all of them find room in the kernel's buffer, should a busy
    /// machine let the router wait.
    void send_sessions(std::vector<std::string> options) {
        options.insert(options.begin(), {CORVALIN_MEDIA_SENDER_PATH, std::to_string(router().port()),
                                         "--rate", "1000", "--seed", "7"});
        ToolProcess sender(std::move(options));
        EXPECT_EQ(sender.wait(), 0) << sender.err();
    }

    Counters wait_for_terminates(uint64_t sessions) {
        return wait_for_report(syslog(), 0, [sessions](const Counters& counters) {
            return counters.at("packet 'term'  type number") == sessions && at_rest(counters);
        });
    }
    static bool at_rest(const Counters& counters) { return counters.at("packet queue elements number") == 0; }
    Counters wait_for_passed(uint64_t packets) {
        return wait_for_report(syslog(), 0, [packets](const Counters& counters) {
            return counters.at("packet queue passed elements number") == packets && at_rest(counters);
        });
    }

    std::map<std::string, uint64_t> m_amounts;
};

TEST_F(WatchTest, the_doctor_finds_nothing_in_a_router_that_loses_nothing) {
    start_with_nodes(1, 1);
    send_sessions({"--sessions", "10", "--packets", "10"});
    wait_for_terminates(10);
    EXPECT_THAT(diagnosis(), ElementsAre());
}

TEST_F(WatchTest, the_doctor_names_a_sender_that_loses_packets) {
    start_with_nodes(1, 0);
    send_sessions(
        {"--sessions", "10", "--packets", "10", "--loss", "10", "--spare-edges", "--flags", "writer"});
    const Counters counters = wait_for_terminates(10);
    EXPECT_THAT(diagnosis(), ElementsAre("sender/gaps"));
    EXPECT_EQ(m_amounts["sender/gaps"], 100 - counters.at("packet 'data'  type number"));
}

TEST_F(WatchTest, the_doctor_names_a_sender_that_repeats_and_reorders_packets) {
    start_with_nodes(1, 0);
    send_sessions({"--sessions", "10", "--packets", "10", "--duplicate", "10", "--reorder", "10",
                   "--spare-edges", "--flags", "writer"});
    wait_for_terminates(10);
    EXPECT_THAT(diagnosis(), ElementsAre("sender/order"));
}

TEST_F(WatchTest, the_doctor_names_the_kernels_receive_buffer) {
    start_with_nodes(1, 0);
    send_start(1, TO_WRITER);
    wait_for_passed(1);
    router().signal(SIGSTOP);
    for (uint64_t seq = 2; seq < 20002; ++seq) {
        send(data_packet().id(1).seq(seq).bytes());
    }
    router().signal(SIGCONT);
    UdpDiag diag;
    const uint16_t port = router().port();
    ASSERT_TRUE(wait_until([&] { return diag.queued_bytes(port) == 0; }));
    send(terminate_packet().id(1).seq(20002).bytes());
    wait_for_terminates(1);
    const uint64_t drops = router().receive_socket().dropped_datagrams;
    ASSERT_GT(drops, 0u) << "the receive buffer holds more than 20000 datagrams";
    EXPECT_THAT(diagnosis(), ElementsAre("kernel/receive_buffer"));
    EXPECT_EQ(m_amounts["kernel/receive_buffer"], drops);
}

TEST_F(WatchTest, the_doctor_names_a_full_ring) {
    constexpr uint64_t RING = 100000;
    start_with_nodes(1, 0);
    // The reader traces the start packet to syslog, which takes nothing: that is where it stands.
    ASSERT_TRUE(
        syslog().wait_for([](const SyslogRecord& record) { return record.priority == STATISTIC_NOTICE; }));
    syslog().block();
    send_start(1, TO_WRITER);
    UdpDiag diag;
    const uint16_t port = router().port();
    ASSERT_TRUE(wait_until([&] {
        for (const pid_t thread : threads_of(router().pid())) {
            const auto call = blocking_call(router().pid(), thread);
            if (call && call->number == SYS_sendto && thread != router().pid()) {
                return true;
            }
        }
        return false;
    }));
    for (uint64_t seq = 2; seq < 2 + RING + 100; seq += 100) {
        std::vector<Bytes> batch;
        for (uint64_t next = seq; next < seq + 100; ++next) {
            batch.push_back(data_packet().id(1).seq(next).bytes());
        }
        m_sender->send_all(batch);
        ASSERT_TRUE(wait_until([&] { return diag.queued_bytes(port) == 0; }));
    }
    syslog().resume();
    const Counters counters = wait_for_report(syslog(), 0, [](const Counters& last) {
        return last.at("packet 'data'  type number") >= RING - 1 && at_rest(last);
    });
    const uint64_t dropped = counters.at("packet queue dropped elements number");
    ASSERT_GT(dropped, 0u);
    EXPECT_THAT(diagnosis(), ElementsAre("ring/full"));
    EXPECT_EQ(m_amounts["ring/full"], dropped);
}

TEST_F(WatchTest, the_doctor_names_each_way_of_failing_validation) {
    start_with_nodes(1, 0);
    const struct {
        const char* name;
        Bytes datagram;
        uint64_t times;
    } cases[] = {{"validation/too_short", Bytes(47, 1), 1},
                 {"validation/too_long", Bytes(1377, 1), 2},
                 {"validation/bad_marker", data_packet().marker(1).bytes(), 3},
                 {"validation/version", data_packet().version(1).bytes(), 4},
                 {"validation/corrupted_size", data_packet().payload_units(2).m_num(3).bytes(), 5},
                 {"validation/unknown_type", data_packet().type(0x84).bytes(), 6}};
    std::vector<std::string> names;
    for (const auto& row : cases) {
        for (uint64_t time = 0; time < row.times; ++time) {
            send(row.datagram);
        }
        names.emplace_back(row.name);
    }
    wait_for_passed(3 + 4 + 5 + 6);
    EXPECT_EQ(diagnosis(), names);
    for (const auto& row : cases) {
        EXPECT_EQ(m_amounts[row.name], row.times) << row.name;
    }
}

TEST_F(WatchTest, the_doctor_names_sessions_whose_start_was_lost) {
    start_with_nodes(1, 0);
    send_sessions({"--sessions", "5", "--packets", "10", "--no-start", "--flags", "writer"});
    wait_for_terminates(5);
    EXPECT_THAT(diagnosis(), ElementsAre("session/unknown_session"));
    EXPECT_EQ(m_amounts["session/unknown_session"], 5u);
}

TEST_F(WatchTest, the_doctor_names_calls_that_share_an_id) {
    start_with_nodes(1, 0);
    send_start(1, TO_WRITER);
    send_start(1, TO_WRITER);
    send_start(1, TO_WRITER);
    wait_for_passed(3);
    EXPECT_THAT(diagnosis(), ElementsAre("session/existing_session"));
    EXPECT_EQ(m_amounts["session/existing_session"], 2u);
}

TEST_F(WatchTest, the_doctor_names_sends_that_the_machine_refuses) {
    // The broadcast address of the loopback network: refused to a socket without the option for it.
    start("writer_node=127.255.255.255:9\n");
    send_sessions({"--sessions", "2", "--packets", "3", "--flags", "writer"});
    wait_for_terminates(2);
    EXPECT_THAT(diagnosis(), ElementsAre("send/send_failed"));
    EXPECT_EQ(m_amounts["send/send_failed"], 2u * 5);
}

TEST_F(WatchTest, the_doctor_names_sessions_that_were_given_no_node) {
    start_with_nodes(1, 0);
    send_sessions({"--sessions", "3", "--packets", "2", "--flags", "media"});
    send_sessions({"--sessions", "2", "--packets", "2", "--flags", "none", "--id-base", "100"});
    wait_for_terminates(5);
    EXPECT_THAT(diagnosis(), ElementsAre("send/no_node"));
    EXPECT_EQ(m_amounts["send/no_node"], 3u) << "two asked for none";
}

TEST_F(WatchTest, the_reports_of_the_real_router_are_read_in_every_shape) {
    start_with_nodes(1, 0);
    send_sessions({"--sessions", "7", "--packets", "9", "--flags", "writer"});
    const Counters counters = wait_for_terminates(7);
    const std::size_t reports_before = reports(syslog(), 0).size();
    for (const Shape shape : {Shape::LINE_FEEDS, Shape::ESCAPED, Shape::JSON}) {
        ToolProcess watch({CORVALIN_WATCH_PATH, "json", write_log(shape)});
        EXPECT_EQ(watch.wait(), 0) << watch.err();
        std::vector<std::string> lines;
        std::istringstream out(watch.out());
        for (std::string line; std::getline(out, line);) {
            lines.push_back(line);
        }
        ASSERT_GE(lines.size(), reports_before);
        const rapidjson::Document last = parsed(lines.back());
        EXPECT_EQ(last["port"].GetUint64(), 0u);
        EXPECT_EQ(last["counters"]["start_packets"].GetUint64(), counters.at("packet 'start' type number"));
        EXPECT_EQ(last["counters"]["term_packets"].GetUint64(), 7u);
        EXPECT_EQ(last["counters"]["data_packets"].GetUint64(), 63u);
        EXPECT_EQ(last["counters"]["ring_passed"].GetUint64(), 77u);
    }
}

TEST_F(WatchTest, a_restart_of_the_router_is_seen_and_its_counters_go_on) {
    start_with_nodes(1, 0);
    send(Bytes(47, 0));
    send(Bytes(47, 0));
    wait_for_report(syslog(), 0,
                    [](const Counters& last) { return last.at("packet dropped  by min length") == 2; });
    ASSERT_EQ(router().stop(), exited(0));
    const std::string first_life = read_file(write_log(Shape::ESCAPED));
    m_router.emplace(m_place);
    ASSERT_TRUE(router().wait_until_receiving());
    UdpSender sender(router().port());
    sender.send(Bytes(47, 0));
    wait_for_report(syslog(), 0,
                    [](const Counters& last) { return last.at("packet dropped  by min length") == 1; });
    ToolProcess doctor({CORVALIN_WATCH_PATH, "doctor", "--json", write_log(Shape::ESCAPED)});
    EXPECT_EQ(doctor.wait(), 1);
    const rapidjson::Document json = parsed(doctor.out());
    EXPECT_EQ(json["restarts"].GetUint64(), 1u);
    ASSERT_EQ(json["findings"].Size(), 1u);
    EXPECT_STREQ(json["findings"][0]["name"].GetString(), "too_short");
    EXPECT_EQ(json["findings"][0]["amount"].GetUint64(), 3u);
}

// Without a router from here on: what the tool does with its inputs and outputs.

class WatchToolTest : public ::testing::Test {
protected:
    std::string path(const std::string& name) const { return m_folder.path() + "/" + name; }

    /// The whole answer to a request on 127.0.0.1.
    static std::string http(uint16_t port, const std::string& request) {
        const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port);
        std::string answer;
        if (connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
            ::send(client, request.data(), request.size(), MSG_NOSIGNAL) ==
                static_cast<ssize_t>(request.size())) {
            char buffer[4096];
            for (ssize_t bytes = 0; (bytes = recv(client, buffer, sizeof(buffer), 0)) > 0;) {
                answer.append(buffer, static_cast<std::size_t>(bytes));
            }
        }
        close(client);
        return answer;
    }

    /// The port that the tool has printed by now.
    static uint16_t metrics_port(const ToolProcess& watch) {
        const std::string begin = "metrics on http://127.0.0.1:";
        const std::size_t at = watch.err().find(begin);
        return at == std::string::npos
                   ? uint16_t{0}
                   : static_cast<uint16_t>(std::stoi(watch.err().substr(at + begin.size())));
    }

    /// How far a process has read a file that it has open; -1 if it has not.
    static long offset_in(pid_t process, const std::string& file) {
        const std::string proc = "/proc/" + std::to_string(process);
        std::error_code ignored;
        for (const auto& entry : std::filesystem::directory_iterator(proc + "/fd", ignored)) {
            if (std::filesystem::read_symlink(entry.path(), ignored) == file) {
                std::ifstream info(proc + "/fdinfo/" + entry.path().filename().string());
                std::string name;
                long offset = -1;
                info >> name >> offset;
                return offset;
            }
        }
        return -1;
    }

    static bool send_datagram(const std::string& socket_path, const std::string& text) {
        const int client = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        socket_path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        const bool sent =
            sendto(client, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&address),
                   sizeof(address)) == static_cast<ssize_t>(text.size());
        close(client);
        return sent;
    }

    TemporaryFolder m_folder;
};

TEST_F(WatchToolTest, a_syslog_socket_is_read_and_its_counters_are_answered_over_http) {
    const std::string socket_path = path("log");
    ToolProcess watch({CORVALIN_WATCH_PATH, "json", "--socket", socket_path, "--metrics-port", "0"});
    Counters counters = zero_counters();
    counters["packet 'data'  type number"] = 12345;
    const std::string datagram =
        "<133>Nov 21 12:00:00 corvalin_router: " + expected_report_text(5000, counters);
    ASSERT_TRUE(wait_until([&] { return send_datagram(socket_path, datagram); }));
    EXPECT_EQ(parsed(watch.read_line())["counters"]["data_packets"].GetUint64(), 12345u);

    const uint16_t port = metrics_port(watch);
    ASSERT_NE(port, 0) << watch.err();
    const std::string answer = http(port, "GET /metrics HTTP/1.1\r\nHost: localhost\r\n\r\n");
    EXPECT_THAT(answer, HasSubstr("HTTP/1.1 200 OK\r\nContent-Type: text/plain; version=0.0.4"));
    EXPECT_THAT(answer, HasSubstr("corvalin_router_packets_total{port=\"5000\",type=\"data\"} 12345\n"));
    EXPECT_THAT(http(port, "GET / HTTP/1.0\r\n\r\n"), HasSubstr(" 404 "));
    EXPECT_THAT(http(port, "POST /metrics HTTP/1.0\r\n\r\n"), HasSubstr(" 405 "));
    EXPECT_THAT(http(port, "nonsense\r\n\r\n"), HasSubstr(" 400 "));
    EXPECT_THAT(http(port, std::string(9000, 'x')), HasSubstr(" 431 "));
    watch.send_signal(SIGTERM);
    EXPECT_EQ(watch.wait(), 0);
    EXPECT_FALSE(std::filesystem::exists(socket_path));
}

// The kernel tells who listens where: 0100007F is 127.0.0.1, and 0A a listening socket.
TEST_F(WatchToolTest, the_metrics_are_on_loopback_only_and_off_unless_asked_for) {
    const auto listeners_of = [](const ToolProcess& watch) {
        std::vector<std::string> inodes;
        std::error_code ignored;
        for (const auto& entry :
             std::filesystem::directory_iterator("/proc/" + std::to_string(watch.pid()) + "/fd", ignored)) {
            const std::string target = std::filesystem::read_symlink(entry.path(), ignored).string();
            if (target.compare(0, 8, "socket:[") == 0) {
                inodes.push_back(target.substr(8, target.size() - 9));
            }
        }
        std::vector<std::string> addresses;
        std::ifstream table("/proc/net/tcp");
        for (std::string line; std::getline(table, line);) {
            std::istringstream fields(line);
            std::string field[10];
            for (std::string& one : field) {
                fields >> one;
            }
            if (field[3] == "0A" && std::find(inodes.begin(), inodes.end(), field[9]) != inodes.end()) {
                addresses.push_back(field[1].substr(0, 8));
            }
        }
        return addresses;
    };
    write_file(path("log"), report_of(1));
    ToolProcess with({CORVALIN_WATCH_PATH, "json", "--follow", "--metrics-port", "0", path("log")});
    ToolProcess without({CORVALIN_WATCH_PATH, "json", "--follow", path("log")});
    EXPECT_NE(with.read_line(), "");
    EXPECT_NE(without.read_line(), "");
    EXPECT_THAT(listeners_of(with), ElementsAre("0100007F"));
    EXPECT_THAT(listeners_of(without), ElementsAre());
}

TEST_F(WatchToolTest, promtool_finds_nothing_to_say_about_the_metrics) {
    // One router with its kernel line, and one without.
    write_file(path("log"), report_of(1) + report_of(2) + escaped(report_of(3), "#012") + "\n");
    write_file(path("udp"),
               "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout "
               "inode ref pointer drops\n"
               "  1: 00000000:1388 00000000:0000 07 00000000:00000300 00:00000000 00000000 0 0 77 2 "
               "0000000000000000 9\n");
    ToolProcess watch({CORVALIN_WATCH_PATH, "metrics", "--proc-net-udp", path("udp"), path("log")});
    EXPECT_EQ(watch.wait(), 0) << watch.err();
    EXPECT_THAT(watch.out(), HasSubstr("corvalin_router_kernel_dropped_datagrams_total{port=\"5000\"} 9\n"));
    EXPECT_THAT(watch.out(), HasSubstr("corvalin_router_kernel_queue_bytes{port=\"5000\"} 768\n"));
    ToolProcess promtool({"promtool", "check", "metrics"}, ToolProcess::Input::LINES);
    promtool.write(watch.out());
    promtool.close_input();
    EXPECT_EQ(promtool.wait(), 0);
    EXPECT_EQ(promtool.out(), "");
    EXPECT_EQ(promtool.err(), "");
}

TEST_F(WatchToolTest, a_log_is_followed_over_its_end_its_rotation_and_its_truncation) {
    write_file(path("log"), report_of(1));
    ToolProcess watch({CORVALIN_WATCH_PATH, "json", "--follow", path("log")});
    const auto next = [&watch] { return parsed(watch.read_line())["counters"]["data_packets"].GetUint64(); };
    EXPECT_EQ(next(), 1u);
    // Cut in the middle of a row: the rest comes later.
    const std::string report = report_of(2);
    std::ofstream(path("log"), std::ios::app) << report.substr(0, 1000) << std::flush;
    std::ofstream(path("log"), std::ios::app) << report.substr(1000);
    EXPECT_EQ(next(), 2u);
    std::filesystem::rename(path("log"), path("log.1"));
    write_file(path("log"), report_of(3));
    EXPECT_EQ(next(), 3u);
    // Cut in its place. What is written before the tool has looked cannot be told from the file that was.
    write_file(path("log"), "");
    ASSERT_TRUE(wait_until([&] { return offset_in(watch.pid(), path("log")) == 0; }));
    std::ofstream(path("log"), std::ios::app) << report_of(4);
    EXPECT_EQ(next(), 4u);
    watch.send_signal(SIGINT);
    EXPECT_EQ(watch.wait(), 0);
}

TEST_F(WatchToolTest, a_pipe_is_read_to_its_end) {
    ToolProcess watch({CORVALIN_WATCH_PATH, "json"}, ToolProcess::Input::LINES);
    watch.write(report_of(1));
    EXPECT_EQ(parsed(watch.read_line())["counters"]["data_packets"].GetUint64(), 1u)
        << "before the pipe ends";
    watch.write(escaped(report_of(2), "#012") + "\n");
    watch.close_input();
    EXPECT_EQ(parsed(watch.read_line())["counters"]["data_packets"].GetUint64(), 2u);
    EXPECT_EQ(watch.wait(), 0);
}

TEST_F(WatchToolTest, the_view_is_live_on_a_terminal_and_plain_text_elsewhere) {
    write_file(path("log"), report_of(12345));
    ToolProcess plain({CORVALIN_WATCH_PATH, "view", path("log")});
    EXPECT_EQ(plain.wait(), 0);
    EXPECT_THAT(plain.out(), HasSubstr("12345"));
    EXPECT_THAT(plain.out(), Not(HasSubstr("\033")));
    ToolProcess live({"script", "-qec",
                      std::string(CORVALIN_WATCH_PATH) + " view --follow --duration 2.5 " + path("log"),
                      "/dev/null"});
    EXPECT_EQ(live.wait(), 0);
    const std::string& screen = live.out();
    std::size_t pictures = 0;
    for (std::size_t at = screen.find("\033[H"); at != std::string::npos;
         at = screen.find("\033[H", at + 1)) {
        ++pictures;
    }
    EXPECT_GE(pictures, 2u) << "it is drawn anew each second";
    EXPECT_THAT(screen, HasSubstr("corvalinrouter:5000"));
}

TEST_F(WatchToolTest, the_doctor_tells_of_reports_that_stopped_and_of_logs_without_any) {
    write_file(path("empty"), "nothing of interest\n");
    ToolProcess none({CORVALIN_WATCH_PATH, "doctor", path("empty")});
    EXPECT_EQ(none.wait(), 1);
    EXPECT_THAT(none.err(), HasSubstr("no report was found\n"));
    write_file(path("cut"), report_of(1).substr(0, 1500));
    ToolProcess cut({CORVALIN_WATCH_PATH, "doctor", path("cut")});
    EXPECT_EQ(cut.wait(), 1);
    EXPECT_THAT(cut.err(), HasSubstr("no report was found, but 1 that were cut or mixed\n"));
    // What an operator sees.
    write_file(path("log"), report_of(1));
    ToolProcess text({CORVALIN_WATCH_PATH, "doctor", path("log")});
    EXPECT_EQ(text.wait(), 0);
    EXPECT_THAT(text.out(), HasSubstr("corvalinrouter:5000: 1 reports, 0 restarts: nothing was lost\n"));
}

TEST_F(WatchToolTest, a_wrong_command_line_is_refused) {
    const std::vector<std::vector<std::string>> cases = {
        {CORVALIN_WATCH_PATH},
        {CORVALIN_WATCH_PATH, "nonsense"},
        {CORVALIN_WATCH_PATH, "json", "--port", "65536"},
        {CORVALIN_WATCH_PATH, "json", "--udp-port", "0"},
        {CORVALIN_WATCH_PATH, "json", "--socket", path("s"), path("log")},
        {CORVALIN_WATCH_PATH, "doctor", "--metrics-port", "0"},
    };
    for (const auto& arguments : cases) {
        ToolProcess watch(arguments);
        EXPECT_EQ(watch.wait(), 2) << arguments.back();
        EXPECT_NE(watch.err(), "");
    }
    ToolProcess missing({CORVALIN_WATCH_PATH, "json", path("missing")});
    EXPECT_EQ(missing.wait(), 1);
    EXPECT_THAT(missing.err(), HasSubstr("missing"));
}

} // namespace
