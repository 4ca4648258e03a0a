#include "corvalin_lib/media_session_manager.h"

#include <syslog.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <ctime>
#include <functional>
#include <initializer_list>
#include <iostream>
#include <limits>
#include <list>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "corvalin_lib/log.h"
#include "tests/support/captured_log.h"
#include "tests/support/packet_builder.h"
#include "tests/support/pooled_packet.h"
#include "tests/support/private_syslog.h"

namespace {

using namespace corvalin;
using log::Level;
using media::Session;
using media::SessionManager;
using media::SessionManagerStatistic;
using test::CapturedLog;
using test::data_packet;
using test::DEFAULT_UUID_TEXT;
using test::pooled;
using test::start_packet;
using test::terminate_packet;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr uint64_t MAX = std::numeric_limits<uint64_t>::max();
constexpr uint64_t TIMEOUT_US = 300'000'000;

/// The clock of a test, which stands until it is set.
struct TestClock {
    static int64_t read() {
        ++reads;
        return now_us;
    }
    static inline int64_t now_us = 0;
    static inline int reads = 0;
};

/// What a hook was called with.
struct Call {
    std::string hook;
    uint64_t id;
    uint64_t seq; // of the packet; 0 for a timeout

    bool operator==(const Call&) const = default;
    friend std::ostream& operator<<(std::ostream& stream, const Call& call) {
        return stream << call.hook << " id " << call.id << " seq " << call.seq;
    }
};

class RecordingManager : public SessionManager {
public:
    explicit RecordingManager(SessionManagerStatistic* statistic)
        : SessionManager(statistic, &TestClock::read) {}

    Session* create_session(const media::StartPacket& packet, unsigned long& result) override {
        result_on_entry = result;
        return creates ? creates(packet, result) : SessionManager::create_session(packet, result);
    }
    void on_session_created(rc_ptr<Session> session, media::StartPacket& packet) override {
        record("created", session, packet.seq);
        if (rewrites) {
            packet.seq = 0xEEEEEEEE;
        }
    }
    void on_session_media(rc_ptr<Session> session, media::DataPacket& packet) override {
        record("media", session, packet.seq);
        if (rewrites) {
            packet.seq = 0xEEEEEEEE;
        }
    }
    void on_session_terminated(rc_ptr<Session> session, media::TerminatePacket& packet) override {
        record("terminated", session, packet.seq);
        if (rewrites) {
            packet.seq = 0xEEEEEEEE;
        }
    }
    void on_session_timedout(rc_ptr<Session> session) override { record("timedout", session, 0); }

    /// The session under `id`, null if there is none.
    Session* find(uint64_t id) {
        rc_ptr<Session>* const entry = m_index.find(id);
        return entry == nullptr ? nullptr : entry->get();
    }
    bool is_at_end(const Session& session) { return session.m_node == m_sessions.end(); }
    void enter_null(uint64_t id) { m_index.insert(id, nullptr); }
    uint64_t table_size() const { return m_index.size(); }
    std::vector<uint64_t> order() const {
        std::vector<uint64_t> ids;
        for (const rc_ptr<Session>& session : m_sessions) {
            ids.push_back(session->m_id);
        }
        return ids;
    }
    /// List and table hold the same sessions, and each knows its place.
    bool is_consistent() {
        bool consistent = m_sessions.size() == m_index.size();
        for (auto node = m_sessions.begin(); node != m_sessions.end(); ++node) {
            consistent = consistent && find((*node)->m_id) == node->get() && (*node)->m_node == node;
        }
        return consistent;
    }

    std::vector<Call> calls;
    std::function<void(const std::string& hook, Session&)> on_hook;
    std::function<Session*(const media::StartPacket&, unsigned long&)> creates;
    unsigned long result_on_entry = 99;
    bool rewrites = false;

private:
    void record(const char* hook, const rc_ptr<Session>& session, uint64_t seq) {
        calls.push_back({hook, session->m_id, seq});
        if (on_hook) {
            on_hook(hook, *session);
        }
    }
};

class MediaSessionManagerTest : public ::testing::Test {
protected:
    static constexpr int64_t START_US = 1'000'000'000'000;

    MediaSessionManagerTest() { TestClock::now_us = START_US; }

    template <class Packet, class Builder>
    test::Bytes deliver(const Builder& builder) {
        const auto buffer = pooled(builder.bytes());
        m_manager->on_packet(media::view_packet<Packet>(buffer->data));
        return test::bytes_of(*buffer);
    }
    /// Each returns the packet's bytes as the hooks have left them.
    test::Bytes start(const test::StartPacketBuilder& builder) {
        return deliver<media::StartPacket>(builder);
    }
    test::Bytes data(const test::DataPacketBuilder& builder) { return deliver<media::DataPacket>(builder); }
    test::Bytes terminate(const test::TerminatePacketBuilder& builder) {
        return deliver<media::TerminatePacket>(builder);
    }
    /// Of packets that wait: nothing but their ids is known.
    void tell(std::initializer_list<uint64_t> ids) { tell(std::vector(ids)); }
    template <class Ids>
    void tell(const Ids& ids) {
        for (const uint64_t id : ids) {
            media::PacketHeader header{};
            header.id = id;
            m_manager->on_packet_ahead(&header);
        }
    }
    void TearDown() override {
        if (m_manager) {
            EXPECT_TRUE(m_manager->is_consistent());
        }
    }

    SessionManagerStatistic m_statistic;
    std::unique_ptr<RecordingManager> m_manager = std::make_unique<RecordingManager>(&m_statistic);
};

// The lines of session tracing go straight to syslog. They are observed in a child process whose syslog is the
// test's own, so what leads to them is part of the body.
std::vector<test::SyslogLine> traced(const std::function<void()>& body) {
    const test::ChildReport report = test::run_with_private_syslog(body);
    EXPECT_EQ(report.wait_status, 0);
    std::vector<test::SyslogLine> lines;
    for (const std::string& datagram : report.syslog) {
        lines.push_back(test::parse_syslog(datagram));
    }
    return lines;
}

// ---- A start packet

TEST_F(MediaSessionManagerTest, a_start_packet_enters_a_session_and_calls_the_hook) {
    m_manager->on_hook = [this](const std::string&, Session& session) {
        EXPECT_EQ(m_manager->find(7), &session) << "in the table before the hook";
        EXPECT_EQ(m_statistic.session_number.value(), 1u);
        EXPECT_TRUE(m_manager->is_consistent());
    };
    start(start_packet().id(7).seq(10).mt(500).ts(44).call_id("abc"));

    EXPECT_THAT(m_manager->calls, ElementsAre(Call{"created", 7, 10}));
    EXPECT_EQ(m_manager->result_on_entry, 1u);
    Session* const session = m_manager->find(7);
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(session->m_call_id, "abc");
    EXPECT_EQ(session->m_ts, 44u);
    EXPECT_EQ(session->m_start_mt, 500u);
    EXPECT_EQ(session->m_seq, 10u);
    EXPECT_EQ(session->m_created_us, START_US);
    EXPECT_EQ(session->m_last_activity_us, static_cast<uint64_t>(START_US));
    EXPECT_FALSE(session->m_zombie);
    EXPECT_EQ(session->reference_count(), 2) << "one owner in the list, one in the table";
}

TEST_F(MediaSessionManagerTest, new_sessions_go_to_the_back) {
    for (const uint64_t id : {3u, 1u, 2u}) {
        start(start_packet().id(id));
    }
    EXPECT_THAT(m_manager->order(), ElementsAre(3, 1, 2));
    EXPECT_EQ(m_statistic.session_number.value(), 3u);
}

TEST_F(MediaSessionManagerTest, a_second_start_of_a_live_id_is_refused_and_the_first_session_goes_on) {
    start(start_packet().id(7).seq(10).ts(1));
    const Session* const first = m_manager->find(7);
    const CapturedLog captured;
    start(start_packet().id(7).seq(500).ts(2).uuid({0xab}));

    EXPECT_THAT(captured.records(), ElementsAre("WARNING media_session_manager: SESSION_MANAGER: Session "
                                                "ab000000-0000-0000-0000-000000000000 already exists"));
    EXPECT_EQ(m_statistic.existing_index_errors.value(), 1u);
    EXPECT_EQ(m_manager->find(7), first);
    EXPECT_EQ(first->m_ts, 1u);

    data(data_packet().id(7).seq(11));
    EXPECT_THAT(m_manager->calls, ElementsAre(Call{"created", 7, 10}, Call{"media", 7, 11}));
    EXPECT_EQ(m_statistic.lost_packets.value(), 0u);
    EXPECT_EQ(m_statistic.sequence_breaks.value(), 0u);
    EXPECT_EQ(m_statistic.session_number.value(), 1u);
}

TEST_F(MediaSessionManagerTest, a_session_that_could_not_be_built_is_counted_and_reported) {
    m_manager->creates = [](const media::StartPacket&, unsigned long& result) -> Session* {
        result = 0;
        return nullptr;
    };
    const CapturedLog captured;
    start(start_packet().id(7));
    EXPECT_EQ(m_statistic.allocation_errors.value(), 1u);
    EXPECT_THAT(captured.records(),
                ElementsAre(std::string("ERROR media_session_manager: SESSION_MANAGER: Session ") +
                            DEFAULT_UUID_TEXT + " allocation failed"));
    EXPECT_THAT(m_manager->calls, IsEmpty());
    EXPECT_EQ(m_manager->table_size(), 0u);
    EXPECT_EQ(m_statistic.zombie_number.value(), 0u);

    // The packets that follow find an unknown id.
    data(data_packet().id(7).seq(1));
    EXPECT_EQ(m_statistic.unknown_index_errors.value(), 1u);
    EXPECT_EQ(m_statistic.zombie_number.value(), 1u);
}

TEST_F(MediaSessionManagerTest, a_refused_session_leaves_a_zombie_with_the_numbers_of_the_start_packet) {
    m_manager->creates = [](const media::StartPacket&, unsigned long&) -> Session* { return nullptr; };
    const CapturedLog captured;
    start(start_packet().id(7).seq(33).mt(44).ts(55).call_id("abc"));
    Session* const zombie = m_manager->find(7);
    ASSERT_NE(zombie, nullptr);
    EXPECT_TRUE(zombie->m_zombie);
    EXPECT_EQ(zombie->m_seq, 33u);
    EXPECT_EQ(zombie->m_start_mt, 44u);
    EXPECT_EQ(zombie->m_ts, 0u);
    EXPECT_EQ(zombie->m_call_id, "");
    EXPECT_EQ(m_statistic.zombie_number.value(), 1u);
    EXPECT_EQ(m_statistic.session_number.value(), 1u);
    EXPECT_EQ(m_statistic.allocation_errors.value(), 0u);
    EXPECT_THAT(m_manager->calls, IsEmpty());
    EXPECT_THAT(captured.texts(), IsEmpty());
}

// ---- A data packet

TEST_F(MediaSessionManagerTest, a_gapless_run_loses_nothing) {
    start(start_packet().id(7).seq(10));
    data(data_packet().id(7).seq(11));
    data(data_packet().id(7).seq(12));
    EXPECT_EQ(m_statistic.lost_packets.value(), 0u);
    EXPECT_EQ(m_statistic.sequence_breaks.value(), 0u);
    EXPECT_THAT(m_manager->calls,
                ElementsAre(Call{"created", 7, 10}, Call{"media", 7, 11}, Call{"media", 7, 12}));
}

TEST_F(MediaSessionManagerTest, a_gap_is_counted_and_passed_on_and_the_late_packet_counts_once_more) {
    start(start_packet().id(7).seq(10));
    data(data_packet().id(7).seq(13));
    EXPECT_EQ(m_statistic.lost_packets.value(), 2u);
    EXPECT_EQ(m_statistic.sequence_breaks.value(), 0u);
    data(data_packet().id(7).seq(12));
    EXPECT_EQ(m_statistic.lost_packets.value(), 2u);
    EXPECT_EQ(m_statistic.sequence_breaks.value(), 1u);
    EXPECT_EQ(m_manager->find(7)->m_seq, 13u);
    EXPECT_THAT(m_manager->calls, ElementsAre(Call{"created", 7, 10}, Call{"media", 7, 13}));
}

TEST_F(MediaSessionManagerTest, sequence_numbers_are_compared_unsigned_over_their_whole_range) {
    struct Case {
        const char* description;
        uint64_t first;
        uint64_t next;
        uint64_t lost;
        uint64_t breaks;
    };
    const std::array<Case, 8> cases = {{
        {"one below", 10, 9, 0, 1},
        {"equal: a repeated packet", 10, 10, 0, 1},
        {"one above", 10, 11, 0, 0},
        {"two above", 10, 12, 1, 0},
        {"across the sign bit", 0x7fffffffffffffff, 0x8000000000000000, 0, 0},
        {"back across the sign bit", 0x8000000000000000, 0x7fffffffffffffff, 0, 1},
        {"from the lowest to the highest", 0, MAX, MAX - 1, 0},
        {"no wrap from the highest to the lowest", MAX, 0, 0, 1},
    }};
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        SessionManagerStatistic statistic;
        RecordingManager manager(&statistic);
        const auto first = pooled(start_packet().id(7).seq(row.first).bytes());
        manager.on_packet(media::view_packet<media::StartPacket>(first->data));
        const auto next = pooled(data_packet().id(7).seq(row.next).bytes());
        manager.on_packet(media::view_packet<media::DataPacket>(next->data));
        EXPECT_EQ(statistic.lost_packets.value(), row.lost);
        EXPECT_EQ(statistic.sequence_breaks.value(), row.breaks);
        EXPECT_EQ(manager.find(7)->m_seq, row.breaks == 0 ? row.next : row.first);
        EXPECT_EQ(manager.calls.size(), row.breaks == 0 ? 2u : 1u);
    }
}

TEST_F(MediaSessionManagerTest, a_dropped_packet_leaves_place_and_activity_of_its_session) {
    start(start_packet().id(1).seq(10).mt(100));
    start(start_packet().id(2).seq(10).mt(100));
    const uint64_t activity_us = m_manager->find(1)->m_last_activity_us;
    data(data_packet().id(1).seq(10).mt(900));
    data(data_packet().id(1).seq(9).mt(900));
    EXPECT_EQ(m_manager->find(1)->m_last_activity_us, activity_us);
    EXPECT_THAT(m_manager->order(), ElementsAre(1, 2));
}

TEST_F(MediaSessionManagerTest, an_accepted_packet_moves_its_session_to_the_back_wherever_it_stands) {
    for (const uint64_t id : {1u, 2u, 3u, 4u}) {
        start(start_packet().id(id).seq(1));
    }
    data(data_packet().id(1).seq(2)); // from the front
    EXPECT_THAT(m_manager->order(), ElementsAre(2, 3, 4, 1));
    data(data_packet().id(3).seq(2)); // from the middle
    EXPECT_THAT(m_manager->order(), ElementsAre(2, 4, 1, 3));
    data(data_packet().id(3).seq(3)); // from the back
    EXPECT_THAT(m_manager->order(), ElementsAre(2, 4, 1, 3));
    EXPECT_TRUE(m_manager->is_consistent());
    EXPECT_EQ(m_manager->find(3)->reference_count(), 2);
}

TEST_F(MediaSessionManagerTest, activity_is_the_media_time_projected_onto_the_local_clock_without_a_sign) {
    struct Case {
        const char* description;
        int64_t created_us;
        uint64_t start_mt;
        uint64_t mt;
        uint64_t activity_us;
    };
    const std::array<Case, 10> cases = {{
        {"media time has moved on", 5'000, 100, 350, 5'250},
        {"media time stands still", 5'000, 100, 100, 5'000},
        {"media time moved back a little", 5'000, 100, 40, 4'940},
        {"back by one less than the clock shows", 1'000, 5'000, 4'001, 1},
        {"back by what the clock shows", 1'000, 5'000, 4'000, 0},
        {"back by one more: the sum wraps", 1'000, 5'000, 3'999, MAX},
        {"back to the lowest media time", 0, MAX, 0, 1},
        {"ahead to the highest media time", 1'000, 0, MAX, 999},
        {"a clock at its highest value", std::numeric_limits<int64_t>::max(), 0, 1, 0x8000000000000000},
        {"a clock below zero", -1, 0, 0, MAX},
    }};
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        TestClock::now_us = row.created_us;
        RecordingManager manager(nullptr);
        const auto first = pooled(start_packet().id(7).seq(1).mt(row.start_mt).bytes());
        manager.on_packet(media::view_packet<media::StartPacket>(first->data));
        EXPECT_EQ(manager.find(7)->m_last_activity_us, static_cast<uint64_t>(row.created_us));
        TestClock::now_us = 77'777; // the time of arrival is of no account
        const auto next = pooled(data_packet().id(7).seq(2).mt(row.mt).bytes());
        manager.on_packet(media::view_packet<media::DataPacket>(next->data));
        EXPECT_EQ(manager.find(7)->m_last_activity_us, row.activity_us);
        EXPECT_EQ(manager.calls.size(), 2u);
    }
}

TEST_F(MediaSessionManagerTest, a_data_packet_of_a_known_session_asks_for_no_time_and_stores_no_gauge) {
    start(start_packet().id(7).seq(1));
    TestClock::reads = 0;
    m_statistic.session_number.set(77);
    data(data_packet().id(7).seq(2));
    data(data_packet().id(7).seq(2));
    EXPECT_EQ(TestClock::reads, 0);
    EXPECT_EQ(m_statistic.session_number.value(), 77u);
}

TEST_F(MediaSessionManagerTest, a_hook_may_rewrite_the_packet_without_harm_to_the_numbering) {
    m_manager->rewrites = true;
    EXPECT_EQ(test::seq_of(start(start_packet().id(7).seq(10))), 0xEEEEEEEEu);
    EXPECT_EQ(test::seq_of(data(data_packet().id(7).seq(11))), 0xEEEEEEEEu);
    EXPECT_EQ(m_manager->find(7)->m_seq, 11u);
    EXPECT_EQ(test::seq_of(terminate(terminate_packet().id(7).seq(12))), 0xEEEEEEEEu);
    EXPECT_EQ(m_statistic.lost_packets.value(), 0u);
    EXPECT_EQ(m_statistic.sequence_breaks.value(), 0u);
}

TEST_F(MediaSessionManagerTest, a_session_in_the_table_that_is_null_is_reported_and_left_alone) {
    m_manager->enter_null(7);
    const CapturedLog captured;
    tell({7, 7, 7, 7, 7});
    data(data_packet().id(7).seq(1));
    terminate(terminate_packet().id(7).seq(2));
    const std::string uuid = DEFAULT_UUID_TEXT;
    EXPECT_THAT(captured.texts(Level::ERROR),
                ElementsAre("SESSION_MANAGER: Memory corruption may be happened: session " + uuid +
                                " is null but must exist",
                            "SESSION_MANAGER: Memory corruption might have happened: session " + uuid +
                                " is null but must exist"));
    EXPECT_THAT(captured.lines(), SizeIs(2));
    EXPECT_THAT(m_manager->calls, IsEmpty());
    EXPECT_EQ(m_manager->table_size(), 1u);
    EXPECT_EQ(m_statistic.unknown_index_errors.value(), 0u);
    EXPECT_EQ(m_statistic.zombie_number.value(), 0u);
    m_manager.reset(); // its list and its table differ by intent
}

// ---- A terminate packet

TEST_F(MediaSessionManagerTest, a_terminate_packet_removes_the_session_and_calls_the_hook_behind_that) {
    start(start_packet().id(7).seq(10));
    start(start_packet().id(8).seq(10));
    m_manager->on_hook = [this](const std::string&, Session& session) {
        EXPECT_EQ(session.m_id, 7u);
        EXPECT_EQ(m_manager->find(7), nullptr) << "removed before the hook";
        EXPECT_THAT(m_manager->order(), ElementsAre(8));
        EXPECT_TRUE(m_manager->is_at_end(session));
        EXPECT_EQ(m_statistic.session_number.value(), 1u);
    };
    terminate(terminate_packet().id(7).seq(11));
    EXPECT_THAT(m_manager->calls,
                ElementsAre(Call{"created", 7, 10}, Call{"created", 8, 10}, Call{"terminated", 7, 11}));
}

TEST_F(MediaSessionManagerTest, a_terminate_packet_counts_gaps_and_breaks_and_ends_the_session_all_the_same) {
    struct Case {
        const char* description;
        uint64_t seq;
        uint64_t lost;
        uint64_t breaks;
    };
    const std::array<Case, 5> cases = {{
        {"below", 9, 0, 1},
        {"equal", 10, 0, 1},
        {"next", 11, 0, 0},
        {"behind a gap of three", 14, 3, 0},
        {"the highest", MAX, MAX - 11, 0},
    }};
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        SessionManagerStatistic statistic;
        RecordingManager manager(&statistic);
        const auto first = pooled(start_packet().id(7).seq(10).bytes());
        manager.on_packet(media::view_packet<media::StartPacket>(first->data));
        uint64_t seq_in_hook = 0;
        manager.on_hook = [&](const std::string&, Session& session) { seq_in_hook = session.m_seq; };
        const auto last = pooled(terminate_packet().id(7).seq(row.seq).bytes());
        manager.on_packet(media::view_packet<media::TerminatePacket>(last->data));
        EXPECT_EQ(statistic.lost_packets.value(), row.lost);
        EXPECT_EQ(statistic.sequence_breaks.value(), row.breaks);
        EXPECT_EQ(seq_in_hook, 10u) << "the session's number is not moved any more";
        EXPECT_THAT(manager.calls, ElementsAre(Call{"created", 7, 10}, Call{"terminated", 7, row.seq}));
        EXPECT_EQ(manager.table_size(), 0u);
        EXPECT_EQ(statistic.session_number.value(), 0u);
    }
}

TEST_F(MediaSessionManagerTest, a_session_that_has_ended_is_freed_and_its_id_may_begin_anew) {
    start(start_packet().id(7).seq(10).call_id("first"));
    rc_ptr<Session> first(m_manager->find(7));
    terminate(terminate_packet().id(7).seq(11));
    EXPECT_EQ(first->reference_count(), 1) << "somebody still holds the session";
    start(start_packet().id(7).seq(3).call_id("second"));
    ASSERT_NE(m_manager->find(7), nullptr);
    EXPECT_EQ(m_manager->find(7)->m_call_id, "second");
    data(data_packet().id(7).seq(4));
    EXPECT_EQ(m_statistic.sequence_breaks.value(), 0u);
    EXPECT_EQ(m_statistic.existing_index_errors.value(), 0u);
    EXPECT_EQ(m_manager->calls.back(), (Call{"media", 7, 4}));
}

TEST_F(MediaSessionManagerTest, a_terminate_packet_of_an_unknown_id_is_counted_and_leaves_the_table_empty) {
    const CapturedLog captured;
    terminate(terminate_packet().id(7).seq(11));
    EXPECT_EQ(m_statistic.unknown_index_errors.value(), 1u);
    EXPECT_EQ(m_statistic.zombie_number.value(), 0u);
    EXPECT_EQ(m_statistic.session_number.value(), 0u);
    EXPECT_EQ(m_manager->table_size(), 0u);
    EXPECT_THAT(m_manager->calls, IsEmpty());
    EXPECT_THAT(captured.texts(), IsEmpty()) << "this line does not go through the logger's sink";
}

TEST_F(MediaSessionManagerTest,
       unknown_sessions_are_traced_straight_to_syslog_once_per_terminate_and_data_id) {
    const auto lines = traced([this] {
        terminate(terminate_packet().id(7).seq(11).mt(MAX));
        terminate(terminate_packet().id(7).seq(12).mt(22));
        data(data_packet().id(8).seq(13).mt(33).side(255));
        data(data_packet().id(8).seq(14).mt(34));
        data(data_packet().id(9).seq(15).mt(35));
    });
    const std::string uuid = DEFAULT_UUID_TEXT;
    const std::vector<std::string> expected = {
        "TERM  | mt: 18446744073709551615, uuid: " + uuid + ", seq: 11 | unknown session",
        "TERM  | mt: 22, uuid: " + uuid + ", seq: 12 | unknown session",
        "DATA  | mt: 33, uuid: " + uuid + ", seq: 13, side: 255 | unknown session",
        "DATA  | mt: 35, uuid: " + uuid + ", seq: 15, side: 0 | unknown session",
    };
    ASSERT_THAT(lines, SizeIs(expected.size()));
    for (std::size_t index = 0; index < expected.size(); ++index) {
        EXPECT_EQ(lines[index].text, "WARNING | " + expected[index] + "\n");
        EXPECT_EQ(lines[index].priority, LOG_LOCAL1 | LOG_WARNING);
    }
}

TEST_F(MediaSessionManagerTest, unknown_sessions_are_not_traced_at_the_threshold_of_errors) {
    EXPECT_THAT(traced([this] {
                    log::Logger::m_instance.m_level = Level::ERROR;
                    terminate(terminate_packet().id(7));
                    data(data_packet().id(8));
                }),
                IsEmpty());
}

// ---- The end of the table

TEST_F(MediaSessionManagerTest, its_end_lets_go_of_all_sessions_and_leaves_the_gauge_as_it_was) {
    start(start_packet().id(1));
    data(data_packet().id(2));
    const rc_ptr<Session> live(m_manager->find(1));
    const rc_ptr<Session> zombie(m_manager->find(2));
    EXPECT_EQ(live->reference_count(), 3);
    m_manager.reset();
    EXPECT_EQ(live->reference_count(), 1);
    EXPECT_EQ(zombie->reference_count(), 1);
    EXPECT_EQ(m_statistic.session_number.value(), 2u);
}

// ---- Zombies

TEST_F(MediaSessionManagerTest,
       a_data_packet_of_an_unknown_id_leaves_a_zombie_that_takes_up_the_rest_in_silence) {
    const CapturedLog captured;
    data(data_packet().id(7).seq(50).mt(900));
    EXPECT_EQ(m_statistic.unknown_index_errors.value(), 1u);
    EXPECT_EQ(m_statistic.zombie_number.value(), 1u);
    EXPECT_EQ(m_statistic.session_number.value(), 1u);
    Session* const zombie = m_manager->find(7);
    ASSERT_NE(zombie, nullptr);
    EXPECT_TRUE(zombie->m_zombie);
    EXPECT_EQ(zombie->m_seq, 50u);
    EXPECT_EQ(zombie->m_start_mt, 900u);
    EXPECT_EQ(zombie->m_created_us, START_US);

    for (const uint64_t seq : {51u, 60u, 50u, 3u}) {
        data(data_packet().id(7).seq(seq).mt(900));
    }
    EXPECT_EQ(m_statistic.unknown_index_errors.value(), 1u);
    EXPECT_EQ(m_statistic.zombie_number.value(), 1u);
    EXPECT_EQ(m_statistic.session_number.value(), 1u);
    EXPECT_EQ(m_statistic.lost_packets.value(), 0u);
    EXPECT_EQ(m_statistic.sequence_breaks.value(), 0u);
    EXPECT_EQ(zombie->m_seq, 50u);
    EXPECT_THAT(m_manager->calls, IsEmpty());
    EXPECT_THAT(captured.texts(), IsEmpty());
}

TEST_F(MediaSessionManagerTest, a_data_packet_keeps_a_zombie_alive_whatever_its_number) {
    data(data_packet().id(7).seq(50).mt(900));
    start(start_packet().id(8));
    EXPECT_THAT(m_manager->order(), ElementsAre(7, 8));
    data(data_packet().id(7).seq(1).mt(1'400));
    EXPECT_EQ(m_manager->find(7)->m_last_activity_us, static_cast<uint64_t>(START_US) + 500);
    EXPECT_THAT(m_manager->order(), ElementsAre(8, 7));
}

TEST_F(MediaSessionManagerTest, a_start_packet_behind_the_data_of_its_id_finds_the_zombie_and_is_lost) {
    data(data_packet().id(7).seq(2));
    const Session* const zombie = m_manager->find(7);
    const CapturedLog captured;
    start(start_packet().id(7).seq(1));
    EXPECT_EQ(m_statistic.existing_index_errors.value(), 1u);
    EXPECT_THAT(captured.texts(Level::WARNING), ElementsAre(std::string("SESSION_MANAGER: Session ") +
                                                            DEFAULT_UUID_TEXT + " already exists"));
    EXPECT_EQ(m_manager->find(7), zombie);
    EXPECT_THAT(m_manager->calls, IsEmpty());
    data(data_packet().id(7).seq(3));
    EXPECT_THAT(m_manager->calls, IsEmpty());
}

TEST_F(MediaSessionManagerTest, a_terminate_packet_removes_a_zombie_in_silence) {
    const auto lines = traced([this] {
        data(data_packet().id(7).seq(10));
        const CapturedLog captured;
        const uint64_t unknown = m_statistic.unknown_index_errors.value();
        terminate(terminate_packet().id(7).seq(20));
        EXPECT_EQ(m_manager->table_size(), 0u);
        EXPECT_EQ(m_statistic.session_number.value(), 0u);
        EXPECT_EQ(m_statistic.unknown_index_errors.value(), unknown);
        EXPECT_EQ(m_statistic.lost_packets.value(), 0u);
        EXPECT_EQ(m_statistic.sequence_breaks.value(), 0u);
        EXPECT_EQ(m_statistic.zombie_number.value(), 1u) << "a running total";
        EXPECT_THAT(m_manager->calls, IsEmpty());
        EXPECT_THAT(captured.texts(), IsEmpty());
    });
    EXPECT_THAT(lines, SizeIs(1)) << "the line of the data packet and no other";
}

TEST_F(MediaSessionManagerTest,
       late_data_behind_a_terminate_leaves_a_zombie_until_300_s_after_the_last_of_them) {
    start(start_packet().id(7).seq(1).mt(1'000));
    terminate(terminate_packet().id(7).seq(2).mt(2'000));
    const auto lines = traced([this] {
        data(data_packet().id(7).seq(3).mt(3'000));
        TestClock::now_us = START_US + 5'000;
        data(data_packet().id(7).seq(4).mt(8'000)); // 5000 us of media time behind the first
        EXPECT_EQ(m_statistic.unknown_index_errors.value(), 1u);
        TestClock::now_us = START_US + 5'000 + static_cast<int64_t>(TIMEOUT_US) - 1;
        EXPECT_FALSE(m_manager->audit());
        EXPECT_EQ(m_manager->table_size(), 1u);
        TestClock::now_us += 1;
        EXPECT_TRUE(m_manager->audit());
        EXPECT_EQ(m_manager->table_size(), 0u);
        EXPECT_THAT(m_manager->calls, ElementsAre(Call{"created", 7, 1}, Call{"terminated", 7, 2}));
    });
    EXPECT_THAT(lines, SizeIs(2)) << "one line for the first late packet, one for the timeout";
}

// ---- Audit

class MediaSessionManagerAuditTest : public MediaSessionManagerTest {
protected:
    void enter(uint64_t first, uint64_t count) {
        for (uint64_t id = first; id < first + count; ++id) {
            start(start_packet().id(id));
        }
        m_manager->calls.clear();
    }
    static void pass_us(uint64_t time_us) { TestClock::now_us += static_cast<int64_t>(time_us); }
};

TEST_F(MediaSessionManagerAuditTest, an_empty_table_is_audited_without_a_result) {
    m_statistic.session_number.set(77);
    EXPECT_FALSE(m_manager->on_packet_idle());
    EXPECT_EQ(m_statistic.audit_calls.value(), 1u);
    EXPECT_EQ(m_statistic.audit_executions.value(), 0u);
    EXPECT_EQ(m_statistic.session_number.value(), 0u);
}

TEST_F(MediaSessionManagerAuditTest, a_session_expires_300_s_after_its_last_activity_and_not_before) {
    struct Case {
        const char* description;
        uint64_t silent_us;
        bool expires;
    };
    const std::array<Case, 3> cases = {{
        {"one microsecond before", TIMEOUT_US - 1, false},
        {"at the very moment", TIMEOUT_US, true},
        {"one microsecond behind", TIMEOUT_US + 1, true},
    }};
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        TestClock::now_us = START_US;
        enter(7, 1);
        pass_us(row.silent_us);
        EXPECT_EQ(m_manager->audit(), row.expires);
        EXPECT_EQ(m_manager->table_size(), row.expires ? 0u : 1u);
        EXPECT_EQ(m_statistic.session_number.value(), row.expires ? 0u : 1u);
        terminate(terminate_packet().id(7));
    }
}

TEST_F(MediaSessionManagerAuditTest, the_sum_of_activity_and_timeout_wraps_as_an_unsigned_number) {
    struct Case {
        const char* description;
        uint64_t activity_us;
        int64_t now_us;
        bool expires;
    };
    const std::array<Case, 7> cases = {{
        {"no wrap: alive for ever", MAX - TIMEOUT_US, std::numeric_limits<int64_t>::max(), false},
        {"a sum of zero has always expired", MAX - TIMEOUT_US + 1, 0, true},
        {"a sum of one is ahead of zero", MAX - TIMEOUT_US + 2, 0, false},
        {"the highest activity, before its sum", MAX, 299'999'998, false},
        {"the highest activity, at its sum", MAX, 299'999'999, true},
        {"the lowest activity, before its sum", 0, 299'999'999, false},
        {"the lowest activity, at its sum", 0, 300'000'000, true},
    }};
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        TestClock::now_us = 0;
        RecordingManager manager(nullptr);
        const auto first = pooled(start_packet().id(7).seq(1).mt(0).bytes());
        manager.on_packet(media::view_packet<media::StartPacket>(first->data));
        const auto next = pooled(data_packet().id(7).seq(2).mt(row.activity_us).bytes());
        manager.on_packet(media::view_packet<media::DataPacket>(next->data));
        ASSERT_EQ(manager.find(7)->m_last_activity_us, row.activity_us);
        TestClock::now_us = row.now_us;
        EXPECT_EQ(manager.audit(), row.expires);
        EXPECT_EQ(manager.table_size(), row.expires ? 0u : 1u);
    }
}

TEST_F(MediaSessionManagerAuditTest, one_pass_removes_ten_and_a_backlog_goes_in_groups) {
    enter(1, 25);
    pass_us(TIMEOUT_US);
    std::vector<uint64_t> left;
    std::vector<bool> results;
    for (int pass = 0; pass < 4; ++pass) {
        results.push_back(m_manager->on_packet_idle());
        left.push_back(m_statistic.session_number.value());
    }
    EXPECT_THAT(results, ElementsAre(true, true, true, false));
    EXPECT_THAT(left, ElementsAre(15, 5, 0, 0));
    EXPECT_EQ(m_statistic.audit_calls.value(), 4u);
    EXPECT_EQ(m_statistic.audit_executions.value(), 3u);
    ASSERT_THAT(m_manager->calls, SizeIs(25));
    for (uint64_t id = 1; id <= 25; ++id) {
        EXPECT_EQ(m_manager->calls[id - 1], (Call{"timedout", id, 0})) << "the oldest first";
    }
}

TEST_F(MediaSessionManagerAuditTest, exactly_ten_expired_sessions_are_one_pass) {
    enter(1, 10);
    pass_us(TIMEOUT_US);
    EXPECT_TRUE(m_manager->audit());
    EXPECT_EQ(m_manager->table_size(), 0u);
    EXPECT_FALSE(m_manager->audit());
}

TEST_F(MediaSessionManagerAuditTest, an_eleventh_expired_session_waits_for_the_next_pass) {
    enter(1, 11);
    pass_us(TIMEOUT_US);
    EXPECT_TRUE(m_manager->audit());
    EXPECT_THAT(m_manager->order(), ElementsAre(11));
    EXPECT_TRUE(m_manager->audit());
    EXPECT_EQ(m_manager->table_size(), 0u);
}

TEST_F(MediaSessionManagerAuditTest, a_pass_that_removed_some_and_met_a_live_one_has_removed_some) {
    enter(1, 3);
    pass_us(1);
    enter(4, 2);
    pass_us(TIMEOUT_US - 1);
    EXPECT_TRUE(m_manager->audit());
    EXPECT_THAT(m_manager->order(), ElementsAre(4, 5));
    EXPECT_EQ(m_statistic.session_number.value(), 2u);
    EXPECT_FALSE(m_manager->audit());
}

TEST_F(MediaSessionManagerAuditTest, a_pass_looks_no_further_than_the_first_live_session) {
    start(start_packet().id(1).seq(1).mt(0));
    start(start_packet().id(2).seq(1).mt(10'000'000));
    data(data_packet().id(1).seq(2).mt(100'000'000)); // at the back now, well ahead of the clock
    data(data_packet().id(2).seq(2).mt(0));           // behind it, although its activity lies 10 s back
    ASSERT_THAT(m_manager->order(), ElementsAre(1, 2));
    pass_us(TIMEOUT_US);
    EXPECT_FALSE(m_manager->audit());
    EXPECT_EQ(m_manager->table_size(), 2u);
    terminate(terminate_packet().id(1).seq(3));
    EXPECT_TRUE(m_manager->audit()) << "it has reached the front";
    EXPECT_EQ(m_manager->table_size(), 0u);
}

TEST_F(MediaSessionManagerAuditTest, a_removed_session_is_out_of_the_table_when_its_hook_is_called) {
    enter(7, 2);
    pass_us(TIMEOUT_US);
    int checked = 0;
    m_manager->on_hook = [&](const std::string&, Session& session) {
        EXPECT_EQ(m_manager->find(session.m_id), nullptr);
        EXPECT_TRUE(m_manager->is_at_end(session));
        EXPECT_TRUE(m_manager->is_consistent());
        EXPECT_EQ(m_statistic.session_number.value(), 2u) << "stored at the end of the pass";
        ++checked;
    };
    EXPECT_TRUE(m_manager->audit());
    EXPECT_EQ(checked, 2);
    EXPECT_EQ(m_statistic.session_number.value(), 0u);
}

TEST_F(MediaSessionManagerAuditTest, a_removed_session_is_freed) {
    enter(7, 1);
    const rc_ptr<Session> session(m_manager->find(7));
    pass_us(TIMEOUT_US);
    m_manager->audit();
    EXPECT_EQ(session->reference_count(), 1);
}

TEST_F(MediaSessionManagerAuditTest, timeouts_are_traced_to_syslog_behind_the_hook_which_zombies_do_not_get) {
    const auto lines = traced([this] {
        start(start_packet().id(1).uuid({0x01}));
        pass_us(5);
        data(data_packet().id(2).uuid({0x02})); // a zombie
        m_manager->calls.clear();
        const CapturedLog captured;
        m_manager->on_hook = [](const std::string& hook, Session&) {
            log::Syslog::write("test", 1, log::LocalLevel::local_level_packet, log::WarningMessage() << hook);
        };
        pass_us(TIMEOUT_US);
        EXPECT_TRUE(m_manager->audit());
        EXPECT_THAT(m_manager->calls, ElementsAre(Call{"timedout", 1, 0}));
        EXPECT_THAT(captured.texts(), IsEmpty()) << "these lines do not go through the logger's sink";
    });
    ASSERT_THAT(lines, SizeIs(4));
    EXPECT_EQ(lines[1].text, "WARNING | timedout\n");
    EXPECT_EQ(lines[2].text, "WARNING | SESSION_MANAGER: Timeout for session "
                             "01000000-0000-0000-0000-000000000000: 1000000000000 1000300000005\n");
    EXPECT_EQ(lines[3].text, "WARNING | SESSION_MANAGER: Timeout for session "
                             "02000000-0000-0000-0000-000000000000: 1000000000005 1000300000005\n");
    for (const test::SyslogLine& line : lines) {
        EXPECT_EQ(line.priority, LOG_LOCAL1 | LOG_WARNING);
    }
}

TEST_F(MediaSessionManagerAuditTest, the_clock_is_read_once_for_each_pass) {
    TestClock::reads = 0;
    m_manager->audit();
    EXPECT_EQ(TestClock::reads, 1) << "an empty table";
    enter(1, 12);
    pass_us(TIMEOUT_US);
    TestClock::reads = 0;
    m_manager->audit();
    EXPECT_EQ(TestClock::reads, 1) << "ten removed";
}

TEST_F(MediaSessionManagerAuditTest, a_pass_without_a_result_stores_the_gauge_too) {
    enter(1, 3);
    m_statistic.session_number.set(77);
    EXPECT_FALSE(m_manager->audit());
    EXPECT_EQ(m_statistic.session_number.value(), 3u);
}

TEST_F(MediaSessionManagerAuditTest, rounds_of_the_reader_audit_above_10000_entries_only) {
    enter(1, 10'000);
    pass_us(TIMEOUT_US);
    m_manager->on_packet_try();
    EXPECT_EQ(m_statistic.audit_calls.value(), 0u);
    EXPECT_EQ(m_manager->table_size(), 10'000u);

    TestClock::now_us = START_US;
    enter(10'001, 1);
    m_manager->on_packet_try();
    EXPECT_EQ(m_statistic.audit_calls.value(), 1u);
    EXPECT_EQ(m_statistic.audit_executions.value(), 0u);

    pass_us(TIMEOUT_US);
    m_manager->on_packet_try();
    EXPECT_EQ(m_statistic.audit_calls.value(), 2u);
    EXPECT_EQ(m_statistic.audit_executions.value(), 1u);
    EXPECT_EQ(m_manager->table_size(), 9'991u);

    m_manager->on_packet_try();
    EXPECT_EQ(m_statistic.audit_calls.value(), 2u) << "below the threshold again";
    EXPECT_TRUE(m_manager->on_packet_idle());
    EXPECT_EQ(m_statistic.audit_calls.value(), 3u);
    EXPECT_EQ(m_statistic.audit_executions.value(), 2u);
}

TEST_F(MediaSessionManagerAuditTest, both_hooks_of_the_reader_call_the_audit_of_the_derived_class) {
    struct Audited : RecordingManager {
        using RecordingManager::RecordingManager;
        bool audit() override {
            ++audits;
            return result;
        }
        int audits = 0;
        bool result = true;
    };
    Audited manager(&m_statistic);
    EXPECT_TRUE(manager.on_packet_idle());
    manager.result = false;
    EXPECT_FALSE(manager.on_packet_idle());
    manager.on_packet_try();
    EXPECT_EQ(manager.audits, 2);
    EXPECT_EQ(m_statistic.audit_calls.value(), 2u);
    EXPECT_EQ(m_statistic.audit_executions.value(), 1u);
}

TEST_F(MediaSessionManagerAuditTest,
       a_sender_whose_media_time_stands_still_loses_its_session_300_s_after_its_start) {
    start(start_packet().id(7).seq(1).mt(500));
    for (uint64_t seq = 2; seq < 31; ++seq) {
        pass_us(10'000'000);
        data(data_packet().id(7).seq(seq).mt(500));
        ASSERT_FALSE(m_manager->audit());
    }
    pass_us(10'000'000);
    EXPECT_TRUE(m_manager->audit());
    EXPECT_EQ(m_manager->calls.back(), (Call{"timedout", 7, 0}));
}

TEST_F(MediaSessionManagerAuditTest, a_sender_whose_media_time_runs_ahead_keeps_its_session_for_longer) {
    start(start_packet().id(7).seq(1).mt(0));
    data(data_packet().id(7).seq(2).mt(1'000'000'000));
    pass_us(1'000'000'000 + TIMEOUT_US - 1);
    EXPECT_FALSE(m_manager->audit());
    pass_us(1);
    EXPECT_TRUE(m_manager->audit());
}

TEST_F(MediaSessionManagerAuditTest, media_of_a_timed_out_session_leaves_a_zombie_and_a_start_is_refused) {
    start(start_packet().id(7).seq(1));
    pass_us(TIMEOUT_US);
    ASSERT_TRUE(m_manager->audit());
    m_manager->calls.clear();
    data(data_packet().id(7).seq(2));
    EXPECT_EQ(m_statistic.unknown_index_errors.value(), 1u);
    EXPECT_EQ(m_statistic.zombie_number.value(), 1u);
    start(start_packet().id(7).seq(3));
    EXPECT_EQ(m_statistic.existing_index_errors.value(), 1u);
    EXPECT_THAT(m_manager->calls, IsEmpty());
}

TEST(MediaSessionManagerClockTest, the_default_clock_is_the_steady_one_in_microseconds) {
    timespec before{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    const int64_t now_us = media::steady_clock_us();
    timespec after{};
    clock_gettime(CLOCK_MONOTONIC, &after);
    const auto microseconds = [](const timespec& time) {
        return int64_t{time.tv_sec} * 1'000'000 + time.tv_nsec / 1'000;
    };
    EXPECT_GE(now_us, microseconds(before));
    EXPECT_LE(now_us, microseconds(after));
}

// ---- Random traffic against a model

/// The rules of the table, written down a second time in the plainest way.
class Model {
public:
    struct Entry {
        uint64_t id;
        uint64_t seq;
        uint64_t start_mt;
        uint64_t created_us;
        uint64_t activity_us;
        bool zombie;
    };

    void start(uint64_t id, uint64_t seq, uint64_t mt, uint64_t now_us) {
        if (find(id) != entries.end()) {
            ++existing_index_errors;
            return;
        }
        entries.push_back({id, seq, mt, now_us, now_us, false});
        calls.push_back({"created", id, seq});
    }
    void data(uint64_t id, uint64_t seq, uint64_t mt, uint64_t now_us) {
        const auto found = find(id);
        if (found == entries.end()) {
            ++unknown_index_errors;
            ++zombie_number;
            entries.push_back({id, seq, mt, now_us, now_us, true});
            return;
        }
        Entry entry = *found;
        if (!entry.zombie && seq <= entry.seq) {
            ++sequence_breaks;
            return;
        }
        if (!entry.zombie) {
            lost_packets += seq - entry.seq - 1;
            entry.seq = seq;
            calls.push_back({"media", id, seq});
        }
        entry.activity_us = entry.created_us - entry.start_mt + mt;
        entries.erase(found);
        entries.push_back(entry);
    }
    void terminate(uint64_t id, uint64_t seq) {
        const auto found = find(id);
        if (found == entries.end()) {
            ++unknown_index_errors;
            return;
        }
        const Entry entry = *found;
        entries.erase(found);
        if (entry.zombie) {
            return;
        }
        if (seq > entry.seq) {
            lost_packets += seq - entry.seq - 1;
        } else {
            ++sequence_breaks;
        }
        calls.push_back({"terminated", id, seq});
    }
    bool audit(uint64_t now_us) {
        int removed = 0;
        while (removed < 10 && !entries.empty() && entries.front().activity_us + 300'000'000 <= now_us) {
            if (!entries.front().zombie) {
                calls.push_back({"timedout", entries.front().id, 0});
            }
            entries.pop_front();
            ++removed;
        }
        return removed > 0;
    }
    std::vector<uint64_t> order() const {
        std::vector<uint64_t> ids;
        for (const Entry& entry : entries) {
            ids.push_back(entry.id);
        }
        return ids;
    }

    std::list<Entry> entries;
    std::vector<Call> calls;
    uint64_t existing_index_errors = 0;
    uint64_t unknown_index_errors = 0;
    uint64_t zombie_number = 0;
    uint64_t lost_packets = 0;
    uint64_t sequence_breaks = 0;

private:
    std::list<Entry>::iterator find(uint64_t id) {
        return std::find_if(entries.begin(), entries.end(),
                            [id](const Entry& entry) { return entry.id == id; });
    }
};

TEST_F(MediaSessionManagerTest, what_waits_in_the_ring_may_be_anything_and_changes_nothing) {
    constexpr std::array<uint64_t, 5> AHEAD = {1, 2, 3, 4, 5};
    tell(AHEAD); // an empty table
    start(start_packet().id(1).seq(10));
    tell({1, 1, 1, 1, 1}); // a session without neighbours
    start(start_packet().id(2).seq(20));
    data(data_packet().id(3)); // a zombie
    for (std::array<uint64_t, 5> ids = AHEAD; std::next_permutation(ids.begin(), ids.end());) {
        tell(ids); // the first and the last of the list, two that are in no table
        m_manager->on_packet_ahead(nullptr);
    }
    EXPECT_THAT(m_manager->order(), ElementsAre(1, 2, 3));
    EXPECT_THAT(m_manager->calls, ElementsAre(Call{"created", 1, 10}, Call{"created", 2, 20}));
    EXPECT_EQ(m_statistic.session_number.value(), 3u);
    EXPECT_EQ(m_statistic.unknown_index_errors.value(), 1u) << "of the zombie's packet";
    EXPECT_EQ(m_manager->find(1)->reference_count(), 2) << "list and table";
}

TEST_F(MediaSessionManagerTest, random_traffic_agrees_with_a_model) {
    std::random_device source;
    const auto seed = source();
    std::mt19937_64 random(seed);
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::cout << "seed " << seed << "\n";

    Model model;
    uint64_t audits = 0;
    uint64_t productive_audits = 0;
    const CapturedLog captured(Level::ERROR); // thousands of tracing lines are of no use here
    for (int step = 0; step < 20'000; ++step) {
        const uint64_t id = random() % 24;
        const uint64_t seq = random() % 40;
        const uint64_t mt = random() % 8 == 0 ? random() : random() % 400'000'000;
        TestClock::now_us += static_cast<int64_t>(random() % 40'000'000);
        const auto now_us = static_cast<uint64_t>(TestClock::now_us);
        for (uint64_t told = random() % 3; told > 0; --told) {
            tell({random() % 24});
        }
        if (random() % 4 == 0) {
            m_manager->on_packet_ahead(nullptr);
        }
        switch (random() % 8) {
        case 0:
        case 1:
            start(start_packet().id(id).seq(seq).mt(mt));
            model.start(id, seq, mt, now_us);
            break;
        case 2:
            terminate(terminate_packet().id(id).seq(seq).mt(mt));
            model.terminate(id, seq);
            break;
        case 3: {
            const bool removed_any = model.audit(now_us);
            ASSERT_EQ(m_manager->on_packet_idle(), removed_any) << "step " << step;
            ++audits;
            productive_audits += removed_any ? 1 : 0;
            break;
        }
        default:
            data(data_packet().id(id).seq(seq).mt(mt));
            model.data(id, seq, mt, now_us);
        }
        ASSERT_EQ(m_manager->order(), model.order()) << "step " << step;
        ASSERT_TRUE(m_manager->is_consistent()) << "step " << step;
        ASSERT_EQ(m_statistic.session_number.value(), model.entries.size()) << "step " << step;
        for (const Model::Entry& entry : model.entries) {
            const Session* const session = m_manager->find(entry.id);
            ASSERT_EQ(session->m_last_activity_us, entry.activity_us) << "step " << step;
            ASSERT_EQ(session->m_zombie, entry.zombie) << "step " << step;
            ASSERT_EQ(session->m_seq, entry.seq) << "step " << step;
        }
    }
    EXPECT_EQ(m_manager->calls, model.calls);
    EXPECT_EQ(m_statistic.existing_index_errors.value(), model.existing_index_errors);
    EXPECT_EQ(m_statistic.unknown_index_errors.value(), model.unknown_index_errors);
    EXPECT_EQ(m_statistic.zombie_number.value(), model.zombie_number);
    EXPECT_EQ(m_statistic.lost_packets.value(), model.lost_packets);
    EXPECT_EQ(m_statistic.sequence_breaks.value(), model.sequence_breaks);
    EXPECT_EQ(m_statistic.audit_calls.value(), audits);
    EXPECT_EQ(m_statistic.audit_executions.value(), productive_audits);
    EXPECT_EQ(m_statistic.allocation_errors.value(), 0u);
    // The traffic has met every rule.
    EXPECT_GT(model.existing_index_errors, 0u);
    EXPECT_GT(model.sequence_breaks, 0u);
    EXPECT_GT(model.zombie_number, 0u);
    EXPECT_GT(productive_audits, 0u);
}

} // namespace
