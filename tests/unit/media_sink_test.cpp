#include "tools/tool_support/media_sink.h"

#include <gtest/gtest.h>

#include <array>

#include "tools/tool_support/media_stream.h"

namespace corvalin::tools {
namespace {

class MediaSinkTest : public testing::Test {
protected:
    using Writer = std::size_t (*)(const StreamSettings&, const StreamPacket&, uint8_t*) noexcept;

    std::size_t write(Writer writer, uint64_t seq) {
        return writer(m_settings, {7, seq, 1000000}, m_bytes.data());
    }
    void give(MediaSink& sink, Writer writer, uint64_t seq) {
        const std::size_t size = write(writer, seq);
        sink.on_datagram(m_bytes.data(), size);
    }
    void give_whole_session(MediaSink& sink) {
        give(sink, write_start, 1);
        give(sink, write_data, 2);
        give(sink, write_data, 3);
        give(sink, write_terminate, 4);
    }

    StreamSettings m_settings;
    alignas(8) std::array<uint8_t, 2048> m_bytes{};
};

TEST_F(MediaSinkTest, counts_packets_by_type_and_finds_a_whole_session_clean) {
    MediaSink sink(SinkMode::verify);
    give_whole_session(sink);
    EXPECT_EQ(sink.counts().datagrams, 4U);
    EXPECT_EQ(sink.counts().bytes, 94U + 2 * 376U + 48U);
    EXPECT_EQ(sink.counts().packets, (std::array<uint64_t, 3>{1, 2, 1}));
    EXPECT_EQ(sink.counts().sequence.sessions, 1U);
    EXPECT_EQ(sink.counts().sequence.ended_sessions, 1U);
    EXPECT_TRUE(sink.counts().are_clean());
}

TEST_F(MediaSinkTest, a_gap_is_not_clean) {
    MediaSink sink(SinkMode::check);
    give(sink, write_start, 1);
    give(sink, write_data, 3);
    EXPECT_EQ(sink.counts().sequence.gaps, 1U);
    EXPECT_FALSE(sink.counts().are_clean());
}

TEST_F(MediaSinkTest, a_changed_byte_is_counted_when_content_is_verified_only) {
    for (const SinkMode mode : {SinkMode::check, SinkMode::verify}) {
        MediaSink sink(mode);
        const std::size_t size = write(write_start, 1);
        m_bytes[80] ^= 1U;
        sink.on_datagram(m_bytes.data(), size);
        EXPECT_EQ(sink.counts().changed, mode == SinkMode::verify ? 1U : 0U);
        EXPECT_EQ(sink.counts().are_clean(), mode != SinkMode::verify);
    }
}

TEST_F(MediaSinkTest, what_is_no_packet_is_invalid_and_belongs_to_no_session) {
    MediaSink sink(SinkMode::verify);
    const std::size_t size = write(write_data, 1);
    sink.on_datagram(m_bytes.data(), size - 1);
    EXPECT_EQ(sink.counts().invalid, 1U);
    EXPECT_EQ(sink.counts().datagrams, 1U);
    EXPECT_EQ(sink.counts().sequence.sessions, 0U);
    EXPECT_FALSE(sink.counts().are_clean());
}

TEST_F(MediaSinkTest, discarding_counts_datagrams_without_a_look_at_them) {
    MediaSink sink(SinkMode::discard);
    sink.on_datagram(nullptr, 376);
    SinkCounts expected;
    expected.datagrams = 1;
    expected.bytes = 376;
    EXPECT_TRUE(sink.counts() == expected);
}

TEST_F(MediaSinkTest, counts_of_ports_can_be_summed) {
    MediaSink sink(SinkMode::verify);
    give_whole_session(sink);
    sink.on_datagram(m_bytes.data(), 3);
    SinkCounts sum = sink.counts();
    sum.add(sink.counts());
    EXPECT_EQ(sum.datagrams, 10U);
    EXPECT_EQ(sum.packets, (std::array<uint64_t, 3>{2, 4, 2}));
    EXPECT_EQ(sum.invalid, 2U);
    EXPECT_EQ(sum.sequence.sessions, 2U);
}

} // namespace
} // namespace corvalin::tools
