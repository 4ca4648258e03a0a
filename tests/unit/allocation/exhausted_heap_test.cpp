// What an exhausted heap does to sessions and zombies.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <string>

#include "corvalin_lib/log.h"
#include "corvalin_lib/media_session.h"
#include "corvalin_lib/media_session_manager.h"
#include "tests/support/captured_log.h"
#include "tests/support/heap/counted_heap.h"
#include "tests/support/packet_builder.h"
#include "tests/support/pooled_packet.h"

namespace {

using namespace corvalin;
using log::Level;
using test::CapturedLog;
using test::data_packet;
using test::DEFAULT_UUID_TEXT;
using test::pooled;
using test::RefusedAllocation;
using test::start_packet;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Manager : public media::SessionManager {
public:
    explicit Manager(media::SessionManagerStatistic* statistic) : SessionManager(statistic) {}

    void on_session_created(rc_ptr<media::Session> /*session*/, media::StartPacket& /*packet*/) override {
        ++hooks;
    }
    uint64_t list_size() const { return m_sessions.size(); }
    uint64_t table_size() const { return m_index.size(); }

    int hooks = 0;
};

class ExhaustedHeapTest : public ::testing::Test {
protected:
    static std::string text(const char* what) {
        return std::string("SESSION_MANAGER: ") + what + " " + DEFAULT_UUID_TEXT + " allocation failed";
    }

    media::SessionManagerStatistic m_statistic;
    Manager m_manager{&m_statistic};
    const CapturedLog m_log{Level::ERROR};
};

TEST_F(ExhaustedHeapTest, create_session_tells_of_any_failed_allocation_by_its_result) {
    // First the session, then a call id that is too long to lie within it, in whatever order.
    const auto buffer = pooled(start_packet().id(7).call_id(std::string(200, 'x')).bytes());
    auto& packet = media::view_packet<media::StartPacket>(buffer->data);
    for (const uint64_t good_allocations : {0u, 1u}) {
        unsigned long result = 1;
        const RefusedAllocation refused(good_allocations);
        EXPECT_EQ(m_manager.create_session(packet, result), nullptr);
        EXPECT_TRUE(RefusedAllocation::happened());
        EXPECT_EQ(result, 0u);
    }
    unsigned long result = 1;
    const RefusedAllocation refused(2);
    const rc_ptr<media::Session> session(m_manager.create_session(packet, result));
    EXPECT_NE(session.get(), nullptr);
    EXPECT_EQ(result, 1u);
}

TEST_F(ExhaustedHeapTest, a_session_that_cannot_be_built_is_counted_reported_and_lost) {
    const auto buffer = pooled(start_packet().id(7).bytes());
    auto& packet = media::view_packet<media::StartPacket>(buffer->data);
    {
        const RefusedAllocation refused(0);
        m_manager.on_packet(packet);
    }
    EXPECT_EQ(m_statistic.allocation_errors.value(), 1u);
    EXPECT_THAT(m_log.texts(), ElementsAre(text("Session")));
    EXPECT_EQ(m_manager.table_size(), 0u);
    EXPECT_EQ(m_manager.list_size(), 0u);
    EXPECT_EQ(m_manager.hooks, 0);
    EXPECT_EQ(m_statistic.zombie_number.value(), 0u);

    m_manager.on_packet(packet);
    EXPECT_EQ(m_manager.hooks, 1) << "the heap is back";
}

TEST_F(ExhaustedHeapTest, a_zombie_that_cannot_be_built_is_counted_reported_and_tried_again) {
    const auto buffer = pooled(data_packet().id(7).bytes());
    auto& packet = media::view_packet<media::DataPacket>(buffer->data);
    {
        const RefusedAllocation refused(0, sizeof(media::Session));
        m_manager.on_packet(packet);
        ASSERT_TRUE(RefusedAllocation::happened());
    }
    EXPECT_EQ(m_statistic.allocation_errors.value(), 1u);
    EXPECT_EQ(m_statistic.unknown_index_errors.value(), 1u);
    EXPECT_EQ(m_statistic.zombie_number.value(), 0u);
    EXPECT_EQ(m_manager.table_size(), 0u);
    EXPECT_EQ(m_manager.list_size(), 0u);
    EXPECT_THAT(m_log.records(), ElementsAre("ERROR media_session_manager: " + text("Zombie session")));

    m_manager.on_packet(packet);
    EXPECT_EQ(m_statistic.unknown_index_errors.value(), 2u);
    EXPECT_EQ(m_statistic.zombie_number.value(), 1u);
}

TEST_F(ExhaustedHeapTest, a_failed_entry_in_the_list_is_not_caught) {
    const auto buffer = pooled(start_packet().id(7).bytes());
    {
        const RefusedAllocation refused(1); // behind the session
        EXPECT_THROW(m_manager.on_packet(media::view_packet<media::StartPacket>(buffer->data)),
                     std::bad_alloc);
        EXPECT_TRUE(RefusedAllocation::happened());
    }
    EXPECT_EQ(m_manager.hooks, 0);
    EXPECT_EQ(m_statistic.allocation_errors.value(), 0u);
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(ExhaustedHeapTest, a_failed_entry_in_the_table_is_not_caught) {
    constexpr uint64_t MORE_THAN_FIT_AT_FIRST = 5'000;
    uint64_t entered = 0;
    bool was_refused = false;
    while (!was_refused) {
        ASSERT_LE(entered, MORE_THAN_FIT_AT_FIRST);
        const auto buffer = pooled(start_packet().id(entered + 1).bytes());
        const RefusedAllocation refused(2); // behind the session and its place in the list
        try {
            m_manager.on_packet(media::view_packet<media::StartPacket>(buffer->data));
            ++entered;
        } catch (const std::bad_alloc&) {
            was_refused = true;
        }
        ASSERT_EQ(RefusedAllocation::happened(), was_refused);
    }
    EXPECT_EQ(m_manager.table_size(), entered);
    EXPECT_EQ(static_cast<uint64_t>(m_manager.hooks), entered);
    EXPECT_EQ(m_statistic.allocation_errors.value(), 0u);
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

} // namespace
