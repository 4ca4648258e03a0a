// Expected packets were computed by a second implementation of the layout that media_stream.h describes.
#include "tools/tool_support/media_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <string>

#include "tests/support/packet_builder.h"

namespace corvalin::tools {
namespace {

using test::Bytes;
namespace offset = test::offset;

using Writer = std::size_t (*)(const StreamSettings&, const StreamPacket&, uint8_t*) noexcept;

/// A packet in memory that is aligned as the functions demand.
class AlignedPacket {
public:
    AlignedPacket(Writer writer, const StreamSettings& settings, const StreamPacket& packet) {
        m_bytes.fill(0xAA);
        m_size = writer(settings, packet, m_bytes.data());
    }
    explicit AlignedPacket(const Bytes& bytes) : m_size(bytes.size()) {
        m_bytes.fill(0xAA); // what lies behind a packet must not matter
        std::copy(bytes.begin(), bytes.end(), m_bytes.begin());
    }

    Bytes bytes() const { return {m_bytes.begin(), m_bytes.begin() + static_cast<std::ptrdiff_t>(m_size)}; }
    PacketFault fault() const { return find_fault(m_bytes.data(), m_size); }
    bool is_intact() const {
        return fault() == PacketFault::none && is_content_intact(m_bytes.data(), m_size);
    }

private:
    alignas(8) std::array<uint8_t, 2048> m_bytes{};
    std::size_t m_size;
};

std::string hex(const Bytes& bytes) {
    std::string text;
    for (const uint8_t byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned int>(byte));
        text += digits;
    }
    return text;
}

StreamSettings settings_of(uint8_t flags, uint8_t side, std::size_t payload_bytes) {
    StreamSettings settings;
    settings.flags = flags;
    settings.side = side;
    settings.payload_bytes = payload_bytes;
    return settings;
}

TEST(MediaStreamTest, makes_a_start_packet_of_its_session) {
    const AlignedPacket packet(write_start, settings_of(0xC0, 1, 0), {7, 10, 123456789});
    EXPECT_EQ(hex(packet.bytes()), "ff00ff00810001c0070000000000000045ceab7e97c2b4b8893bbce781ace827"
                                   "0a0000000000000015cd5b070000000015cd5b070000000015cd5b0700000000"
                                   "15cd5b0700000000050c75af938f5a45a10edcb75dee060063616c6c2d37");
}

TEST(MediaStreamTest, makes_a_data_packet_of_its_session_and_number) {
    const AlignedPacket packet(write_data, settings_of(0x80, 1, 12), {7, 0x100000002, 123456789});
    EXPECT_EQ(hex(packet.bytes()), "ff00ff0083000180070000000000000045ceab7e97c2b4b8893bbce781ace827"
                                   "020000000100000015cd5b07000000008e8706000200000025a52269e5c8a646"
                                   "5f07d35c");
}

TEST(MediaStreamTest, makes_a_terminate_packet_of_its_session) {
    const AlignedPacket packet(write_terminate, settings_of(0x40, 0, 0), {7, 12, 123456789});
    EXPECT_EQ(hex(packet.bytes()), "ff00ff0082000040070000000000000045ceab7e97c2b4b8893bbce781ace827"
                                   "0c0000000000000029ce5b0700000000");
}

TEST(MediaStreamTest, makes_valid_packets_of_every_length) {
    struct Case {
        const char* description;
        Writer writer;
        std::size_t payload_bytes;
        std::size_t prefix_bytes;
        std::size_t packet_bytes;
    };
    const Case cases[] = {
        {"data without payload", write_data, 0, 0, 56},
        {"data of one unit", write_data, 2, 0, 58},
        {"data of whole words", write_data, 320, 0, 376},
        {"the longest data", write_data, PAYLOAD_MAX_BYTES, 0, 1376},
        {"start without prefix", write_start, 0, 0, 88 + 20},
        {"the longest start", write_start, 0, CALL_ID_PREFIX_MAX_BYTES, 1376},
        {"terminate", write_terminate, 0, 0, 48},
    };
    for (const Case& row : cases) {
        StreamSettings settings = settings_of(0xC0, 0, row.payload_bytes);
        settings.call_id_prefix = std::string(row.prefix_bytes, 'x');
        const AlignedPacket packet(row.writer, settings, {UINT64_MAX, 1, 1});
        EXPECT_EQ(packet.bytes().size(), row.packet_bytes) << row.description;
        EXPECT_EQ(packet.fault(), PacketFault::none) << row.description;
        EXPECT_TRUE(packet.is_intact()) << row.description;
        EXPECT_TRUE(AlignedPacket(packet.bytes()).is_intact())
            << row.description << ", other bytes behind it";
    }
}

TEST(MediaStreamTest, gives_other_content_to_other_sessions_and_numbers) {
    const StreamSettings settings = settings_of(0xC0, 0, 320);
    const auto payload = [&settings](uint64_t id, uint64_t seq) {
        const Bytes bytes = AlignedPacket(write_data, settings, {id, seq, 1}).bytes();
        return Bytes(bytes.begin() + offset::M_PAYLOAD, bytes.end());
    };
    EXPECT_NE(payload(7, 2), payload(7, 3));
    EXPECT_NE(payload(7, 2), payload(8, 2));
    EXPECT_EQ(payload(7, 2), payload(7, 2));
}

TEST(MediaStreamTest, a_new_seq_leaves_the_content_intact) {
    for (const Writer writer : {write_start, write_data, write_terminate}) {
        const AlignedPacket packet(writer, settings_of(0xC0, 0, 320), {7, 10, 123456789});
        EXPECT_TRUE(AlignedPacket(test::with_seq(packet.bytes(), 99)).is_intact());
    }
}

// A check value of 10 bits in a terminate packet and of 16 bits in a data packet lets few changes pass; the inputs
// are fixed, so these are the same on each run.
TEST(MediaStreamTest, a_changed_byte_is_seen_wherever_it_is) {
    struct Case {
        const char* description;
        Writer writer;
    };
    const Case cases[] = {{"start", write_start}, {"data", write_data}, {"terminate", write_terminate}};
    for (const Case& row : cases) {
        const Bytes bytes = AlignedPacket(row.writer, settings_of(0xC0, 0, 320), {7, 10, 123456789}).bytes();
        for (std::size_t index = 0; index < bytes.size(); ++index) {
            if (index >= offset::SEQ && index < offset::MT) {
                continue;
            }
            for (const int change : {0x01, 0x80, 0xFF}) {
                Bytes changed = bytes;
                changed[index] = static_cast<uint8_t>(changed[index] ^ change);
                EXPECT_FALSE(AlignedPacket(changed).is_intact())
                    << row.description << ", byte " << index << " changed by " << change;
            }
        }
    }
}

TEST(MediaStreamTest, a_packet_of_another_session_under_this_id_is_seen) {
    for (const Writer writer : {write_start, write_data, write_terminate}) {
        Bytes bytes = AlignedPacket(writer, settings_of(0xC0, 0, 320), {7, 10, 123456789}).bytes();
        test::put_number(bytes, offset::ID, 8, 8);
        EXPECT_FALSE(AlignedPacket(bytes).is_intact());
    }
}

TEST(MediaStreamTest, finds_the_fault_that_a_router_would_refuse) {
    struct Case {
        const char* description;
        Bytes bytes;
        PacketFault fault;
    };
    const Case cases[] = {
        {"47 bytes", test::terminate_packet().length(47).bytes(), PacketFault::too_short},
        {"48 bytes", test::terminate_packet().bytes(), PacketFault::none},
        {"1376 bytes", test::data_packet().payload_units(660).bytes(), PacketFault::none},
        {"1377 bytes", test::data_packet().payload_units(660).length(1377).bytes(), PacketFault::too_long},
        {"marker", test::data_packet().marker(0x00FF00FE).version(1).bytes(), PacketFault::bad_marker},
        {"version", test::data_packet().version(1).type(0x80).bytes(), PacketFault::bad_version},
        {"type below", test::data_packet().type(0x80).bytes(), PacketFault::unknown_type},
        {"type above", test::data_packet().type(0x84).bytes(), PacketFault::unknown_type},
        {"terminate of 49", test::terminate_packet().length(49).bytes(), PacketFault::corrupted_size},
        {"data of 48", test::data_packet().length(48).bytes(), PacketFault::corrupted_size},
        {"data without payload", test::data_packet().bytes(), PacketFault::none},
        {"data a byte short", test::data_packet().payload_units(2).length(59).bytes(),
         PacketFault::corrupted_size},
        {"start of 48", test::start_packet().length(48).bytes(), PacketFault::corrupted_size},
        {"start without call id", test::start_packet().bytes(), PacketFault::none},
        {"start a byte long", test::start_packet().call_id("abc").length(92).bytes(),
         PacketFault::corrupted_size},
    };
    for (const Case& row : cases) {
        EXPECT_EQ(AlignedPacket(row.bytes).fault(), row.fault) << row.description;
    }
}

} // namespace
} // namespace corvalin::tools
