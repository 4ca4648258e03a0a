#include "corvalin_lib/media_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/support/packet_builder.h"
#include "tests/support/pooled_packet.h"

namespace {

using namespace corvalin;
using media::Session;
using media::view_packet;
using test::pooled;
using ::testing::ElementsAreArray;

constexpr int64_t NOW_US = 7'000'000;

TEST(MediaSessionTest, a_live_session_takes_its_fields_from_the_start_packet) {
    const auto buffer = pooled(test::start_packet()
                                   .flags(0xff)
                                   .id(0xfedcba9876543210)
                                   .seq(std::numeric_limits<uint64_t>::max())
                                   .mt(5'000)
                                   .ts(123'456)
                                   .sync_ts(1)
                                   .sync_mt(2)
                                   .rule(3)
                                   .call_id(std::string("call\0rest", 9))
                                   .bytes());
    const rc_ptr<Session> session(new Session(view_packet<media::StartPacket>(buffer->data), NOW_US));
    EXPECT_THAT(session->m_uuid, ElementsAreArray(test::DEFAULT_UUID));
    EXPECT_EQ(session->m_id, 0xfedcba9876543210u);
    EXPECT_EQ(session->m_ts, 123'456u);
    EXPECT_EQ(session->m_start_mt, 5'000u);
    EXPECT_EQ(session->m_created_us, NOW_US);
    EXPECT_EQ(session->m_seq, std::numeric_limits<uint64_t>::max());
    EXPECT_EQ(session->m_call_id, "call");
    EXPECT_EQ(session->m_last_activity_us, 7'000'000u);
    EXPECT_FALSE(session->m_zombie);
}

TEST(MediaSessionTest, a_zombie_takes_its_fields_from_the_header_of_any_packet) {
    const std::vector<test::Bytes> packets = {
        test::data_packet().id(9).seq(8).mt(7).m_flg(0xffff).m_off(0xffffffff).payload_units(2).bytes(),
        test::start_packet().id(9).seq(8).mt(7).ts(99).call_id("call").bytes(),
    };
    for (const test::Bytes& packet : packets) {
        const auto buffer = pooled(packet);
        const rc_ptr<Session> zombie(
            Session::make_zombie(view_packet<media::PacketHeader>(buffer->data), NOW_US));
        EXPECT_THAT(zombie->m_uuid, ElementsAreArray(test::DEFAULT_UUID));
        EXPECT_EQ(zombie->m_id, 9u);
        EXPECT_EQ(zombie->m_ts, 0u);
        EXPECT_EQ(zombie->m_start_mt, 7u);
        EXPECT_EQ(zombie->m_created_us, NOW_US);
        EXPECT_EQ(zombie->m_seq, 8u);
        EXPECT_EQ(zombie->m_call_id, "");
        EXPECT_EQ(zombie->m_last_activity_us, 7'000'000u);
        EXPECT_TRUE(zombie->m_zombie);
    }
}

TEST(MediaSessionTest, a_new_session_belongs_to_nobody) {
    const auto buffer = pooled(test::start_packet().bytes());
    auto* const session = new Session(view_packet<media::StartPacket>(buffer->data), NOW_US);
    EXPECT_EQ(session->reference_count(), 0);
    delete session;
    EXPECT_TRUE(std::has_virtual_destructor_v<Session>);
    EXPECT_TRUE((std::is_base_of_v<ReferenceCountable, Session>));
}

TEST(MediaSessionTest, its_fields_stand_in_the_order_in_which_they_are_used_together) {
    const auto buffer = pooled(test::start_packet().bytes());
    const rc_ptr<Session> session(new Session(view_packet<media::StartPacket>(buffer->data), NOW_US));
    const std::vector<const void*> fields = {
        &session->m_uuid,       &session->m_id,     &session->m_ts,      &session->m_start_mt,
        &session->m_created_us, &session->m_seq,    &session->m_call_id, &session->m_last_activity_us,
        &session->m_node,       &session->m_zombie,
    };
    EXPECT_TRUE(std::is_sorted(fields.begin(), fields.end()));
}

} // namespace
