#include "router/routing_manager.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <initializer_list>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "router/statistic_service.h"
#include "tests/support/captured_log.h"
#include "tests/support/local_address.h"
#include "tests/support/packet_builder.h"

namespace {

using namespace corvalin;
using namespace corvalin::test;
using router::RoutingManager;
using router::RoutingSession;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr uint8_t WRITER = 0x80;
constexpr uint8_t MEDIA = 0x40;

int64_t clock_us = 0;

/// A receiver on a port of the kernel's choice. What is sent over the loopback interface has arrived when the
/// sender's system call returns, so a look without waiting is enough to tell that nothing came.
class Node {
public:
    Node() {
        if (!m_socket.open(0, INADDR_LOOPBACK)) {
            throw std::runtime_error("no receiver socket");
        }
        m_port = local_port(m_socket);
    }

    uint16_t port() const { return m_port; }
    net::HostAddr address() const { return net::make_host_addr("127.0.0.1", m_port); }
    std::string text() const { return " 127.0.0.1:" + std::to_string(m_port); }

    /// All datagrams since the last call.
    std::vector<Bytes> received() {
        std::vector<Bytes> datagrams;
        std::array<uint8_t, 2048> buffer{};
        for (;;) {
            const ssize_t size = recv(m_socket.descriptor(), buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (size < 0) {
                return datagrams;
            }
            datagrams.emplace_back(buffer.begin(), buffer.begin() + size);
        }
    }

private:
    net::Socket m_socket;
    uint16_t m_port = 0;
};

/// A datagram as the reader hands it over: at the begin of a zeroed buffer of the pool's size.
class Datagram {
public:
    explicit Datagram(const Bytes& bytes) : m_size(bytes.size()) {
        std::copy(bytes.begin(), bytes.end(), m_data.begin());
    }

    template <class Packet>
    Packet& as() {
        return media::view_packet<Packet>(m_data.data());
    }
    const uint8_t* data() const { return m_data.data(); }
    /// All bytes of the datagram as they are now.
    Bytes bytes() const { return {m_data.begin(), m_data.begin() + static_cast<std::ptrdiff_t>(m_size)}; }

private:
    alignas(8) std::array<uint8_t, media::PACKET_MAX_BYTES> m_data{};
    std::size_t m_size;
};

void deliver(RoutingManager& manager, Datagram& datagram) {
    switch (datagram.data()[offset::TYPE]) {
    case media::PACKET_TYPE_START:
        manager.on_packet(datagram.as<media::StartPacket>());
        break;
    case media::PACKET_TYPE_DATA:
        manager.on_packet(datagram.as<media::DataPacket>());
        break;
    case media::PACKET_TYPE_TERMINATE:
        manager.on_packet(datagram.as<media::TerminatePacket>());
        break;
    default:
        throw std::invalid_argument("packet of no type");
    }
}

class RoutingManagerTest : public ::testing::Test {
protected:
    RoutingManagerTest() {
        clock_us = 1'000'000'000;
        if (!m_socket.open(0, 0)) {
            throw std::runtime_error("no forwarding socket");
        }
    }

    /// Gives the packet to the manager and returns what its buffer holds afterwards.
    Bytes deliver(const Bytes& bytes) {
        Datagram datagram(bytes);
        ::deliver(*m_manager, datagram);
        return datagram.bytes();
    }
    void start(uint64_t id, uint8_t flags) { deliver(start_packet().id(id).flags(flags).seq(1).bytes()); }

    /// The hosts that a new session gets, as the log line shows them.
    std::string assigned(uint8_t flags) {
        const CapturedLog log;
        start(++m_last_id, flags);
        const std::vector<std::string> texts = log.texts();
        const std::string begin = std::string("ROUTING_MANAGER: ") + DEFAULT_UUID_TEXT + ": assigned hosts:";
        if (texts.size() != 1 || texts[0].compare(0, begin.size(), begin) != 0) {
            return "unexpected log";
        }
        return texts[0].substr(begin.size());
    }

    media::SessionManagerStatistic m_statistic;
    net::Socket m_socket;
    std::unique_ptr<RoutingManager> m_manager =
        std::make_unique<RoutingManager>(&m_socket, &m_statistic, [] { return clock_us; });
    uint64_t m_last_id = 1000;
};

std::list<net::HostAddr> addresses(std::initializer_list<const char*> names) {
    std::list<net::HostAddr> list;
    for (const char* const name : names) {
        list.push_back(net::make_host_addr(name, 9));
    }
    return list;
}

// ---- Construction

TEST_F(RoutingManagerTest, a_manager_counts_into_the_block_of_the_statistic_service) {
    const RoutingManager manager(&m_socket);
    EXPECT_EQ(&manager.statistic(), &router::StatisticService::Instance.m_session_statistic);
}

TEST_F(RoutingManagerTest, a_new_manager_has_two_empty_lists) {
    EXPECT_EQ(assigned(WRITER | MEDIA), " -");
}

// ---- Assignment

TEST_F(RoutingManagerTest, the_two_flags_ask_for_a_writer_node_and_a_media_node) {
    struct Case {
        const char* description;
        uint8_t flags;
        bool has_writers;
        bool has_media;
        const char* expected;
    };
    const std::vector<Case> cases = {
        {"neither", 0x00, true, true, " -"},
        {"writer", 0x80, true, true, " writer:9"},
        {"media", 0x40, true, true, " media:9"},
        {"both, writer first", 0xc0, true, true, " writer:9 media:9"},
        {"the other six bits have no meaning", 0x3f, true, true, " -"},
        {"the other six bits do no harm", 0xff, true, true, " writer:9 media:9"},
        {"writer without writers", 0x80, false, true, " -"},
        {"both without writers", 0xc0, false, true, " media:9"},
        {"media without media nodes", 0x40, true, false, " -"},
        {"both without media nodes", 0xc0, true, false, " writer:9"},
        {"both without any nodes", 0xc0, false, false, " -"},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        m_manager->set_writer_hosts(row.has_writers ? addresses({"writer"}) : addresses({}));
        m_manager->set_media_hosts(row.has_media ? addresses({"media"}) : addresses({}));
        EXPECT_EQ(assigned(row.flags), row.expected);
    }
}

TEST_F(RoutingManagerTest, the_assignment_is_one_system_line_per_session_at_any_threshold) {
    m_manager->set_writer_hosts({net::make_host_addr("127.0.0.1", 65535)});
    m_manager->set_media_hosts({net::make_host_addr("node.invalid", 9)});
    for (const log::Level threshold : {log::Level::ERROR, log::Level::INFO, log::Level::TRACE}) {
        const CapturedLog log(threshold);
        const uint64_t id = ++m_last_id;

        start(id, WRITER | MEDIA);
        deliver(data_packet().id(id).seq(2).bytes());
        deliver(terminate_packet().id(id).seq(3).bytes());

        EXPECT_THAT(log.records(), ElementsAre("SYSTEM routing_manager: ROUTING_MANAGER: "
                                               "10111213-1415-1617-1819-1a1b1c1d1e1f: assigned hosts: "
                                               "127.0.0.1:65535 node.invalid:9"));
    }
}

TEST_F(RoutingManagerTest, sessions_get_the_nodes_of_a_list_in_turn) {
    m_manager->set_writer_hosts(addresses({"a", "b", "c"}));

    std::vector<std::string> hosts(6);
    for (std::string& text : hosts) {
        text = assigned(WRITER);
    }
    EXPECT_THAT(hosts, ElementsAre(" a:9", " b:9", " c:9", " a:9", " b:9", " c:9"));
}

TEST_F(RoutingManagerTest, the_two_lists_rotate_apart_from_each_other) {
    m_manager->set_writer_hosts(addresses({"w1", "w2"}));
    m_manager->set_media_hosts(addresses({"m1", "m2", "m3"}));

    EXPECT_EQ(assigned(WRITER), " w1:9");
    EXPECT_EQ(assigned(WRITER | MEDIA), " w2:9 m1:9");
    EXPECT_EQ(assigned(MEDIA), " m2:9");
    EXPECT_EQ(assigned(0), " -");
    EXPECT_EQ(assigned(WRITER | MEDIA), " w1:9 m3:9");
    EXPECT_EQ(assigned(WRITER | MEDIA), " w2:9 m1:9");
}

TEST_F(RoutingManagerTest, a_longer_list_does_not_restart_the_rotation) {
    m_manager->set_media_hosts(addresses({"a", "b"}));
    assigned(MEDIA);
    assigned(MEDIA);

    m_manager->set_media_hosts(addresses({"a", "b", "c"}));

    EXPECT_EQ(assigned(MEDIA), " c:9");
    EXPECT_EQ(assigned(MEDIA), " a:9");
}

TEST_F(RoutingManagerTest, a_list_that_has_shrunk_below_the_cursor_begins_anew) {
    m_manager->set_media_hosts(addresses({"a", "b", "c"}));
    assigned(MEDIA);
    assigned(MEDIA);
    assigned(MEDIA);

    m_manager->set_media_hosts(addresses({"z"}));

    EXPECT_EQ(assigned(MEDIA), " z:9");
    EXPECT_EQ(assigned(MEDIA), " z:9");
}

TEST_F(RoutingManagerTest, an_empty_writer_list_moves_no_cursor_and_leaves_the_media_pick_alone) {
    m_manager->set_media_hosts(addresses({"m1", "m2"}));
    EXPECT_EQ(assigned(WRITER | MEDIA), " m1:9");
    EXPECT_EQ(assigned(WRITER | MEDIA), " m2:9");

    m_manager->set_writer_hosts(addresses({"w1", "w2"}));

    EXPECT_EQ(assigned(WRITER | MEDIA), " w1:9 m1:9");
}

TEST_F(RoutingManagerTest, only_a_start_packet_that_makes_a_session_moves_the_rotation) {
    m_manager->set_writer_hosts(addresses({"a", "b"}));
    EXPECT_EQ(assigned(WRITER), " a:9");

    deliver(start_packet().id(m_last_id).flags(WRITER).seq(1).bytes());           // a live session
    deliver(data_packet().id(m_last_id + 100).flags(WRITER).seq(1).bytes());      // unknown
    deliver(start_packet().id(m_last_id + 100).flags(WRITER).seq(2).bytes());     // a zombie
    deliver(terminate_packet().id(m_last_id + 200).flags(WRITER).seq(1).bytes()); // unknown

    EXPECT_EQ(assigned(WRITER), " b:9");
}

TEST_F(RoutingManagerTest, create_session_fills_the_session_from_the_packet) {
    m_manager->set_writer_hosts(addresses({"w"}));
    m_manager->set_media_hosts(addresses({"m"}));
    clock_us = 123'456'789;
    Datagram datagram(start_packet()
                          .flags(WRITER | MEDIA)
                          .id(0x1122334455667788)
                          .seq(77)
                          .mt(88)
                          .ts(99)
                          .call_id("call of a leg")
                          .bytes());
    unsigned long result = 1;

    const rc_ptr<media::Session> made(m_manager->create_session(datagram.as<media::StartPacket>(), result));

    ASSERT_TRUE(made);
    EXPECT_EQ(result, 1u);
    const auto* const session = dynamic_cast<RoutingSession*>(made.get());
    ASSERT_NE(session, nullptr);
    EXPECT_TRUE(std::equal(DEFAULT_UUID.begin(), DEFAULT_UUID.end(), std::begin(session->m_uuid)));
    EXPECT_EQ(session->m_id, 0x1122334455667788u);
    EXPECT_EQ(session->m_ts, 99u);
    EXPECT_EQ(session->m_start_mt, 88u);
    EXPECT_EQ(session->m_created_us, 123'456'789);
    EXPECT_EQ(session->m_seq, 77u);
    EXPECT_EQ(session->m_call_id, "call of a leg");
    EXPECT_EQ(session->m_last_activity_us, 123'456'789u);
    EXPECT_FALSE(session->m_zombie);
    EXPECT_EQ(session->m_sequence, 0u);
    ASSERT_EQ(session->m_hosts.size(), 2u);
    EXPECT_EQ(session->m_hosts.front().host, "w");
    EXPECT_EQ(session->m_hosts.back().host, "m");
    EXPECT_EQ(session->m_hosts.back().port, 9u);
    EXPECT_EQ(ntohs(session->m_hosts.back().addr.sin_port), 9u);
    EXPECT_EQ(made->reference_count(), 1);
    EXPECT_EQ(m_statistic.session_number.value(), 0u); // the table is the caller's business
}

// ---- Forwarding

TEST_F(RoutingManagerTest, packets_go_out_byte_for_byte_as_they_came_but_for_seq) {
    struct Case {
        const char* description;
        Bytes packet;
        std::size_t expected_bytes;
    };
    const uint64_t id = 0xfedcba9876543210;
    const std::string zero_inside("abc\0de", 6);
    const std::vector<Case> cases = {
        {"start with an empty call id",
         start_packet()
             .id(id)
             .flags(0xff)
             .side(7)
             .seq(1000)
             .mt(0x8877665544332211)
             .ts(1)
             .sync_ts(2)
             .sync_mt(3)
             .rule(4)
             .reserved({9, 8, 7, 6, 5, 4})
             .bytes(),
         88},
        {"data without a payload", data_packet().id(id).seq(1001).m_flg(0xa5a5).m_off(0xdeadbeef).bytes(),
         56},
        {"data of one unit", data_packet().id(id).seq(1002).flags(0x3c).side(1).payload_units(1).bytes(), 58},
        {"data of the greatest length", data_packet().id(id).seq(1003).payload_units(660).bytes(), 1376},
        {"terminate", terminate_packet().id(id).seq(1004).flags(0xff).side(255).mt(5).bytes(), 48},
        {"start with a zero byte in its call id",
         start_packet().id(id).flags(0xc0).seq(1).call_id(zero_inside).bytes(), 94},
        {"terminate", terminate_packet().id(id).seq(2).bytes(), 48},
        {"start with the longest call id, no zero byte behind it",
         start_packet().id(id).flags(0xc0).seq(1).call_id(std::string(1288, 'x')).bytes(), 1376},
    };
    Node writer;
    Node media_node;
    m_manager->set_writer_hosts({writer.address()});
    m_manager->set_media_hosts({media_node.address()});
    uint64_t seq = 0;
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        ASSERT_EQ(row.packet.size(), row.expected_bytes);
        if (row.packet[offset::TYPE] == media::PACKET_TYPE_START) {
            seq = 0; // a new session
        }
        const Bytes expected = with_seq(row.packet, ++seq);

        const Bytes buffer = deliver(row.packet);

        EXPECT_EQ(buffer, expected); // in place
        EXPECT_THAT(writer.received(), ElementsAre(expected));
        EXPECT_THAT(media_node.received(), ElementsAre(expected));
    }
}

TEST_F(RoutingManagerTest, the_writer_node_gets_each_packet_ahead_of_the_media_node) {
    // One socket for both nodes, so that their datagrams have an order; the address tells whose they are.
    const int receiver = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(receiver, 0);
    const int on = 1;
    ASSERT_EQ(setsockopt(receiver, IPPROTO_IP, IP_PKTINFO, &on, sizeof(on)), 0);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    ASSERT_EQ(bind(receiver, reinterpret_cast<sockaddr*>(&local), sizeof(local)), 0);
    const uint16_t port = ntohs(local_address(receiver).sin_port);
    m_manager->set_media_hosts({net::make_host_addr("127.0.0.3", port)});
    m_manager->set_writer_hosts({net::make_host_addr("127.0.0.2", port)});

    start(1, WRITER | MEDIA);
    deliver(data_packet().id(1).seq(2).bytes());
    deliver(terminate_packet().id(1).seq(3).bytes());

    std::vector<std::string> arrivals;
    for (;;) {
        Bytes bytes(2048);
        iovec piece{bytes.data(), bytes.size()};
        alignas(cmsghdr) std::array<uint8_t, CMSG_SPACE(sizeof(in_pktinfo))> control{};
        msghdr message{};
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        if (recvmsg(receiver, &message, MSG_DONTWAIT) < 0) {
            break;
        }
        const cmsghdr* const header = CMSG_FIRSTHDR(&message);
        ASSERT_NE(header, nullptr);
        in_pktinfo info{};
        std::memcpy(&info, CMSG_DATA(header), sizeof(info));
        arrivals.push_back(inet_ntoa(info.ipi_addr) + std::string(" ") + std::to_string(seq_of(bytes)));
    }
    close(receiver);
    EXPECT_THAT(arrivals, ElementsAre("127.0.0.2 1", "127.0.0.3 1", "127.0.0.2 2", "127.0.0.3 2",
                                      "127.0.0.2 3", "127.0.0.3 3"));
}

TEST_F(RoutingManagerTest, the_outgoing_number_counts_accepted_packets_whatever_number_they_came_with) {
    Node node;
    m_manager->set_media_hosts({node.address()});
    struct Case {
        const char* description;
        Bytes packet;
        uint64_t expected_seq; // 0: not forwarded
    };
    const std::vector<Case> cases = {
        {"the start packet", start_packet().id(1).flags(MEDIA).seq(10).bytes(), 1},
        {"the next in turn", data_packet().id(1).seq(11).bytes(), 2},
        {"behind a gap", data_packet().id(1).seq(500).bytes(), 3},
        {"a repeat", data_packet().id(1).seq(500).bytes(), 0},
        {"out of order", data_packet().id(1).seq(499).bytes(), 0},
        {"a second start", start_packet().id(1).flags(MEDIA).seq(501).bytes(), 0},
        {"the greatest number", data_packet().id(1).seq(UINT64_MAX).bytes(), 4},
        {"terminate out of order", terminate_packet().id(1).seq(1).bytes(), 5},
        {"behind the end", terminate_packet().id(1).seq(2).bytes(), 0},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        deliver(row.packet);
        if (row.expected_seq == 0) {
            EXPECT_THAT(node.received(), IsEmpty());
        } else {
            EXPECT_THAT(node.received(), ElementsAre(with_seq(row.packet, row.expected_seq)));
        }
    }
    EXPECT_EQ(m_statistic.sequence_breaks.value(), 3u);
    EXPECT_EQ(m_statistic.existing_index_errors.value(), 1u);
}

TEST_F(RoutingManagerTest, each_session_has_a_number_series_of_its_own) {
    Node node;
    m_manager->set_media_hosts({node.address()});

    start(1, MEDIA);
    start(2, MEDIA);
    deliver(data_packet().id(2).seq(2).bytes());
    deliver(data_packet().id(2).seq(3).bytes());
    deliver(data_packet().id(1).seq(2).bytes());
    deliver(terminate_packet().id(1).seq(3).bytes());
    start(1, MEDIA); // the id comes back as a new session

    std::vector<std::pair<uint64_t, uint64_t>> id_and_seq;
    for (const Bytes& packet : node.received()) {
        id_and_seq.emplace_back(id_of(packet), seq_of(packet));
    }
    using Pair = std::pair<uint64_t, uint64_t>;
    EXPECT_THAT(id_and_seq, ElementsAre(Pair{1, 1}, Pair{2, 1}, Pair{2, 2}, Pair{2, 3}, Pair{1, 2},
                                        Pair{1, 3}, Pair{1, 1}));
}

TEST_F(RoutingManagerTest, packets_of_a_session_without_a_node_are_numbered_and_go_nowhere) {
    Node node;
    m_manager->set_media_hosts({node.address()});
    m_manager->set_writer_hosts({node.address()});

    const Bytes start_buffer = deliver(start_packet().id(1).flags(0).seq(50).bytes());
    const Bytes data_buffer = deliver(data_packet().id(1).flags(WRITER | MEDIA).seq(51).bytes());
    const Bytes terminate_buffer = deliver(terminate_packet().id(1).flags(WRITER | MEDIA).seq(52).bytes());

    EXPECT_EQ(seq_of(start_buffer), 1u);
    EXPECT_EQ(seq_of(data_buffer), 2u);
    EXPECT_EQ(seq_of(terminate_buffer), 3u);
    EXPECT_THAT(node.received(), IsEmpty());
    EXPECT_EQ(m_statistic.unknown_index_errors.value(), 0u);
    EXPECT_EQ(m_statistic.lost_packets.value(), 0u);
}

TEST_F(RoutingManagerTest, a_zombie_forwards_nothing) {
    Node node;
    m_manager->set_media_hosts({node.address()});
    m_manager->set_writer_hosts({node.address()});

    deliver(data_packet().id(1).flags(WRITER | MEDIA).seq(1).bytes());
    deliver(data_packet().id(1).flags(WRITER | MEDIA).seq(2).bytes());
    deliver(start_packet().id(1).flags(WRITER | MEDIA).seq(3).bytes());
    deliver(terminate_packet().id(1).flags(WRITER | MEDIA).seq(4).bytes());

    EXPECT_THAT(node.received(), IsEmpty());
    EXPECT_EQ(m_statistic.zombie_number.value(), 1u);
}

TEST_F(RoutingManagerTest, looking_ahead_at_a_session_of_any_kind_sends_nothing_and_changes_nothing) {
    Node node;
    m_manager->set_media_hosts({node.address()});
    m_manager->set_writer_hosts({node.address()});
    deliver(start_packet().id(1).flags(WRITER | MEDIA).seq(1).bytes());
    deliver(start_packet().id(2).flags(0).seq(1).bytes());
    deliver(data_packet().id(3).flags(WRITER | MEDIA).seq(1).bytes()); // a zombie: no session with hosts
    ASSERT_EQ(node.received().size(), 2u);

    std::array<uint64_t, 5> ids = {1, 2, 3, 4, 5};
    do {
        for (const uint64_t id : ids) {
            media::PacketHeader header{};
            header.id = id;
            m_manager->on_packet_ahead(&header);
        }
        m_manager->on_packet_ahead(nullptr);
    } while (std::next_permutation(ids.begin(), ids.end()));

    EXPECT_THAT(node.received(), IsEmpty());
    EXPECT_EQ(m_statistic.session_number.value(), 3u);
    EXPECT_EQ(m_statistic.unknown_index_errors.value(), 1u) << "of the zombie's packet";
    EXPECT_EQ(seq_of(deliver(data_packet().id(1).seq(2).bytes())), 2u);
}

TEST_F(RoutingManagerTest, a_running_session_keeps_its_nodes_when_the_lists_change) {
    struct Case {
        const char* description;
        bool is_emptied;
    };
    for (const Case& row : {Case{"emptied", true}, Case{"replaced", false}}) {
        SCOPED_TRACE(row.description);
        Node old_writer;
        Node old_media;
        Node other;
        m_manager->set_writer_hosts({old_writer.address()});
        m_manager->set_media_hosts({old_media.address()});
        const uint64_t id = ++m_last_id;
        start(id, WRITER | MEDIA);

        std::list<net::HostAddr> list;
        if (!row.is_emptied) {
            list.push_back(other.address());
        }
        m_manager->set_writer_hosts(list);
        m_manager->set_media_hosts(list);
        deliver(data_packet().id(id).seq(2).bytes());
        deliver(terminate_packet().id(id).seq(3).bytes());

        EXPECT_EQ(old_writer.received().size(), 3u);
        EXPECT_EQ(old_media.received().size(), 3u);
        EXPECT_THAT(other.received(), IsEmpty());
        EXPECT_EQ(assigned(WRITER | MEDIA), row.is_emptied ? " -" : other.text() + other.text());
    }
}

TEST_F(RoutingManagerTest, a_session_without_a_node_stays_so_when_a_list_arrives) {
    Node node;
    start(1, WRITER | MEDIA);

    m_manager->set_writer_hosts({node.address()});
    m_manager->set_media_hosts({node.address()});
    deliver(data_packet().id(1).seq(2).bytes());

    EXPECT_THAT(node.received(), IsEmpty());
}

TEST_F(RoutingManagerTest, a_session_that_times_out_sends_nothing_to_its_nodes) {
    Node node;
    m_manager->set_media_hosts({node.address()});
    start(1, MEDIA);
    EXPECT_EQ(node.received().size(), 1u);

    clock_us += 300'000'000;
    EXPECT_TRUE(m_manager->on_packet_idle());

    EXPECT_EQ(m_statistic.session_number.value(), 0u);
    EXPECT_THAT(node.received(), IsEmpty());
}

TEST_F(RoutingManagerTest, sessions_that_are_open_when_the_manager_goes_send_nothing_to_their_nodes) {
    Node node;
    m_manager->set_media_hosts({node.address()});
    start(1, MEDIA);
    EXPECT_EQ(node.received().size(), 1u);

    m_manager.reset();

    EXPECT_THAT(node.received(), IsEmpty());
}

TEST_F(RoutingManagerTest, a_failed_send_is_logged_by_the_socket_and_the_next_host_still_gets_the_packet) {
    Node node;
    m_manager->set_writer_hosts({net::make_host_addr("127.0.0.1", 0)}); // the kernel refuses port 0
    m_manager->set_media_hosts({node.address()});
    const std::vector<Bytes> packets = {
        start_packet().id(1).flags(WRITER | MEDIA).seq(1).bytes(),
        data_packet().id(1).seq(2).payload_units(5).bytes(),
        terminate_packet().id(1).seq(3).bytes(),
    };
    uint64_t seq = 0;
    for (const Bytes& packet : packets) {
        const CapturedLog log;
        Datagram datagram(packet);

        ::deliver(*m_manager, datagram);

        EXPECT_THAT(node.received(), ElementsAre(with_seq(packet, ++seq)));
        const std::vector<std::string> errors = log.texts(log::Level::ERROR);
        EXPECT_THAT(errors, ElementsAre("SOCKET[" + std::to_string(m_socket.descriptor()) +
                                        "]: failed to send a data (" + std::to_string(packet.size()) + ": " +
                                        std::to_string(reinterpret_cast<uintptr_t>(datagram.data())) +
                                        "), error (22): Invalid argument"));
    }
}

TEST_F(RoutingManagerTest, a_failed_send_to_the_last_host_leaves_the_session_alive) {
    Node node;
    m_manager->set_writer_hosts({node.address()});
    m_manager->set_media_hosts({net::make_host_addr("255.255.255.255", 9)}); // no broadcast without asking

    const CapturedLog log;
    start(1, WRITER | MEDIA);
    deliver(data_packet().id(1).seq(2).bytes());

    EXPECT_EQ(log.lines(log::Level::ERROR).size(), 2u);
    EXPECT_EQ(node.received().size(), 2u);
    EXPECT_EQ(m_statistic.session_number.value(), 1u);
}

// ---- Lists that change beside the reader

constexpr uint32_t LEAST_LISTS = 2000;
constexpr uint32_t LEAST_CHANGES_SEEN = 20;
constexpr const char* NUMBERED = "node.of.list.number."; // longer than what a string holds within itself

std::list<net::HostAddr> numbered_list(uint32_t number) {
    std::list<net::HostAddr> list;
    for (uint32_t index = 0; index < number % 5; ++index) { // the empty list too
        list.push_back(net::make_host_addr(NUMBERED + std::to_string(number), static_cast<uint16_t>(number)));
    }
    return list;
}

/// The number of the list that `host` comes from, 0 if its parts do not belong together.
uint32_t list_number(const net::HostAddr& host) {
    const std::size_t begin = std::strlen(NUMBERED);
    if (host.host.compare(0, begin, NUMBERED) != 0) {
        return 0;
    }
    const auto number = static_cast<uint32_t>(std::stoul(host.host.substr(begin)));
    const auto port = static_cast<uint16_t>(number);
    return host.port == port && ntohs(host.addr.sin_port) == port ? number : 0;
}

// One thread makes sessions while another replaces both lists. A pick from a list that is half replaced, or
// already freed, would show.
TEST_F(RoutingManagerTest, lists_may_change_on_another_thread_while_sessions_are_made) {
    std::atomic<bool> has_seen_enough{false};
    std::atomic<bool> is_done{false};
    std::thread lists([&] {
        for (uint32_t number = 1; number <= LEAST_LISTS || !has_seen_enough.load(std::memory_order_relaxed);
             ++number) {
            m_manager->set_writer_hosts(numbered_list(number));
            m_manager->set_media_hosts(numbered_list(number));
        }
        is_done.store(true, std::memory_order_release);
    });

    Datagram datagram(start_packet().id(1).flags(WRITER | MEDIA).bytes());
    uint32_t last_writer = 0;
    uint32_t last_media = 0;
    uint32_t changes_seen = 0;
    std::string fault;
    while (fault.empty() && !is_done.load(std::memory_order_acquire)) {
        unsigned long result = 1;
        const rc_ptr<media::Session> session(
            m_manager->create_session(datagram.as<media::StartPacket>(), result));
        const auto& hosts = dynamic_cast<RoutingSession&>(*session).m_hosts;
        if (hosts.size() == 2) {
            const uint32_t writer = list_number(hosts.front());
            const uint32_t media_node = list_number(hosts.back());
            if (writer == 0 || media_node == 0 || writer < last_writer || media_node < last_media) {
                fault = hosts.front().host + " " + hosts.back().host;
            }
            changes_seen += writer != last_writer ? 1 : 0;
            last_writer = writer;
            last_media = media_node;
        }
        has_seen_enough.store(changes_seen >= LEAST_CHANGES_SEEN || !fault.empty(),
                              std::memory_order_relaxed);
    }
    lists.join();

    EXPECT_EQ(fault, "");
    m_manager->set_writer_hosts(addresses({"w"}));
    m_manager->set_media_hosts(addresses({"m"}));
    EXPECT_EQ(assigned(WRITER | MEDIA), " w:9 m:9");
}

} // namespace
