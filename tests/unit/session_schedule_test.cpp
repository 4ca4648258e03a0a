#include "tools/tool_support/session_schedule.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace corvalin::tools {
namespace {

// "s0.1": start packet of session 0 with number 1; d is data, t terminate.
std::string text_of(const ScheduledPacket& packet) {
    return std::string(1, "sdt"[static_cast<std::size_t>(packet.kind)]) + std::to_string(packet.session) +
           "." + std::to_string(packet.seq);
}

std::string all_of(SessionSchedule& schedule) {
    std::string text;
    ScheduledPacket packet;
    while (schedule.next(packet)) {
        text += (text.empty() ? "" : " ") + text_of(packet);
    }
    return text;
}

ScheduleSettings settings_of(uint64_t sessions, uint64_t data_packets) {
    ScheduleSettings settings;
    settings.sessions = sessions;
    settings.data_packets = data_packets;
    return settings;
}

TEST(SessionScheduleTest, gives_each_session_one_packet_in_turn) {
    SessionSchedule schedule(settings_of(3, 2));
    EXPECT_EQ(all_of(schedule), "s0.1 s1.1 s2.1 d0.2 d1.2 d2.2 d0.3 d1.3 d2.3 t0.4 t1.4 t2.4");
}

TEST(SessionScheduleTest, fills_the_place_of_a_session_that_is_over) {
    ScheduleSettings settings = settings_of(3, 1);
    settings.live = 2;
    SessionSchedule schedule(settings);
    EXPECT_EQ(all_of(schedule), "s0.1 s1.1 d0.2 d1.2 t0.3 t1.3 s2.1 d2.2 t2.3");
}

TEST(SessionScheduleTest, leaves_out_what_is_not_wanted) {
    struct Case {
        const char* description;
        uint64_t data_packets;
        bool with_start;
        bool with_terminate;
        uint64_t first_seq;
        const char* expected;
    };
    const Case cases[] = {
        {"starts only", 0, true, false, 1, "s0.1 s1.1"},
        {"data only", 1, false, false, 2, "d0.2 d1.2"},
        {"terminates only", 0, false, true, 9, "t0.9 t1.9"},
        {"no start", 1, false, true, 2, "d0.2 d1.2 t0.3 t1.3"},
        {"no terminate", 1, true, false, 1, "s0.1 s1.1 d0.2 d1.2"},
        {"no data", 0, true, true, 1, "s0.1 s1.1 t0.2 t1.2"},
        {"nothing", 0, false, false, 1, ""},
    };
    for (const Case& row : cases) {
        ScheduleSettings settings = settings_of(2, row.data_packets);
        settings.with_start = row.with_start;
        settings.with_terminate = row.with_terminate;
        settings.first_seq = row.first_seq;
        for (const SessionOrder order : {SessionOrder::round_robin, SessionOrder::random}) {
            settings.order = order;
            settings.live = order == SessionOrder::random ? 1 : ScheduleSettings::UNLIMITED;
            SessionSchedule schedule(settings);
            const std::string text = all_of(schedule);
            if (order == SessionOrder::round_robin) {
                EXPECT_EQ(text, row.expected) << row.description;
            } else {
                EXPECT_EQ(text.size(), std::string(row.expected).size()) << row.description;
            }
        }
    }
}

TEST(SessionScheduleTest, random_order_keeps_the_order_within_each_session) {
    constexpr uint64_t sessions = 50;
    constexpr uint64_t data_packets = 20;
    ScheduleSettings settings = settings_of(sessions, data_packets);
    settings.order = SessionOrder::random;
    settings.live = 10;
    settings.seed = 3;
    SessionSchedule schedule(settings);
    std::map<uint64_t, uint64_t> last_seq;
    std::map<uint64_t, uint64_t> ended;
    uint64_t changes_of_session = 0;
    ScheduledPacket packet;
    uint64_t previous = sessions;
    while (schedule.next(packet)) {
        ASSERT_EQ(packet.seq, last_seq[packet.session] + 1);
        ASSERT_EQ(packet.kind, packet.seq == 1                  ? PacketKind::start
                               : packet.seq == data_packets + 2 ? PacketKind::terminate
                                                                : PacketKind::data);
        last_seq[packet.session] = packet.seq;
        ended[packet.session] += packet.kind == PacketKind::terminate ? 1 : 0;
        ASSERT_LE(last_seq.size() - ended.size(), 10U);
        changes_of_session += packet.session != previous ? 1 : 0;
        previous = packet.session;
    }
    ASSERT_EQ(last_seq.size(), sessions);
    for (const auto& [session, seq] : last_seq) {
        EXPECT_EQ(seq, data_packets + 2) << session;
    }
    EXPECT_GT(changes_of_session, sessions * data_packets / 2);
}

TEST(SessionScheduleTest, random_order_follows_the_seed) {
    const auto run = [](uint64_t seed) {
        ScheduleSettings settings = settings_of(5, 5);
        settings.order = SessionOrder::random;
        settings.seed = seed;
        SessionSchedule schedule(settings);
        return all_of(schedule);
    };
    EXPECT_EQ(run(1), run(1));
    EXPECT_NE(run(1), run(2));
}

TEST(SessionScheduleTest, goes_on_without_end_until_it_is_told_to_finish) {
    ScheduleSettings settings = settings_of(3, ScheduleSettings::UNLIMITED);
    settings.live = 2;
    SessionSchedule schedule(settings);
    ScheduledPacket packet;
    for (uint64_t i = 0; i < 1001; ++i) {
        ASSERT_TRUE(schedule.next(packet));
    }
    EXPECT_EQ(text_of(packet), "d0.501");
    schedule.finish();
    EXPECT_EQ(all_of(schedule), "t1.501 t0.502"); // session 2 never began
}

TEST(SessionScheduleTest, finish_ends_sessions_that_have_begun_and_begins_no_other) {
    SessionSchedule schedule(settings_of(3, 5));
    ScheduledPacket packet;
    ASSERT_TRUE(schedule.next(packet)); // s0.1
    ASSERT_TRUE(schedule.next(packet)); // s1.1
    schedule.finish();
    EXPECT_EQ(all_of(schedule), "t0.2 t1.2");
}

TEST(SessionScheduleTest, finish_without_terminate_packets_ends_at_once) {
    ScheduleSettings settings = settings_of(3, 5);
    settings.with_terminate = false;
    SessionSchedule schedule(settings);
    ScheduledPacket packet;
    ASSERT_TRUE(schedule.next(packet));
    schedule.finish();
    EXPECT_EQ(all_of(schedule), "");
}

} // namespace
} // namespace corvalin::tools
