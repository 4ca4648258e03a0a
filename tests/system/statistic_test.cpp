// The statistic report as syslog gets it, and the counters of everything that can be sent.
#include "tests/support/system/router_fixture.h"
#include "tests/support/system/udp_diag.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace corvalin::test;
using namespace std::chrono_literals;

bool is_report(const SyslogRecord& record) {
    return record.priority == STATISTIC_NOTICE;
}

class StatisticTest : public RouterTest {
protected:
    /// The thread that announced itself as that of the statistics, or of the reader.
    pid_t thread_of(const std::string& module) {
        for (const std::string& line : router().log()) {
            const std::size_t begin = line.find(module + ": thread [");
            if (begin != std::string::npos) {
                return static_cast<pid_t>(std::stol(line.substr(line.find('[', begin) + 1)));
            }
        }
        ADD_FAILURE() << module << " has no thread";
        return -1;
    }
};

TEST_F(StatisticTest, each_counter_counts_what_was_sent) {
    start_with_nodes(1, 0);
    const struct {
        const char* description;
        Bytes datagram;
        int times;
        std::vector<const char*> counters; // each grows by one
    } cases[] = {
        {"an empty datagram is nothing", {}, 2, {}},
        {"one byte", Bytes(1, 0xFF), 1, {"packet dropped  by min length"}},
        {"47 bytes", terminate_packet().length(47).bytes(), 2, {"packet dropped  by min length"}},
        {"1377 bytes",
         data_packet().payload_units(660).length(1377).bytes(),
         3,
         {"packet dropped  by max length"}},
        {"the longest datagram there is", Bytes(65507, 0), 1, {"packet dropped  by max length"}},
        {"48 bytes of nothing", Bytes(48, 0), 1, {"packet rejected by bad marker"}},
        {"1376 bytes of nothing", Bytes(1376, 0), 1, {"packet rejected by bad marker"}},
        {"marker, one bit off",
         data_packet().marker(0x00FF00FE).bytes(),
         2,
         {"packet rejected by bad marker"}},
        {"marker in the other byte order",
         data_packet().marker(0xFF00FF00).bytes(),
         1,
         {"packet rejected by bad marker"}},
        {"bad marker and bad version",
         data_packet().marker(0).version(1).bytes(),
         1,
         {"packet rejected by bad marker"}},
        {"version 1", data_packet().version(1).bytes(), 5, {"packet rejected by version"}},
        {"version 255 and unknown type",
         data_packet().version(255).type(0).bytes(),
         1,
         {"packet rejected by version"}},
        {"type below the known ones",
         data_packet().type(0x80).bytes(),
         1,
         {"packet rejected by unknown type"}},
        {"type above the known ones",
         terminate_packet().type(0x84).bytes(),
         1,
         {"packet rejected by unknown type"}},
        {"type 0", terminate_packet().type(0).bytes(), 5, {"packet rejected by unknown type"}},
        {"a header of the type of data",
         data_packet().length(48).bytes(),
         1,
         {"packet rejected by corrupted size"}},
        {"a header of the type of start",
         start_packet().length(48).bytes(),
         1,
         {"packet rejected by corrupted size"}},
        {"data, one byte short",
         data_packet().payload_units(2).length(59).bytes(),
         1,
         {"packet rejected by corrupted size"}},
        {"data, one byte long",
         data_packet().payload_units(2).length(61).bytes(),
         1,
         {"packet rejected by corrupted size"}},
        {"data, one unit more than it has",
         data_packet().payload_units(2).m_num(3).bytes(),
         1,
         {"packet rejected by corrupted size"}},
        {"data, more units than fit",
         data_packet().payload_units(660).m_num(65535).bytes(),
         1,
         {"packet rejected by corrupted size"}},
        {"start, one byte short",
         start_packet().call_id("abc").call_id_length(4).bytes(),
         1,
         {"packet rejected by corrupted size"}},
        {"start, one byte long",
         start_packet().call_id("abc").call_id_length(2).bytes(),
         1,
         {"packet rejected by corrupted size"}},
        {"start, the longest length",
         start_packet().call_id("abc").call_id_length(65535).bytes(),
         1,
         {"packet rejected by corrupted size"}},
        {"terminate, one byte long",
         terminate_packet().length(49).bytes(),
         1,
         {"packet rejected by corrupted size"}},
        {"terminate as long as data",
         terminate_packet().length(56).bytes(),
         1,
         {"packet rejected by corrupted size"}},
        {"start of a session",
         start_packet().id(1).seq(10).bytes(),
         1,
         {"packet 'start' type number", "session number"}},
        {"start of an id that lives",
         start_packet().id(1).seq(11).bytes(),
         3,
         {"packet 'start' type number", "session existing index errors number"}},
        {"data in sequence", data_packet().id(1).seq(11).bytes(), 1, {"packet 'data'  type number"}},
        {"the same again",
         data_packet().id(1).seq(11).bytes(),
         2,
         {"packet 'data'  type number", "session sequence break errors number"}},
        {"late data",
         data_packet().id(1).seq(10).bytes(),
         1,
         {"packet 'data'  type number", "session sequence break errors number"}},
        {"data behind a gap of one",
         data_packet().id(1).seq(13).bytes(),
         1,
         {"packet 'data'  type number", "session lost packets number"}},
        {"data of an unknown session",
         data_packet().id(2).seq(1).bytes(),
         1,
         {"packet 'data'  type number", "session unknown index errors number", "session number (zombie)",
          "session number"}},
        {"data for the zombie", data_packet().id(2).seq(100).bytes(), 2, {"packet 'data'  type number"}},
        {"start where the zombie stands",
         start_packet().id(2).seq(1).bytes(),
         1,
         {"packet 'start' type number", "session existing index errors number"}},
        {"terminate of an unknown session",
         terminate_packet().id(3).seq(1).bytes(),
         2,
         {"packet 'term'  type number", "session unknown index errors number"}},
        {"a session that ends behind a gap of one: start",
         start_packet().id(4).seq(1).bytes(),
         1,
         {"packet 'start' type number"}},
        {"a session that ends behind a gap of one: terminate",
         terminate_packet().id(4).seq(3).bytes(),
         1,
         {"packet 'term'  type number", "session lost packets number"}},
        {"a session that ends with an old number: start",
         start_packet().id(5).seq(9).bytes(),
         1,
         {"packet 'start' type number"}},
        {"a session that ends with an old number: terminate",
         terminate_packet().id(5).seq(9).bytes(),
         1,
         {"packet 'term'  type number", "session sequence break errors number"}},
        {"a zombie that ends: data",
         data_packet().id(6).seq(1).bytes(),
         1,
         {"packet 'data'  type number", "session unknown index errors number", "session number (zombie)"}},
        {"a zombie that ends: terminate",
         terminate_packet().id(6).seq(1).bytes(),
         1,
         {"packet 'term'  type number"}},
        // Media time falls back by more than 300 seconds: the session expires, behind the live ones in front of it
        // not before those have ended. So these end first.
        {"the first session ends",
         terminate_packet().id(1).seq(14).bytes(),
         1,
         {"packet 'term'  type number"}},
        {"the second one, a zombie, ends",
         terminate_packet().id(2).seq(14).bytes(),
         1,
         {"packet 'term'  type number"}},
        {"a session that expires: start",
         start_packet().id(7).seq(1).mt(1000000000).bytes(),
         1,
         {"packet 'start' type number"}},
        {"a session that expires: data",
         data_packet().id(7).seq(2).mt(600000000).bytes(),
         1,
         {"packet 'data'  type number", "session audit executions number", "packet queue idle hits number"}},
        {"a session that stays", start_packet().id(8).seq(1).bytes(), 1, {"packet 'start' type number"}},
    };
    Counters expected = zero_counters();
    UdpDiag diag;
    const uint16_t port = router().port();
    for (const auto& row : cases) {
        for (int time = 0; time < row.times; ++time) {
            send(row.datagram);
            for (const char* const counter : row.counters) {
                ASSERT_TRUE(expected.contains(counter)) << counter;
                ++expected[counter];
            }
            const bool is_passed = row.datagram.size() >= 48 && row.datagram.size() <= 1376;
            expected["packet queue passed elements number"] += is_passed ? 1 : 0;
        }
        ASSERT_TRUE(wait_until([&] { return diag.queued_bytes(port) == 0; })) << row.description;
    }
    expected["session number"] = 1; // a gauge
    expect_counters(expected);
    // The sums by which nothing is lost unseen.
    const Counters last = reports(syslog(), 0).back();
    EXPECT_EQ(last.at("packet queue passed elements number"),
              last.at("packet rejected by bad marker") + last.at("packet rejected by version") +
                  last.at("packet rejected by corrupted size") + last.at("packet rejected by unknown type") +
                  last.at("packet 'start' type number") + last.at("packet 'term'  type number") +
                  last.at("packet 'data'  type number"));
    EXPECT_FALSE(writer().has_datagram());
    const auto ring = router().receive_socket();
    EXPECT_EQ(ring.dropped_datagrams, 0u) << "the kernel took part of what was sent";
}

TEST_F(StatisticTest, a_full_ring_drops_the_newest_packets_and_counts_them) {
    constexpr std::size_t RING = 100000;
    constexpr std::size_t TOO_MANY = 7;
    start_with_nodes(1, 0);
    const uint16_t port = router().port();
    const pid_t reader = thread_of("PACKETS_READER");
    // The reader traces start packets to syslog, and syslog takes nothing: that is where it stands.
    ASSERT_TRUE(syslog().wait_for(is_report).has_value());
    syslog().block();
    send_start(1, TO_WRITER);
    ASSERT_TRUE(wait_until([&] {
        const auto call = blocking_call(router().pid(), reader);
        return call && call->number == SYS_sendto;
    }));
    // A hundred at a time find room in the receive buffer.
    UdpDiag diag;
    const auto send_data = [&](std::size_t first, std::size_t count) {
        std::vector<Bytes> batch;
        for (std::size_t seq = first; seq < first + count; ++seq) {
            batch.push_back(data_packet().id(1).seq(seq).bytes());
        }
        m_sender->send_all(batch);
        ASSERT_TRUE(wait_until([&] { return diag.queued_bytes(port) == 0; }));
    };
    for (std::size_t seq = 2; seq < 2 + RING; seq += 100) {
        send_data(seq, 100);
    }
    send_data(2 + RING, TOO_MANY);
    // The main thread is not held up: it drops, and drops by length as ever.
    send(Bytes(47, 0));
    ASSERT_TRUE(wait_until([&] { return diag.queued_bytes(port) == 0; }));
    EXPECT_EQ(router().receive_socket().dropped_datagrams, 0u);
    syslog().resume();

    Counters expected = zero_counters();
    expected["session number"] = 1;
    expected["packet queue passed elements number"] = 1 + RING;
    expected["packet queue dropped elements number"] = TOO_MANY;
    expected["packet dropped  by min length"] = 1;
    expected["packet 'start' type number"] = 1;
    expected["packet 'data'  type number"] = RING;
    expect_counters(expected);
    // The buffers of the refused packets are free again, and so is the ring.
    send(data_packet().id(1).seq(2 + RING).bytes());
    ++expected["packet queue passed elements number"];
    ++expected["packet 'data'  type number"];
    expect_counters(expected);
}

TEST_F(StatisticTest, a_log_daemon_that_stands_still_costs_no_packet) {
    constexpr std::size_t PACKETS = 50000;
    constexpr std::size_t SESSIONS = 10; // one for each node, so that no node's own buffer overflows
    constexpr std::size_t BATCH_PER_SESSION = 10;
    start_with_nodes(SESSIONS, 0);
    for (uint64_t id = 1; id <= SESSIONS; ++id) {
        send_start(id, TO_WRITER);
    }
    Counters expected = zero_counters();
    expected["session number"] = SESSIONS;
    expected["packet queue passed elements number"] = SESSIONS;
    expected["packet 'start' type number"] = SESSIONS;
    expect_counters(expected);

    // Both threads that write to syslog come to stand there: the reader at the trace of a terminate packet, the
    // statistics at their next report.
    syslog().block();
    const pid_t reader = thread_of("PACKETS_READER");
    const pid_t statistic = thread_of("STATISTIC_SERVICE");
    const auto stands_in = [&](pid_t thread, long number) {
        return wait_until([&] {
            const auto call = blocking_call(router().pid(), thread);
            return call && call->number == number;
        });
    };
    send(terminate_packet().id(SESSIONS + 1).bytes());
    ASSERT_TRUE(stands_in(reader, SYS_sendto));
    ASSERT_TRUE(stands_in(statistic, SYS_futex)) << "at the lock of syslog, which the reader holds";
    UdpDiag diag;
    const uint16_t port = router().port();
    for (std::size_t seq = 2; seq < 2 + PACKETS / SESSIONS; seq += BATCH_PER_SESSION) {
        std::vector<Bytes> batch;
        for (std::size_t next = seq; next < seq + BATCH_PER_SESSION; ++next) {
            for (uint64_t id = 1; id <= SESSIONS; ++id) {
                batch.push_back(data_packet().id(id).seq(next).bytes());
            }
        }
        m_sender->send_all(batch);
        // The main thread goes on: it is what empties the socket.
        ASSERT_TRUE(wait_until([&] { return diag.queued_bytes(port) == 0; }));
    }
    const auto call = blocking_call(router().pid(), reader);
    ASSERT_TRUE(call && call->number == SYS_sendto) << "the reader did not stand all the time";
    EXPECT_EQ(router().receive_socket().dropped_datagrams, 0u);
    syslog().resume();

    for (std::size_t node = 0; node < SESSIONS; ++node) {
        for (uint64_t seq = 1; seq <= 1 + PACKETS / SESSIONS; ++seq) {
            const auto packet = writer(node).receive();
            ASSERT_TRUE(packet.has_value()) << "node " << node << ", packet " << seq;
            ASSERT_EQ(seq_of(*packet), seq) << "node " << node;
        }
    }
    expected["packet queue passed elements number"] += PACKETS + 1;
    expected["packet 'data'  type number"] = PACKETS;
    expected["packet 'term'  type number"] = 1;
    expected["session unknown index errors number"] = 1;
    expect_counters(expected);
}

TEST_F(StatisticTest, reports_come_at_once_and_every_5_seconds_whatever_signals_come) {
    start("");
    ASSERT_TRUE(syslog().wait_for(is_report).has_value());
    EXPECT_EQ(reports(syslog(), 0).at(0), zero_counters());
    // A signal that the kernel gives to the sleeping thread itself neither ends the sleep nor makes a report, and
    // these are spread over more than half of the sleep, which must not begin anew with each.
    const pid_t statistic = thread_of("STATISTIC_SERVICE");
    const auto begin = std::chrono::steady_clock::now();
    for (std::size_t signals = 1; signals <= 35; ++signals) {
        std::this_thread::sleep_until(begin + signals * 100ms);
        ASSERT_EQ(syscall(SYS_tgkill, router().pid(), statistic, SIGUSR1), 0);
        ASSERT_TRUE(router().wait_for_log("SYSTEM  | SERVICE: user action #1 has been requested", signals));
    }
    ASSERT_TRUE(syslog().wait_until([](const std::vector<SyslogRecord>& records) {
        return std::count_if(records.begin(), records.end(), is_report) >= 2;
    }));
    const std::vector<SyslogRecord> written = syslog().records(is_report);
    EXPECT_GE(written[1].taken - written[0].taken, 4990ms) << "the sleep ended early";
    EXPECT_LE(written[1].taken - written[0].taken, 8s) << "the sleep began anew with each signal";
    // The main thread was not woken by any of them.
    EXPECT_THAT(router().log(), ::testing::Not(::testing::Contains(::testing::HasSubstr("SOCKET["))));
}

TEST_F(StatisticTest, transfer_of_reports_sends_nothing_and_a_quiet_router_counts_nothing) {
    UdpNode collector;
    start("statistic_transfer_enabled=true\nstatistic_transfer_host=" + collector.address() + "\n");
    ASSERT_TRUE(syslog().wait_until([](const std::vector<SyslogRecord>& records) {
        return std::count_if(records.begin(), records.end(), is_report) >= 2;
    }));
    EXPECT_FALSE(collector.has_datagram());
    // Five seconds and as many rounds of the reader later.
    EXPECT_EQ(reports(syslog(), 0).at(1), zero_counters());
}

TEST_F(StatisticTest, no_report_is_written_when_reports_are_off_nor_at_a_stop) {
    start("statistic_logging_enabled=false\n");
    RouterPlace other_place; // side by side with one that reports
    RouterProcess other(other_place);
    ASSERT_TRUE(other.wait_until_receiving());
    ASSERT_TRUE(router().wait_until_receiving());
    ASSERT_TRUE(other_place.syslog().wait_for(is_report).has_value());
    UdpSender sender(other.port());
    sender.send(Bytes(1, 0)); // something that a report at the stop would show
    other.signal(SIGTERM);
    router().signal(SIGTERM);
    EXPECT_EQ(other.wait_for_exit(), exited(0));
    const auto ended = std::chrono::steady_clock::now();
    EXPECT_EQ(router().wait_for_exit(), exited(0));
    EXPECT_EQ(syslog().records().size(), 0u);
    // A busy machine starts slowly, and more than one report may have been due before the stop. The stop waits for the
    // sleep behind the last of them, five seconds; one more report at the stop would come right before the end.
    const auto reports = other_place.syslog().records(is_report);
    ASSERT_FALSE(reports.empty());
    EXPECT_GT(ended - reports.back().taken, 3s);
    // The thread runs all the same, and says so.
    EXPECT_GT(thread_of("STATISTIC_SERVICE"), 0);
    EXPECT_EQ(router().log_count("SYSTEM  | STATISTIC_SERVICE: thread [" + std::to_string(router().pid()) +
                                 "] stopped"),
              1u);
}

TEST_F(StatisticTest, a_report_shows_its_place_at_the_trace_level) {
    start("log_level=TRACE\n");
    const auto record = syslog().wait_for(is_report);
    ASSERT_TRUE(record.has_value());
    const std::size_t place_end = record->text.find(" | \n");
    ASSERT_NE(place_end, std::string::npos);
    EXPECT_THAT(record->text.substr(0, place_end),
                ::testing::MatchesRegex("SYSTEM  \\| statistic_service:[0-9]+"));
    EXPECT_EQ("SYSTEM  | " + record->text.substr(place_end + 3), expected_report_text(0, zero_counters()));
    EXPECT_EQ(record->tag, "corvalin_router");
}

// Written out once, so that the frame is not only what the harness computes.
TEST(StatisticReportTest, the_frame_is_the_one_of_the_documentation) {
    Counters counters = zero_counters();
    counters["session number"] = 12;
    const std::string text = expected_report_text(5000, counters);
    EXPECT_EQ(text.find("SYSTEM  | \n"
                        "********************** corvalinrouter:5000 statistic ***********************\n"
                        "*                                                                          *\n"
                        "* session number.............................: 12                          *\n"),
              0u);
    EXPECT_NE(text.find("\n**************************** packets statistic *****************************\n"),
              std::string::npos);
    EXPECT_EQ(parse_report(5000, text), counters);
    EXPECT_EQ(parse_report(5001, text), std::nullopt);
}

} // namespace
