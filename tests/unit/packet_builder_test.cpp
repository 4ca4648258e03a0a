#include "tests/support/packet_builder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using namespace corvalin::test;
using ::testing::ElementsAreArray;

// The expected bytes are written out by hand.

TEST(PacketBuilderTest, a_terminate_packet_is_a_header_with_every_field_at_its_place) {
    const Bytes packet = terminate_packet()
                             .version(0x05)
                             .side(0x06)
                             .flags(0x07)
                             .id(0x0807060504030201)
                             .seq(0x1112131415161718)
                             .mt(0x2122232425262728)
                             .bytes();

    const std::array<uint8_t, 48> expected = {
        0xff, 0x00, 0xff, 0x00, 0x82, 0x05, 0x06, 0x07, // marker, type, version, side, flags
        0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, // id
        0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, // uuid
        0x18, 0x19, 0x1a, 0x1b, 0x1c, 0x1d, 0x1e, 0x1f, //
        0x18, 0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11, // seq
        0x28, 0x27, 0x26, 0x25, 0x24, 0x23, 0x22, 0x21, // mt
    };
    EXPECT_THAT(packet, ElementsAreArray(expected));
    EXPECT_EQ(id_of(packet), 0x0807060504030201u);
    EXPECT_EQ(seq_of(packet), 0x1112131415161718u);
}

TEST(PacketBuilderTest, a_start_packet_has_its_fields_behind_the_header_and_the_call_id_last) {
    const Bytes packet = start_packet()
                             .ts(0x3132333435363738)
                             .sync_ts(0x4142434445464748)
                             .sync_mt(0x5152535455565758)
                             .rule(0x6162636465666768)
                             .reserved({1, 2, 3, 4, 5, 6})
                             .call_id("abc")
                             .bytes();

    ASSERT_EQ(packet.size(), 91u);
    EXPECT_EQ(packet[4], 0x81);
    const std::array<uint8_t, 43> expected = {
        0x38, 0x37, 0x36, 0x35, 0x34, 0x33, 0x32, 0x31, // ts
        0x48, 0x47, 0x46, 0x45, 0x44, 0x43, 0x42, 0x41, // sync_ts
        0x58, 0x57, 0x56, 0x55, 0x54, 0x53, 0x52, 0x51, // sync_mt
        0x68, 0x67, 0x66, 0x65, 0x64, 0x63, 0x62, 0x61, // rule
        0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x03, 0x00, // reserved, call_id_length
        'a',  'b',  'c',
    };
    EXPECT_THAT(Bytes(packet.begin() + 48, packet.end()), ElementsAreArray(expected));
}

TEST(PacketBuilderTest, a_data_packet_counts_its_payload_in_units_of_two_bytes) {
    const Bytes packet = data_packet().m_flg(0x0102).m_off(0x03040506).payload({9, 8, 7, 6}).bytes();

    ASSERT_EQ(packet.size(), 60u);
    EXPECT_EQ(packet[4], 0x83);
    const std::array<uint8_t, 12> expected = {0x02, 0x01, 0x02, 0x00, 0x06, 0x05, 0x04, 0x03, 9, 8, 7, 6};
    EXPECT_THAT(Bytes(packet.begin() + 48, packet.end()), ElementsAreArray(expected));
    EXPECT_EQ(data_packet().payload_units(660).bytes().size(), 1376u);
}

TEST(PacketBuilderTest, a_length_field_set_last_wins_over_the_true_length) {
    EXPECT_EQ(number_at(start_packet().call_id("abc").call_id_length(700).bytes(), 86, 2), 700u);
    EXPECT_EQ(number_at(data_packet().payload({1, 2}).m_num(65535).bytes(), 50, 2), 65535u);
}

TEST(PacketBuilderTest, tampering_replaces_single_bytes_and_the_length_of_the_datagram) {
    EXPECT_EQ(terminate_packet().byte(3, 0x7f).bytes()[3], 0x7f);
    EXPECT_EQ(start_packet().length(47).bytes().size(), 47u);
    const Bytes longer = terminate_packet().length(50).byte(49, 1).bytes();
    EXPECT_EQ(longer.size(), 50u);
    EXPECT_EQ(longer[48], 0);
    EXPECT_EQ(longer[49], 1);
    EXPECT_THROW(terminate_packet().byte(48, 1).bytes(), std::out_of_range);
}

TEST(PacketBuilderTest, the_packet_that_a_node_should_get_differs_in_the_sequence_number_only) {
    const Bytes sent = data_packet().seq(5).payload_units(3).bytes();
    const Bytes expected = with_seq(sent, 0x0102030405060708);

    ASSERT_EQ(expected.size(), sent.size());
    for (std::size_t index = 0; index < sent.size(); ++index) {
        if (index >= 32 && index < 40) {
            EXPECT_EQ(expected[index], 8 - (index - 32)) << index;
        } else {
            EXPECT_EQ(expected[index], sent[index]) << index;
        }
    }
}

} // namespace
