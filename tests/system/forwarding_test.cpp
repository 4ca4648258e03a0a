// The router's main job, seen from its nodes: what arrives, where and with which bytes.
#include "tests/support/system/router_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace {

using namespace corvalin::test;
using ::testing::ElementsAre;

class ForwardingTest : public RouterTest {
protected:
    /// A session that shows where the round robin stands: sends a start packet and tells which writer got it.
    std::size_t writer_of_next_session() {
        const uint64_t id = ++m_last_id;
        send_start(id, TO_WRITER);
        std::size_t found = m_writers.size();
        wait_until([&] {
            for (std::size_t index = 0; index < m_writers.size(); ++index) {
                if (writer(index).has_datagram()) {
                    found = index;
                    return true;
                }
            }
            return false;
        });
        if (found < m_writers.size()) {
            EXPECT_EQ(id_of(*writer(found).receive()), id);
        }
        return found;
    }

    uint64_t m_last_id = 1000000;
};

TEST_F(ForwardingTest, every_packet_of_a_session_reaches_both_nodes_byte_for_byte_but_for_seq) {
    start_with_nodes(1, 1);
    const uint64_t id = 0xFEDCBA9876543210;
    const Uuid uuid = {0xff, 0xfe, 0xfd, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    const std::vector<Bytes> packets = {
        start_packet()
            .id(id)
            .uuid(uuid)
            .flags(0xFF) // the six bits without a meaning are kept
            .side(3)
            .seq(0x1122334455667788)
            .mt(UINT64_MAX)
            .ts(1)
            .sync_ts(UINT64_MAX - 1)
            .sync_mt(3)
            .rule(4)
            .reserved({1, 2, 3, 4, 5, 6})
            .call_id(std::string("abc\0de", 6)) // the text ends at the zero byte, the trailer does not
            .bytes(),
        data_packet()
            .id(id)
            .uuid(uuid)
            .flags(0x3F) // acted on in a start packet only
            .side(255)
            .seq(0x1122334455667789)
            .mt(0)
            .m_flg(0xFFFF)
            .m_off(0xFFFFFFFF)
            .payload_units(160)
            .bytes(),
        data_packet().id(id).seq(0x112233445566778A).bytes(),
        terminate_packet().id(id).uuid(uuid).flags(0xC0).side(1).seq(0x112233445566778B).mt(77).bytes(),
    };
    for (const Bytes& packet : packets) {
        send(packet);
    }
    uint64_t seq = 0;
    for (const Bytes& packet : packets) {
        ++seq;
        EXPECT_EQ(writer().receive(), with_seq(packet, seq)) << "packet " << seq << " at the writer node";
        EXPECT_EQ(media().receive(), with_seq(packet, seq)) << "packet " << seq << " at the media node";
    }
}

TEST_F(ForwardingTest, the_shortest_and_the_longest_packet_of_each_type_pass_whole) {
    start_with_nodes(1, 0);
    const struct {
        const char* description;
        Bytes packet;
        std::size_t length;
    } cases[] = {
        {"start without a call id", start_packet().id(1).seq(1).flags(TO_WRITER).bytes(), 88},
        {"start with the longest call id and no zero byte behind it",
         start_packet().id(2).seq(1).flags(TO_WRITER).call_id(std::string(1288, 'x')).bytes(), 1376},
        {"data without a payload", data_packet().id(1).seq(2).bytes(), 56},
        {"data with the longest payload", data_packet().id(1).seq(3).payload_units(660).bytes(), 1376},
        {"terminate", terminate_packet().id(1).seq(4).bytes(), 48},
    };
    for (const auto& row : cases) {
        ASSERT_EQ(row.packet.size(), row.length) << row.description;
        send(row.packet);
        const auto received = writer().receive();
        ASSERT_TRUE(received.has_value()) << row.description;
        EXPECT_EQ(*received, with_seq(row.packet, seq_of(*received))) << row.description;
    }
    const std::string longest =
        "SYSTEM  | START | mt: 0, v: 0, f: w-, uuid: " + std::string(DEFAULT_UUID_TEXT) +
        ", ts: 0, seq: 1, leg: inbound, call id: " + std::string(1288, 'x') +
        ", id: 2, sync ts: 0, sync mt: 0\n";
    EXPECT_TRUE(wait_for_trace(PACKET_NOTICE, longest));
}

TEST_F(ForwardingTest, the_flags_of_the_start_packet_choose_the_kinds_of_node) {
    start_with_nodes(1, 1);
    const std::string both = " " + writer().address() + " " + media().address();
    const struct {
        const char* description;
        uint8_t flags;
        bool to_writer;
        bool to_media;
        std::string assigned;
    } cases[] = {
        {"both bits: the writer node stands first", 0xC0, true, true, both},
        {"writer bit alone", 0x80, true, false, " " + writer().address()},
        {"media bit alone", 0x40, false, true, " " + media().address()},
        {"neither bit", 0x00, false, false, " -"},
        {"none of the other six bits means anything", 0x3F, false, false, " -"},
        {"all bits", 0xFF, true, true, both},
    };
    uint64_t id = 0;
    for (const auto& row : cases) {
        Uuid uuid = DEFAULT_UUID;
        uuid[15] = static_cast<uint8_t>(++id);
        const Bytes packet = start_packet().id(id).uuid(uuid).seq(5).flags(row.flags).bytes();
        send(packet);
        EXPECT_TRUE(router().wait_for_log("SYSTEM  | ROUTING_MANAGER: 10111213-1415-1617-1819-1a1b1c1d1e0" +
                                          std::to_string(id) + ": assigned hosts:" + row.assigned))
            << row.description;
        // Whatever went to a node that should not have it would stand in front of the next expected packet.
        if (row.to_writer) {
            EXPECT_EQ(writer().receive(), with_seq(packet, 1)) << row.description;
        }
        if (row.to_media) {
            EXPECT_EQ(media().receive(), with_seq(packet, 1)) << row.description;
        }
    }
    EXPECT_FALSE(writer().has_datagram());
    EXPECT_FALSE(media().has_datagram());
}

TEST_F(ForwardingTest, successive_sessions_take_the_nodes_of_each_kind_in_turn) {
    start_with_nodes(3, 2);
    const struct {
        uint8_t flags;
        int writer_index;
        int media_index;
    } sessions[] = {
        // The two rotations do not know of each other, and a session that asks for no node of a kind leaves that
        // rotation where it is.
        {TO_BOTH, 0, 0}, {TO_WRITER, 1, -1}, {TO_BOTH, 2, 1},    {TO_NOBODY, -1, -1},
        {TO_BOTH, 0, 0}, {TO_MEDIA, -1, 1},  {TO_WRITER, 1, -1}, {TO_BOTH, 2, 0},
    };
    uint64_t id = 0;
    for (const auto& session : sessions) {
        const Bytes packet = start_packet().id(++id).seq(1).flags(session.flags).bytes();
        send(packet);
        if (session.writer_index >= 0) {
            EXPECT_EQ(writer(static_cast<std::size_t>(session.writer_index)).receive(), packet)
                << "session " << id;
        }
        if (session.media_index >= 0) {
            EXPECT_EQ(media(static_cast<std::size_t>(session.media_index)).receive(), packet)
                << "session " << id;
        }
    }
}

TEST_F(ForwardingTest, a_node_that_is_listed_twice_gets_twice_the_sessions) {
    m_writers = std::vector<UdpNode>(2);
    start("writer_node=" + writer(0).address() + "," + writer(1).address() + "," + writer(0).address() +
          "\n");
    std::vector<std::size_t> order;
    for (int session = 0; session < 6; ++session) {
        order.push_back(writer_of_next_session());
    }
    EXPECT_THAT(order, ElementsAre(0, 1, 0, 0, 1, 0));
}

TEST_F(ForwardingTest, nodes_of_several_options_add_up_in_the_order_of_the_sources) {
    m_writers = std::vector<UdpNode>(4);
    start("writer_node=" + writer(0).address() + "\nwriter_node=" + writer(1).address() + "\n",
          {"--args", "writer_node=" + writer(2).address() + ",," + writer(3).address()});
    std::vector<std::size_t> order;
    for (int session = 0; session < 5; ++session) {
        order.push_back(writer_of_next_session());
    }
    EXPECT_THAT(order, ElementsAre(0, 1, 2, 3, 0));
}

TEST_F(ForwardingTest, a_writer_bit_without_writer_nodes_leaves_the_media_node_as_it_is) {
    start_with_nodes(0, 2);
    for (uint64_t id = 1; id <= 3; ++id) {
        const Bytes packet = start_packet().id(id).seq(1).flags(TO_BOTH).bytes();
        send(packet);
        EXPECT_EQ(media((id - 1) % 2).receive(), packet);
    }
    EXPECT_TRUE(router().wait_for_log("SYSTEM  | ROUTING_MANAGER: " + std::string(DEFAULT_UUID_TEXT) +
                                      ": assigned hosts: " + media(1).address()));
}

TEST_F(ForwardingTest, a_router_without_nodes_accepts_sessions_and_forwards_them_to_nobody) {
    start("");
    send_start(1, TO_BOTH);
    EXPECT_TRUE(router().wait_for_log("SYSTEM  | ROUTING_MANAGER: " + std::string(DEFAULT_UUID_TEXT) +
                                      ": assigned hosts: -"));
    send(data_packet().id(1).seq(2).bytes());
    send(terminate_packet().id(1).seq(3).bytes());
    EXPECT_TRUE(wait_for_trace(
        PACKET_NOTICE, "SYSTEM  | TERM  | mt: 0, uuid: " + std::string(DEFAULT_UUID_TEXT) + ", seq: 3\n"));
    Counters expected = zero_counters();
    expected["packet queue passed elements number"] = 3;
    expected["packet 'start' type number"] = 1;
    expected["packet 'data'  type number"] = 1;
    expected["packet 'term'  type number"] = 1;
    expect_counters(expected);
}

TEST_F(ForwardingTest, a_repeated_or_late_packet_is_not_forwarded_and_the_outgoing_series_has_no_gap) {
    start_with_nodes(1, 0);
    const struct {
        const char* description;
        uint64_t seq;
        bool is_forwarded;
    } cases[] = {
        {"next in the row", 11, true},
        {"the same once more", 11, false},
        {"gap of two", 14, true},
        {"late, of the gap", 12, false},
        {"the start packet's own number", 10, false},
        {"zero", 0, false},
        {"next in the row again", 15, true},
        {"far ahead", UINT64_MAX - 1, true},
        {"the highest number there is", UINT64_MAX, true},
    };
    send(start_packet().id(7).seq(10).flags(TO_WRITER).bytes());
    EXPECT_EQ(seq_of(*writer().receive()), 1u);
    uint64_t outgoing = 1;
    for (const auto& row : cases) {
        // The payload tells the packets apart: one that should not be forwarded would stand in for the next.
        const Bytes packet = data_packet().id(7).seq(row.seq).m_off(static_cast<uint32_t>(row.seq)).bytes();
        send(packet);
        if (row.is_forwarded) {
            EXPECT_EQ(writer().receive(), with_seq(packet, ++outgoing)) << row.description;
        }
    }
    // A terminate packet ends the session and is forwarded whatever its number is.
    const Bytes terminate = terminate_packet().id(7).seq(3).bytes();
    send(terminate);
    EXPECT_EQ(writer().receive(), with_seq(terminate, ++outgoing));
}

TEST_F(ForwardingTest, a_second_start_packet_changes_neither_nodes_nor_numbering_of_the_session) {
    start_with_nodes(2, 0);
    send(start_packet().id(7).seq(10).flags(TO_WRITER).bytes());
    EXPECT_EQ(seq_of(*writer(0).receive()), 1u);
    send(start_packet().id(7).seq(500).flags(TO_WRITER).bytes());
    EXPECT_TRUE(router().wait_for_log("WARNING | SESSION_MANAGER: Session " + std::string(DEFAULT_UUID_TEXT) +
                                      " already exists"));
    const Bytes data = data_packet().id(7).seq(11).bytes();
    send(data);
    EXPECT_EQ(writer(0).receive(), with_seq(data, 2));
    EXPECT_EQ(writer_of_next_session(), 1u) << "the refused start packet took a node";
    EXPECT_FALSE(writer(0).has_datagram());
}

TEST_F(ForwardingTest, an_id_that_has_ended_begins_a_new_session_with_nodes_and_numbers_of_its_own) {
    start_with_nodes(2, 0);
    for (std::size_t round = 0; round < 2; ++round) {
        send(start_packet().id(7).seq(100 - round).flags(TO_WRITER).bytes());
        send(terminate_packet().id(7).seq(101).bytes());
        EXPECT_EQ(seq_of(*writer(round).receive()), 1u);
        EXPECT_EQ(seq_of(*writer(round).receive()), 2u);
    }
}

TEST_F(ForwardingTest, a_node_that_cannot_be_sent_to_is_reported_and_the_other_is_still_served) {
    m_medias = std::vector<UdpNode>(1);
    // A node without a port is kept with port 0, which no datagram can be sent to.
    start("writer_node=127.0.0.1\nmedia_node=" + media().address() + "\n");
    const Bytes packet = start_packet().id(1).seq(1).flags(TO_BOTH).call_id("call").bytes();
    send(packet);
    EXPECT_EQ(media().receive(), packet);
    EXPECT_TRUE(router().wait_for_log("SYSTEM  | ROUTING_MANAGER: " + std::string(DEFAULT_UUID_TEXT) +
                                      ": assigned hosts: 127.0.0.1:0 " + media().address()));
    std::vector<std::string> errors;
    for (const std::string& line : router().log()) {
        if (line.compare(0, 5, "ERROR") == 0) {
            errors.push_back(line);
        }
    }
    EXPECT_THAT(errors,
                ElementsAre(::testing::MatchesRegex("ERROR   \\| SOCKET\\[[0-9]+\\]: failed to send a data "
                                                    "\\(92: [0-9]+\\), error \\(22\\): Invalid argument")));
}

TEST_F(ForwardingTest, a_node_that_is_gone_neither_ends_the_router_nor_hinders_the_other) {
    start_with_nodes(1, 1);
    m_writers.clear();
    const Bytes packet = start_packet().id(1).seq(1).flags(TO_BOTH).bytes();
    send(packet);
    EXPECT_EQ(media().receive(), packet);
    for (uint64_t seq = 2; seq <= 20; ++seq) {
        const Bytes data = data_packet().id(1).seq(seq).bytes();
        send(data);
        EXPECT_EQ(media().receive(), data);
    }
}

TEST_F(ForwardingTest, interleaved_sessions_keep_their_nodes_for_life) {
    constexpr uint64_t SESSIONS = 60;
    constexpr uint64_t PACKETS = 20; // of each session, start and terminate packet included
    start_with_nodes(3, 2);
    for (uint64_t number = 1; number <= PACKETS; ++number) {
        // One round of all sessions fits into the receive buffer; the next is sent when the nodes have it.
        std::map<uint64_t, Bytes> round;
        for (uint64_t id = 1; id <= SESSIONS; ++id) {
            const uint64_t seq = id * 1000 + number;
            round[id] = number == 1 ? start_packet().id(id).seq(seq).flags(TO_BOTH).call_id("c").bytes()
                        : number == PACKETS ? terminate_packet().id(id).seq(seq).bytes()
                                            : data_packet().id(id).seq(seq).payload_units(id).bytes();
            send(round[id]);
        }
        for (uint64_t id = 1; id <= SESSIONS; ++id) {
            const Bytes expected = with_seq(round[id], number);
            ASSERT_EQ(writer((id - 1) % 3).receive(), expected) << "session " << id << ", packet " << number;
            ASSERT_EQ(media((id - 1) % 2).receive(), expected) << "session " << id << ", packet " << number;
        }
    }
}

} // namespace
