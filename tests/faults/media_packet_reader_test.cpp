// The packet path takes no lock while the reader is awake.
#include "corvalin_lib/media_packet_reader.h"

#include <cstdint>
#include <memory>

#include <gtest/gtest.h>

#include "corvalin_lib/media_session_manager.h"
#include "corvalin_lib/queue.h"
#include "tests/faults/faults.h"
#include "tests/support/packet_builder.h"
#include "tests/support/pooled_packet.h"

namespace {

using namespace corvalin;
using test::Bytes;
using test::data_packet;
using test::LockScript;

int64_t standing_clock() {
    return 1'000'000;
}

class MediaPacketReaderLockTest : public ::testing::Test {
protected:
    media::SessionManager m_manager{nullptr, &standing_clock};
    media::PacketReaderStatistic m_statistic;
    const std::unique_ptr<media::PacketReader> m_reader =
        std::make_unique<media::PacketReader>(m_manager, m_statistic);
};

TEST_F(MediaPacketReaderLockTest, a_data_packet_takes_no_lock_from_the_datagram_to_the_session) {
    const auto start = test::pooled(test::start_packet().id(7).seq(1).bytes());
    m_reader->on_queue_read(start);
    const Bytes first = data_packet().id(7).seq(2).bytes();
    const Bytes second = data_packet().id(7).seq(3).bytes();

    const LockScript script;
    m_reader->read_from(first.data(), first.size());
    m_reader->read_from(second.data(), second.size());
    // One round each: a reader that was never started looks at its flag behind the round.
    m_reader->QueueIdleReader::run();
    m_reader->QueueIdleReader::run();

    EXPECT_EQ(script.text(), "");
    EXPECT_EQ(m_statistic.data_packets.value(), 2u);
    EXPECT_EQ(m_manager.statistic().sequence_breaks.value(), 0u);
}

TEST_F(MediaPacketReaderLockTest, a_full_ring_takes_no_lock_either) {
    const Bytes datagram = data_packet().bytes();
    for (int count = 0; count < 100'000; ++count) {
        m_reader->read_from(datagram.data(), datagram.size());
    }
    const LockScript script;
    m_reader->read_from(datagram.data(), datagram.size());
    EXPECT_EQ(script.text(), "");
    EXPECT_EQ(m_statistic.dropped_elements.value(), 1u);
}

// The same script tells of the lock that guards a wait.
TEST_F(MediaPacketReaderLockTest, a_wait_takes_the_lock) {
    Queue<int, 4, true> queue;
    const LockScript script;
    queue.pop(1);
    EXPECT_EQ(script.text(), "mutex 0");
}

} // namespace
