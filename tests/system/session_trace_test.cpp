// What the router tells of sessions: trace lines in syslog, warnings in its log.
#include "tests/support/system/router_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

namespace {

using namespace corvalin::test;

const std::string UUID = DEFAULT_UUID_TEXT;

class SessionTraceTest : public RouterTest {
protected:
    /// A terminate packet for an id that nobody uses: it leaves the session table as it is and goes to no node.
    /// When its trace line is here, all packets before it have been dealt with.
    void send_and_wait_for_mark() {
        const uint64_t seq = ++m_marks + 900000;
        send(terminate_packet().id(UINT64_MAX).seq(seq).bytes());
        EXPECT_TRUE(wait_for_trace(PACKET_NOTICE, "SYSTEM  | TERM  | mt: 0, uuid: " + UUID +
                                                      ", seq: " + std::to_string(seq) + "\n"));
    }

    std::size_t trace_count() {
        return syslog().count([](const SyslogRecord& record) {
            return record.priority == PACKET_NOTICE || record.priority == PACKET_WARNING ||
                   record.priority == MEDIA_DEBUG;
        });
    }

    uint64_t m_marks = 0;
};

TEST_F(SessionTraceTest, start_and_terminate_packets_are_traced_with_the_seq_as_received) {
    start_with_nodes(1, 0);
    const Uuid uuid = {0x00, 0x01, 0x0f, 0xf0, 0xff, 0xab, 0xcd, 0xef,
                       0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0};
    const std::string uuid_text = "00010ff0-ffab-cdef-1234-56789abcdef0";
    const struct {
        const char* description;
        StartPacketBuilder packet;
        std::string line;
    } cases[] = {
        {"all fields, both bits",
         start_packet()
             .id(18446744073709551615u)
             .uuid(uuid)
             .flags(0xC0)
             .side(0)
             .seq(10)
             .mt(11)
             .ts(12)
             .sync_ts(13)
             .sync_mt(14)
             .rule(15)
             .call_id("call@1"),
         "START | mt: 11, v: 0, f: wa, uuid: " + uuid_text +
             ", ts: 12, seq: 10, leg: inbound, call id: call@1, "
             "id: 18446744073709551615, sync ts: 13, sync mt: 14, rule: 15"},
        {"writer bit alone: no rule, though the field is set",
         start_packet()
             .id(1)
             .uuid(uuid)
             .flags(0x80)
             .side(1)
             .seq(18446744073709551615u)
             .mt(18446744073709551614u)
             .rule(15),
         "START | mt: 18446744073709551614, v: 0, f: w-, uuid: " + uuid_text +
             ", ts: 0, seq: 18446744073709551615, "
             "leg: outbound, call id: , id: 1, sync ts: 0, sync mt: 0"},
        {"media bit alone, a side above 1",
         start_packet().id(2).uuid(uuid).flags(0x7F).side(255).call_id("x").rule(18446744073709551615u),
         "START | mt: 0, v: 0, f: -a, uuid: " + uuid_text +
             ", ts: 0, seq: 0, leg: outbound, call id: x, id: 2, "
             "sync ts: 0, sync mt: 0, rule: 18446744073709551615"},
        {"neither bit, a call id that ends at a zero byte",
         start_packet().id(3).uuid(uuid).flags(0x3F).call_id(std::string("abc\0de", 6)),
         "START | mt: 0, v: 0, f: --, uuid: " + uuid_text +
             ", ts: 0, seq: 0, leg: inbound, call id: abc, id: 3, "
             "sync ts: 0, sync mt: 0"},
        {"a call id that looks like a format", start_packet().id(4).uuid(uuid).call_id("%s%n%d"),
         "START | mt: 0, v: 0, f: --, uuid: " + uuid_text +
             ", ts: 0, seq: 0, leg: inbound, call id: %s%n%d, id: 4, "
             "sync ts: 0, sync mt: 0"},
        {"an id that lives is traced before it is refused", start_packet().id(4).uuid(uuid).seq(99),
         "START | mt: 0, v: 0, f: --, uuid: " + uuid_text +
             ", ts: 0, seq: 99, leg: inbound, call id: , id: 4, "
             "sync ts: 0, sync mt: 0"},
    };
    for (const auto& row : cases) {
        send(row.packet.bytes());
        EXPECT_TRUE(wait_for_trace(PACKET_NOTICE, "SYSTEM  | " + row.line + "\n")) << row.description;
    }
    send(terminate_packet().id(1).uuid(uuid).seq(18446744073709551615u).mt(5).bytes());
    EXPECT_TRUE(wait_for_trace(PACKET_NOTICE, "SYSTEM  | TERM  | mt: 5, uuid: " + uuid_text +
                                                  ", seq: 18446744073709551615\n"));
    EXPECT_EQ(trace_count(), 7u) << "nothing but these lines";
    EXPECT_EQ(router().log_count("WARNING | SESSION_MANAGER: Session " + uuid_text + " already exists"), 1u);
}

TEST_F(SessionTraceTest, data_packets_are_traced_at_the_trace_level_with_the_place) {
    start_with_nodes(1, 0, "log_level=TRACE\n");
    send(start_packet().id(7).seq(10).flags(TO_WRITER).bytes());
    send(data_packet()
             .id(7)
             .seq(12)
             .mt(18446744073709551615u)
             .side(200)
             .m_flg(65535)
             .m_off(4294967295u)
             .payload_units(3)
             .bytes());
    const auto record =
        syslog().wait_for([](const SyslogRecord& candidate) { return candidate.priority == MEDIA_DEBUG; });
    ASSERT_TRUE(record.has_value());
    EXPECT_EQ(record->tag, "corvalin_router");
    EXPECT_THAT(record->text,
                ::testing::MatchesRegex(
                    "TRACE   \\| media_packet_reader:[0-9]+ \\| DATA  \\| mt: 18446744073709551615, uuid: " +
                    UUID + ", seq: 12, side: 200, m_flg: 65535, m_num: 3, m_off: 4294967295\n"));
    const auto start_line =
        syslog().wait_for([](const SyslogRecord& candidate) { return candidate.priority == PACKET_NOTICE; });
    ASSERT_TRUE(start_line.has_value());
    EXPECT_THAT(
        start_line->text,
        ::testing::MatchesRegex("SYSTEM  \\| media_packet_reader:[0-9]+ \\| START \\| .*, sync mt: 0\n"));
    // At this threshold every line shows its place, on standard error too.
    const auto logged = router().log();
    EXPECT_THAT(logged, ::testing::Contains(::testing::MatchesRegex(
                            "DEBUG   \\| host_balancer:[0-9]+ \\| HOST_BALANCER: received nodes: " +
                            writer().address())));
    EXPECT_THAT(logged, ::testing::Contains(::testing::MatchesRegex(
                            "SYSTEM  \\| routing_manager:[0-9]+ \\| ROUTING_MANAGER: .*")));
}

TEST_F(SessionTraceTest, data_packets_are_not_traced_at_the_debug_level) {
    start_with_nodes(1, 0, "log_level=DEBUG\n");
    send(start_packet().id(7).seq(10).flags(TO_WRITER).bytes());
    send(data_packet().id(7).seq(11).bytes());
    send(terminate_packet().id(7).seq(12).bytes());
    const auto is_terminate = [](const SyslogRecord& record) {
        return record.priority == PACKET_NOTICE && record.text.find("TERM  | mt: 0") != std::string::npos;
    };
    ASSERT_TRUE(syslog().wait_for(is_terminate).has_value());
    EXPECT_EQ(trace_count(), 2u);
    EXPECT_EQ(syslog().texts(MEDIA_DEBUG), std::vector<std::string>{});
}

TEST_F(SessionTraceTest, the_first_data_packet_of_an_unknown_session_warns_and_the_rest_are_absorbed) {
    start_with_nodes(1, 0);
    send(data_packet().id(7).seq(30).mt(31).side(9).bytes());
    EXPECT_TRUE(wait_for_trace(PACKET_WARNING, "WARNING | DATA  | mt: 31, uuid: " + UUID +
                                                   ", seq: 30, side: 9 | unknown session\n"));
    // Whatever their number: a zombie follows none.
    for (const uint64_t seq : {30u, 31u, 5u}) {
        send(data_packet().id(7).seq(seq).mt(31).bytes());
    }
    // A start packet that comes behind its own data finds the place taken.
    send_start(7, TO_WRITER);
    EXPECT_TRUE(router().wait_for_log("WARNING | SESSION_MANAGER: Session " + UUID + " already exists"));
    send(data_packet().id(7).seq(40).mt(31).bytes());
    // A terminate packet ends the zombie without a warning, and the id is free again.
    send(terminate_packet().id(7).seq(41).bytes());
    send_start(7, TO_WRITER);
    EXPECT_EQ(writer().receive(), start_packet().id(7).seq(1).flags(TO_WRITER).bytes())
        << "nothing but the start packet that found the id free is forwarded";
    EXPECT_EQ(syslog().texts(PACKET_WARNING).size(), 1u);

    Counters expected = zero_counters();
    expected["session number"] = 1;
    expected["session number (zombie)"] = 1;
    expected["session unknown index errors number"] = 1;
    expected["session existing index errors number"] = 1;
    expected["packet queue passed elements number"] = 8;
    expected["packet 'start' type number"] = 2;
    expected["packet 'data'  type number"] = 5;
    expected["packet 'term'  type number"] = 1;
    expect_counters(expected);
}

TEST_F(SessionTraceTest, a_terminate_packet_of_an_unknown_session_warns_each_time_and_sets_nothing_up) {
    start_with_nodes(1, 0);
    const std::string warning = "WARNING | TERM  | mt: 3, uuid: " + UUID + ", seq: 4 | unknown session\n";
    for (int round = 0; round < 2; ++round) {
        send(terminate_packet().id(7).mt(3).seq(4).bytes());
    }
    send_start(7, TO_WRITER);
    EXPECT_TRUE(writer().receive().has_value()) << "the id is taken";
    EXPECT_EQ(RouterTest::trace_count(PACKET_WARNING, warning), 2u);
    EXPECT_EQ(syslog().texts(PACKET_WARNING).size(), 2u);
}

TEST_F(SessionTraceTest, a_late_data_packet_of_an_ended_session_warns_once) {
    start_with_nodes(1, 0);
    send_start(7, TO_WRITER);
    send(terminate_packet().id(7).seq(2).bytes());
    send(data_packet().id(7).seq(3).bytes());
    send(data_packet().id(7).seq(4).bytes());
    send_and_wait_for_mark();
    EXPECT_EQ(RouterTest::trace_count(PACKET_WARNING, "WARNING | DATA  | mt: 0, uuid: " + UUID +
                                                          ", seq: 3, side: 0 | unknown session\n"),
              1u);
    EXPECT_EQ(syslog().count([](const SyslogRecord& record) {
        return record.priority == PACKET_WARNING && record.text.find("DATA") != std::string::npos;
    }),
              1u)
        << "the second late packet warned too";
    EXPECT_EQ(seq_of(*writer().receive()), 1u);
    EXPECT_EQ(seq_of(*writer().receive()), 2u);
    EXPECT_FALSE(writer().has_datagram());
}

TEST_F(SessionTraceTest, at_the_error_level_warnings_are_silent_and_system_lines_are_not) {
    start_with_nodes(1, 0, "log_level=ERROR\n");
    send(data_packet().id(7).seq(1).bytes());
    send_start(7, TO_WRITER); // refused: the zombie stands
    send_start(8, TO_WRITER);
    send_and_wait_for_mark();
    EXPECT_EQ(
        router().log_count("SYSTEM  | ROUTING_MANAGER: " + UUID + ": assigned hosts: " + writer().address()),
        1u);
    EXPECT_EQ(router().log_count("WARNING | SESSION_MANAGER: Session " + UUID + " already exists"), 0u);
    EXPECT_EQ(syslog().texts(PACKET_WARNING), std::vector<std::string>{});
    EXPECT_EQ(syslog().texts(PACKET_NOTICE).size(), 3u) << "two start packets and the mark";
}

// The audit reads a session's activity from the media clock: a session whose media time falls back by more than
// 300 seconds has expired, however fresh it is.
class SessionTimeoutTest : public SessionTraceTest {
protected:
    static constexpr uint64_t START_MT = 1000000000;
    static constexpr uint64_t TIMEOUT_US = 300000000;

    static uint64_t now_us() {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
    }

    static bool is_timeout(const SyslogRecord& record) {
        return record.priority == PACKET_WARNING &&
               record.text.find("SESSION_MANAGER: Timeout") != std::string::npos;
    }
};

TEST_F(SessionTimeoutTest, an_expired_session_is_traced_and_goes_without_a_packet_to_its_nodes) {
    start_with_nodes(1, 0);
    const uint64_t before_us = now_us();
    send(start_packet().id(7).seq(1).flags(TO_WRITER).mt(START_MT).bytes());
    EXPECT_EQ(seq_of(*writer().receive()), 1u);
    const uint64_t after_us = now_us();
    send(data_packet().id(7).seq(2).mt(START_MT - TIMEOUT_US - 1000000).bytes());
    EXPECT_EQ(seq_of(*writer().receive()), 2u);
    const auto record = syslog().wait_for(is_timeout);
    ASSERT_TRUE(record.has_value());
    unsigned long long last = 0;
    unsigned long long now = 0;
    ASSERT_EQ(
        std::sscanf(record->text.c_str(),
                    ("WARNING | SESSION_MANAGER: Timeout for session " + UUID + ": %llu %llu\n").c_str(),
                    &last, &now),
        2)
        << record->text;
    EXPECT_EQ(record->text, "WARNING | SESSION_MANAGER: Timeout for session " + UUID + ": " +
                                std::to_string(last) + " " + std::to_string(now) + "\n");
    // <last> is the session's creation less the media time, on the scale of the monotonic clock, and may have wrapped.
    const uint64_t created_us = last + TIMEOUT_US + 1000000;
    EXPECT_GE(created_us, before_us);
    EXPECT_LE(created_us, after_us);
    EXPECT_GE(now, after_us);
    EXPECT_LE(now, now_us());
    // What resumes now is of an unknown session, and the zombie swallows it.
    send(data_packet().id(7).seq(3).mt(START_MT).bytes());
    EXPECT_TRUE(wait_for_trace(PACKET_WARNING, "WARNING | DATA  | mt: 1000000000, uuid: " + UUID +
                                                   ", seq: 3, side: 0 | unknown session\n"));
    EXPECT_FALSE(writer().has_datagram());
    EXPECT_EQ(syslog().count(is_timeout), 1u);
}

TEST_F(SessionTimeoutTest, an_expired_zombie_is_traced_and_its_id_is_free_again) {
    start_with_nodes(1, 0);
    send(data_packet().id(7).seq(1).mt(START_MT).bytes());
    send(data_packet().id(7).seq(2).mt(START_MT - TIMEOUT_US - 1000000).bytes());
    EXPECT_TRUE(syslog().wait_for(is_timeout).has_value());
    send_start(7, TO_WRITER);
    EXPECT_TRUE(writer().receive().has_value());
}

TEST_F(SessionTimeoutTest, a_media_time_far_before_the_start_wraps_and_keeps_the_session) {
    start_with_nodes(1, 0);
    send(start_packet().id(7).seq(1).flags(TO_WRITER).mt(uint64_t{1} << 63).bytes());
    send(data_packet().id(7).seq(2).mt(0).bytes()); // half the range away: by far more than the clock shows
    send(start_packet().id(8).seq(1).flags(TO_WRITER).mt(START_MT).bytes());
    send(data_packet().id(8).seq(2).mt(START_MT - TIMEOUT_US - 1000000).bytes());
    // The audit stops at the first session that lives, which is the one in front.
    send(terminate_packet().id(7).seq(3).bytes());
    EXPECT_TRUE(syslog().wait_for(is_timeout).has_value());
    for (const uint64_t seq : {1u, 2u, 1u, 2u, 3u}) {
        EXPECT_EQ(seq_of(*writer().receive()), seq);
    }
    EXPECT_EQ(syslog().count(is_timeout), 1u);
}

TEST_F(SessionTimeoutTest, a_backlog_of_expired_sessions_behind_a_live_one_goes_in_three_passes_of_ten) {
    constexpr uint64_t EXPIRED = 25;
    start_with_nodes(1, 0);
    send(start_packet().id(1000).seq(1).flags(TO_NOBODY).mt(START_MT).bytes()); // lives, and stands in front
    for (uint64_t id = 1; id <= EXPIRED; ++id) {
        send(start_packet().id(id).seq(1).flags(TO_NOBODY).mt(START_MT).bytes());
        send(data_packet().id(id).seq(2).mt(START_MT - TIMEOUT_US - 1000000).bytes());
    }
    send_start(2000, TO_WRITER);
    EXPECT_TRUE(writer().receive().has_value());
    EXPECT_EQ(syslog().count(is_timeout), 0u) << "the pass went on behind a live session";
    send(terminate_packet().id(1000).seq(2).bytes());
    EXPECT_TRUE(syslog().wait_until([](const std::vector<SyslogRecord>& records) {
        return std::count_if(records.begin(), records.end(), is_timeout) == EXPIRED;
    }));

    Counters expected = zero_counters();
    expected["session number"] = 1;
    expected["session audit executions number"] = 3; // 10, 10 and 5
    expected["packet queue idle hits number"] = 3;
    expected["packet queue passed elements number"] = 2 * EXPIRED + 3;
    expected["packet 'start' type number"] = EXPIRED + 2;
    expected["packet 'data'  type number"] = EXPIRED;
    expected["packet 'term'  type number"] = 1;
    expect_counters(expected);
}

} // namespace
