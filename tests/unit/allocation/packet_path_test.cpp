// What the packet path takes from the heap: nothing for a data packet, from the datagram to the nodes.
#include <netinet/in.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "corvalin_lib/log.h"
#include "corvalin_lib/media_packet_buffer.h"
#include "corvalin_lib/media_packet_reader.h"
#include "corvalin_lib/media_session_manager.h"
#include "corvalin_lib/net.h"
#include "corvalin_lib/net_socket.h"
#include "router/routing_manager.h"
#include "tests/support/captured_log.h"
#include "tests/support/heap/counted_heap.h"
#include "tests/support/local_address.h"
#include "tests/support/packet_builder.h"
#include "tests/support/pooled_packet.h"

namespace {

using namespace corvalin;
using log::Level;
using test::allocations;
using test::Bytes;
using test::CapturedLog;
using test::data_packet;
using test::pooled;
using test::start_packet;
using test::terminate_packet;

constexpr uint64_t SESSIONS = 50;

int64_t standing_clock() {
    return 1'000'000;
}

/// A receiver that nobody reads: the kernel keeps or drops what arrives.
class Node {
public:
    Node() { EXPECT_TRUE(m_socket.open(0, INADDR_LOOPBACK)); }
    net::HostAddr address() const { return net::make_host_addr("127.0.0.1", test::local_port(m_socket)); }

private:
    net::Socket m_socket;
};

/// The whole path on one thread: reader, table, routing, sockets.
class PacketPathTest : public ::testing::Test {
protected:
    PacketPathTest() {
        EXPECT_TRUE(m_socket.open(0, 0));
        m_manager.set_writer_hosts({m_writer.address()});
        m_manager.set_media_hosts({m_media.address()});
        for (uint64_t id = 0; id < SESSIONS; ++id) {
            const Bytes start = start_packet().id(id).seq(0).flags(0xC0).call_id("call").bytes();
            m_reader->on_queue_read(pooled(start));
        }
    }

    void read_from(const Bytes& datagram) { m_reader->read_from(datagram.data(), datagram.size()); }
    void one_round() { m_reader->QueueIdleReader::run(); }
    /// Data packets of all sessions in turn, `rounds` for each.
    template <class Deliver>
    void send_data(uint64_t rounds, const Deliver& deliver) {
        for (uint64_t round = 0; round < rounds; ++round) {
            ++m_seq;
            for (uint64_t id = 0; id < SESSIONS; ++id) {
                test::put_number(m_data, test::offset::ID, 8, id);
                test::put_number(m_data, test::offset::SEQ, 8, m_seq);
                deliver(m_data);
            }
        }
    }

    const CapturedLog m_log{Level::DEBUG}; // the highest threshold at which no data packet is traced
    Node m_writer;
    Node m_media;
    net::Socket m_socket;
    media::SessionManagerStatistic m_session_statistic;
    router::RoutingManager m_manager{&m_socket, &m_session_statistic, &standing_clock};
    media::PacketReaderStatistic m_statistic;
    const std::unique_ptr<media::PacketReader> m_reader =
        std::make_unique<media::PacketReader>(m_manager, m_statistic);
    uint64_t m_seq = 0;
    Bytes m_data = data_packet().payload_units(160).bytes();
};

TEST_F(PacketPathTest, taking_a_datagram_in_allocates_nothing) {
    const uint64_t before = allocations();
    send_data(100, [this](const Bytes& datagram) { read_from(datagram); });
    EXPECT_EQ(allocations() - before, 0u);
    EXPECT_EQ(m_statistic.passed_elements.value(), 100 * SESSIONS);
}

TEST_F(PacketPathTest, refused_datagrams_allocate_nothing) {
    const Bytes too_short(47);
    const Bytes too_long(1377);
    const std::vector<Bytes> rejected = {terminate_packet().marker(0).bytes(),
                                         data_packet().version(1).bytes(), data_packet().m_num(9).bytes(),
                                         terminate_packet().type(0).bytes()};
    std::vector<rc_ptr<media::PacketBuffer>> buffers;
    for (const Bytes& datagram : rejected) {
        buffers.push_back(pooled(datagram));
    }
    const uint64_t before = allocations();
    read_from(too_short);
    read_from(too_long);
    for (const rc_ptr<media::PacketBuffer>& buffer : buffers) {
        m_reader->on_queue_read(buffer);
    }
    EXPECT_EQ(allocations() - before, 0u);
    EXPECT_EQ(m_statistic.rejected_bad_marker.value(), 1u);
    EXPECT_EQ(m_statistic.rejected_version.value(), 1u);
    EXPECT_EQ(m_statistic.rejected_corrupted_size.value(), 1u);
    EXPECT_EQ(m_statistic.rejected_unknown_type.value(), 1u);
}

TEST_F(PacketPathTest,
       a_data_packet_of_a_live_session_is_validated_followed_and_forwarded_without_an_allocation) {
    const uint64_t before = allocations();
    send_data(100, [this](const Bytes& datagram) {
        rc_ptr<media::PacketBuffer> buffer(media::PacketBuffer::allocator.allocate());
        buffer->append(datagram.data(), datagram.size());
        m_reader->on_queue_read(std::move(buffer));
    });
    EXPECT_EQ(allocations() - before, 0u);
    EXPECT_EQ(m_statistic.data_packets.value(), 100 * SESSIONS);
    EXPECT_EQ(m_session_statistic.lost_packets.value(), 0u);
    EXPECT_EQ(m_session_statistic.sequence_breaks.value(), 0u);
    EXPECT_TRUE(m_log.texts(Level::ERROR).empty()) << "a send has failed";
}

TEST_F(PacketPathTest, gaps_repeats_and_data_of_zombies_allocate_nothing) {
    m_reader->on_queue_read(pooled(data_packet().id(777).seq(5).bytes())); // makes the zombie
    std::vector<rc_ptr<media::PacketBuffer>> buffers;
    for (const Bytes& datagram :
         {data_packet().id(1).seq(10).bytes(), data_packet().id(1).seq(10).bytes(),
          data_packet().id(777).seq(5).bytes(), data_packet().id(777).seq(6).bytes()}) {
        buffers.push_back(pooled(datagram));
    }
    const uint64_t before = allocations();
    for (const rc_ptr<media::PacketBuffer>& buffer : buffers) {
        m_reader->on_queue_read(buffer);
    }
    EXPECT_EQ(allocations() - before, 0u);
    EXPECT_EQ(m_session_statistic.lost_packets.value(), 9u);
    EXPECT_EQ(m_session_statistic.sequence_breaks.value(), 1u);
    EXPECT_EQ(m_session_statistic.zombie_number.value(), 1u);
}

TEST_F(PacketPathTest, whole_rounds_of_the_reader_allocate_nothing_also_while_the_table_is_audited) {
    for (uint64_t id = 1'000; id <= 11'000; ++id) {
        m_manager.media::SessionManager::on_packet(
            media::view_packet<media::StartPacket>(pooled(start_packet().id(id).bytes())->data));
    }
    ASSERT_GT(m_session_statistic.session_number.value(), 10'000u);
    send_data(20, [this](const Bytes& datagram) { read_from(datagram); });
    const uint64_t before = allocations();
    for (uint64_t packet = 0; packet < 20 * SESSIONS; ++packet) {
        one_round();
    }
    EXPECT_EQ(allocations() - before, 0u);
    EXPECT_EQ(m_statistic.data_packets.value(), 20 * SESSIONS);
    EXPECT_EQ(m_session_statistic.audit_calls.value(), 20 * SESSIONS);
}

TEST_F(PacketPathTest, both_threads_at_work_allocate_nothing) {
    ASSERT_EQ(m_reader->start(), 0);
    const auto drain = [this] {
        while (m_statistic.data_packets.value() < m_statistic.passed_elements.value()) {
            std::this_thread::yield();
        }
    };
    send_data(2, [this](const Bytes& datagram) { read_from(datagram); });
    drain();
    const uint64_t before = allocations();
    send_data(200, [&](const Bytes& datagram) { read_from(datagram); });
    drain();
    EXPECT_EQ(allocations() - before, 0u);
    EXPECT_EQ(m_reader->stop(), 0);
    EXPECT_EQ(m_statistic.data_packets.value(), 202 * SESSIONS);
    EXPECT_EQ(m_session_statistic.lost_packets.value(), 0u);
}

// The same path with its guard open: the count would have told.
TEST_F(PacketPathTest, a_traced_data_packet_allocates) {
    const CapturedLog trace(Level::TRACE);
    const auto buffer = pooled(data_packet().id(1).seq(1).bytes());
    const uint64_t before = allocations();
    m_reader->on_queue_read(buffer);
    EXPECT_GT(allocations() - before, 0u);
}

TEST(PacketPoolTest, the_block_of_the_pool_is_claimed_before_main) {
    EXPECT_EQ(test::largest_allocation_before_main(), 211'200'000u);
    const uint64_t before = allocations();
    { const rc_ptr<media::PacketBuffer> buffer(media::PacketBuffer::allocator.allocate()); }
    EXPECT_EQ(allocations() - before, 0u);
}

} // namespace
