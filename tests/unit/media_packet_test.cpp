#include "corvalin_lib/media_packet.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <utility>

#include "tests/support/packet_builder.h"
#include "tests/support/pooled_packet.h"

namespace {

using namespace corvalin;
using media::DataPacket;
using media::PacketBuffer;
using media::PacketHeader;
using media::StartPacket;
using media::TerminatePacket;
using media::view_packet;
using test::bytes_of;
using test::data_packet;
using test::pooled;
using test::start_packet;
using test::terminate_packet;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

template <class Builder>
Builder with_header(Builder builder) {
    return builder.version(0x11)
        .side(0x22)
        .flags(0x33)
        .id(0x4142434445464748)
        .seq(0x5152535455565758)
        .mt(0x6162636465666768);
}

void expect_header(const PacketHeader& header, uint8_t type) {
    EXPECT_EQ(header.marker, 0x00FF00FFu);
    EXPECT_EQ(header.type, type);
    EXPECT_EQ(header.version, 0x11);
    EXPECT_EQ(header.side, 0x22);
    EXPECT_EQ(header.flags, 0x33);
    EXPECT_EQ(header.id, 0x4142434445464748u);
    EXPECT_THAT(header.uuid, ElementsAreArray(test::DEFAULT_UUID));
    EXPECT_EQ(header.seq, 0x5152535455565758u);
    EXPECT_EQ(header.mt, 0x6162636465666768u);
}

TEST(MediaPacketTest, a_terminate_packet_is_read_at_its_offsets) {
    const auto buffer = pooled(with_header(terminate_packet()).bytes());
    const auto& packet = view_packet<TerminatePacket>(buffer->data);
    expect_header(packet, 0x82);
    EXPECT_EQ(packet.wire_bytes(), 48u);
}

TEST(MediaPacketTest, a_start_packet_is_read_at_its_offsets) {
    const auto buffer = pooled(with_header(start_packet())
                                   .ts(0x0102030405060708)
                                   .sync_ts(0x1112131415161718)
                                   .sync_mt(0x2122232425262728)
                                   .rule(0x3132333435363738)
                                   .reserved({9, 8, 7, 6, 5, 4})
                                   .call_id("some call")
                                   .bytes());
    const auto& packet = view_packet<StartPacket>(buffer->data);
    expect_header(packet, 0x81);
    EXPECT_EQ(packet.ts, 0x0102030405060708u);
    EXPECT_EQ(packet.sync_ts, 0x1112131415161718u);
    EXPECT_EQ(packet.sync_mt, 0x2122232425262728u);
    EXPECT_EQ(packet.rule, 0x3132333435363738u);
    EXPECT_THAT(packet.reserved, ElementsAre(9, 8, 7, 6, 5, 4));
    EXPECT_EQ(packet.call_id_length, 9u);
    EXPECT_EQ(packet.call_id(), "some call");
    EXPECT_EQ(packet.wire_bytes(), 97u);
}

TEST(MediaPacketTest, a_data_packet_is_read_at_its_offsets) {
    const auto buffer =
        pooled(with_header(data_packet()).m_flg(0x7172).m_off(0x81828384).payload_units(3).bytes());
    const auto& packet = view_packet<DataPacket>(buffer->data);
    expect_header(packet, 0x83);
    EXPECT_EQ(packet.m_flg, 0x7172);
    EXPECT_EQ(packet.m_num, 3);
    EXPECT_EQ(packet.m_off, 0x81828384u);
    EXPECT_EQ(packet.wire_bytes(), 62u);
}

TEST(MediaPacketTest, a_new_sequence_number_changes_the_eight_bytes_at_offset_32_and_no_other) {
    const test::Bytes sent =
        start_packet().seq(5).flags(0xff).reserved({1, 2, 3, 4, 5, 6}).call_id("x").bytes();
    const auto buffer = pooled(sent);
    view_packet<StartPacket>(buffer->data).seq = 0xf1f2f3f4f5f6f7f8;
    test::Bytes expected = sent;
    for (std::size_t index = 0; index < 8; ++index) {
        expected[32 + index] = static_cast<uint8_t>(0xf8 - index);
    }
    EXPECT_EQ(bytes_of(*buffer), expected);
}

TEST(MediaPacketTest, the_records_have_the_lengths_of_the_wire) {
    EXPECT_EQ(sizeof(PacketHeader), 48u);
    EXPECT_EQ(sizeof(TerminatePacket), 48u);
    EXPECT_EQ(sizeof(StartPacket), 88u);
    EXPECT_EQ(sizeof(DataPacket), 56u);
    EXPECT_EQ(media::PACKET_MIN_BYTES, 48u);
    EXPECT_EQ(media::PACKET_MAX_BYTES, 1376u);
}

TEST(MediaPacketTest, the_length_of_a_packet_follows_from_its_fields_without_a_wrap) {
    for (const auto& [field, bytes_count] :
         {std::pair<uint16_t, std::size_t>{0, 88}, {1, 89}, {1288, 1376}, {65535, 65623}}) {
        const auto start = pooled(start_packet().call_id_length(field).bytes());
        EXPECT_EQ(view_packet<StartPacket>(start->data).wire_bytes(), bytes_count);
    }
    for (const auto& [field, bytes_count] :
         {std::pair<uint16_t, std::size_t>{0, 56}, {1, 58}, {660, 1376}, {65535, 131126}}) {
        const auto data = pooled(data_packet().m_num(field).bytes());
        EXPECT_EQ(view_packet<DataPacket>(data->data).wire_bytes(), bytes_count);
    }
}

TEST(MediaPacketTest, a_call_id_ends_at_its_first_zero_byte_and_with_the_buffer_at_the_latest) {
    struct Case {
        const char* description;
        std::string trailer;
        std::string call_id;
    };
    const std::array<Case, 7> cases = {{
        {"no trailer", "", ""},
        {"plain text", "abc", "abc"},
        {"a zero byte in the middle", std::string("abc\0de", 6), "abc"},
        {"a zero byte in front", std::string("\0abc", 4), ""},
        {"bytes that are no text", "\x01\xff\x80", "\x01\xff\x80"},
        {"one byte short of the buffer", std::string(1287, 'x'), std::string(1287, 'x')},
        // Directly behind the last byte stands the buffer's size, 1376, whose bytes 60 05 are not zero.
        {"up to the end of the buffer, no zero byte behind it", std::string(1288, 'y'),
         std::string(1288, 'y')},
    }};
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        const auto buffer = pooled(start_packet().call_id(row.trailer).bytes());
        EXPECT_EQ(view_packet<StartPacket>(buffer->data).call_id(), row.call_id);
    }
}

TEST(MediaPacketTest, a_call_id_is_scanned_and_not_counted) {
    // The length field serves the check of the length and the forwarding only.
    const auto buffer = pooled(start_packet().call_id("abcdef").call_id_length(2).bytes());
    EXPECT_EQ(view_packet<StartPacket>(buffer->data).call_id(), "abcdef");
}

TEST(MediaPacketTest, an_identifier_streams_as_groups_of_lower_case_digits) {
    const std::array<uint8_t, 16> uuid = {0x00, 0x01, 0x0a, 0xAB, 0xCD, 0xEF, 0x10, 0x20,
                                          0x30, 0x40, 0x50, 0x60, 0x70, 0x80, 0x90, 0xff};
    std::ostringstream stream;
    stream << media::UuidText{uuid.data()} << " " << 255;
    EXPECT_EQ(stream.str(), "00010aab-cdef-1020-3040-5060708090ff 255");
}

} // namespace
