#include "tools/tool_support/media_source.h"

#include <arpa/inet.h>

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "tests/support/packet_builder.h"

namespace corvalin::tools {
namespace {

using test::Bytes;

class MediaSourceTest : public testing::Test {
protected:
    MediaSourceTest() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_receiver.bind_to(address);
        m_settings.target = address;
        m_settings.target.sin_port = htons(m_receiver.port());
        m_settings.id_base = 100;
        m_settings.schedule.sessions = 1;
        m_settings.schedule.data_packets = 4;
        m_settings.seed = 9;
    }

    std::vector<Bytes> receive() {
        std::vector<Bytes> datagrams;
        ReceiveBatch batch(64, true);
        while (const std::size_t count = batch.receive(m_receiver.fd())) {
            for (std::size_t index = 0; index < count; ++index) {
                datagrams.emplace_back(batch.bytes(index), batch.bytes(index) + batch.size(index));
            }
        }
        return datagrams;
    }

    // The numbers of what arrives, in its order. What is no packet shows as "-".
    std::string numbers_of(MediaSource& source) {
        EXPECT_LT(source.send(100, 5000), 100U);
        std::string text;
        for (const Bytes& bytes : receive()) {
            const bool valid = find_fault(bytes.data(), bytes.size()) == PacketFault::none;
            text += (text.empty() ? "" : " ") + (valid ? std::to_string(test::seq_of(bytes)) : "-");
        }
        return text;
    }

    UdpSocket m_receiver;
    SourceSettings m_settings;
};

TEST_F(MediaSourceTest, sends_each_packet_of_the_schedule_once_and_in_order) {
    MediaSource source(m_settings);
    EXPECT_EQ(numbers_of(source), "1 2 3 4 5 6");
    EXPECT_EQ(source.counts().packets[0].datagrams, 1U);
    EXPECT_EQ(source.counts().packets[1].datagrams, 4U);
    EXPECT_EQ(source.counts().packets[1].bytes, 4 * 376U);
    EXPECT_EQ(source.counts().packets[2].bytes, 48U);
    EXPECT_EQ(source.counts().total().datagrams, 6U);
    EXPECT_EQ(source.counts().total().bytes, 88 + 8 + 4 * 376 + 48U); // the call id is "call-100"
}

TEST_F(MediaSourceTest, takes_no_more_of_the_schedule_than_it_was_asked_for) {
    MediaSource source(m_settings);
    EXPECT_EQ(source.send(2, 1), 2U);
    EXPECT_EQ(receive().size(), 2U);
    EXPECT_EQ(source.send(0, 1), 0U);
    EXPECT_EQ(source.send(4, 1), 4U);
    EXPECT_EQ(source.send(4, 1), 0U);
    EXPECT_EQ(receive().size(), 4U);
}

TEST_F(MediaSourceTest, fills_packets_with_the_settings_and_the_time) {
    m_settings.stream.flags = 0x40;
    m_settings.stream.side = 3;
    m_settings.schedule.sessions = 2;
    MediaSource source(m_settings);
    source.send(4, 123456);
    const std::vector<Bytes> datagrams = receive();
    ASSERT_EQ(datagrams.size(), 4U);
    EXPECT_EQ(test::id_of(datagrams[2]), 100U);
    EXPECT_EQ(test::id_of(datagrams[3]), 101U);
    for (const Bytes& bytes : datagrams) {
        EXPECT_EQ(bytes[test::offset::FLAGS], 0x40);
        EXPECT_EQ(bytes[test::offset::SIDE], 3);
        EXPECT_EQ(test::number_at(bytes, test::offset::MT, 8), 123456U);
    }
}

TEST_F(MediaSourceTest, lost_packets_are_counted_and_not_sent) {
    m_settings.impairment.loss_percent = 100;
    MediaSource source(m_settings);
    EXPECT_EQ(numbers_of(source), "");
    EXPECT_EQ(source.counts().lost, 6U);
    EXPECT_EQ(source.counts().total().datagrams, 0U);
}

TEST_F(MediaSourceTest, duplicated_packets_are_sent_twice) {
    m_settings.impairment.duplicate_percent = 100;
    MediaSource source(m_settings);
    EXPECT_EQ(numbers_of(source), "1 1 2 2 3 3 4 4 5 5 6 6");
    EXPECT_EQ(source.counts().duplicated, 6U);
    EXPECT_EQ(source.counts().packets[1].datagrams, 8U);
}

TEST_F(MediaSourceTest, reordered_packets_are_overtaken_by_the_next_of_their_session) {
    m_settings.impairment.reorder_percent = 100;
    MediaSource source(m_settings);
    EXPECT_EQ(numbers_of(source), "2 1 4 3 6 5");
    EXPECT_EQ(source.counts().reordered, 3U);
}

TEST_F(MediaSourceTest, a_reordered_packet_is_overtaken_by_no_other_session) {
    m_settings.impairment.reorder_percent = 100;
    m_settings.schedule.sessions = 2;
    MediaSource source(m_settings);
    EXPECT_EQ(numbers_of(source), "2 1 2 1 4 3 4 3 6 5 6 5");
}

TEST_F(MediaSourceTest, a_reordered_packet_without_a_next_is_sent_at_the_end) {
    m_settings.impairment.reorder_percent = 100;
    m_settings.schedule.with_terminate = false;
    m_settings.schedule.data_packets = 2;
    MediaSource source(m_settings);
    EXPECT_EQ(numbers_of(source), "2 1 3");
    EXPECT_EQ(source.counts().reordered, 1U);
}

TEST_F(MediaSourceTest, a_packet_is_reordered_and_duplicated_at_once) {
    m_settings.impairment.reorder_percent = 100;
    m_settings.impairment.duplicate_percent = 100;
    m_settings.schedule.data_packets = 0;
    MediaSource source(m_settings);
    EXPECT_EQ(numbers_of(source), "2 2 1 1");
}

TEST_F(MediaSourceTest, spared_edges_meet_no_faults) {
    struct Case {
        const char* description;
        double ImpairmentSettings::*percent;
        const char* expected;
    };
    const Case cases[] = {
        {"loss", &ImpairmentSettings::loss_percent, "1 6"},
        {"duplicates", &ImpairmentSettings::duplicate_percent, "1 2 2 3 3 4 4 5 5 6"},
        {"order", &ImpairmentSettings::reorder_percent, "1 3 2 5 4 6"},
    };
    for (const Case& row : cases) {
        SourceSettings settings = m_settings;
        settings.spare_edges = true;
        settings.impairment.*row.percent = 100;
        MediaSource source(settings);
        EXPECT_EQ(numbers_of(source), row.expected) << row.description;
    }
}

TEST_F(MediaSourceTest, spared_terminate_packets_go_behind_the_data) {
    m_settings.spare_edges = true;
    m_settings.impairment.reorder_percent = 100;
    m_settings.schedule.data_packets = 3;
    MediaSource source(m_settings);
    EXPECT_EQ(numbers_of(source), "1 3 2 4 5");
    EXPECT_EQ(source.counts().reordered, 1U);
}

TEST_F(MediaSourceTest, garbage_comes_behind_packets_and_is_counted_by_kind) {
    m_settings.garbage_percent = 100;
    MediaSource source(m_settings);
    EXPECT_EQ(numbers_of(source), "1 - 2 - 3 - 4 - 5 - 6 -");
    uint64_t garbage = 0;
    for (const TrafficCount& count : source.counts().garbage) {
        garbage += count.datagrams;
    }
    EXPECT_EQ(garbage, 6U);
    EXPECT_EQ(source.counts().total().datagrams, 12U);
}

TEST_F(MediaSourceTest, the_same_seed_gives_the_same_datagrams) {
    m_settings.impairment.loss_percent = 20;
    m_settings.impairment.duplicate_percent = 20;
    m_settings.impairment.reorder_percent = 20;
    m_settings.garbage_percent = 20;
    m_settings.schedule.data_packets = 50;
    const auto run = [this](uint64_t seed) {
        m_settings.seed = seed;
        MediaSource source(m_settings);
        source.send(1000, 5000);
        return receive();
    };
    const std::vector<Bytes> first = run(1);
    EXPECT_EQ(run(1), first);
    EXPECT_NE(run(2), first);
}

TEST_F(MediaSourceTest, each_session_keeps_to_one_source_port) {
    m_settings.sockets = 3;
    m_settings.schedule.sessions = 6;
    MediaSource source(m_settings);
    source.send(1000, 1);
    std::set<std::pair<uint64_t, uint16_t>> pairs;
    std::set<uint16_t> ports;
    alignas(8) uint8_t bytes[2048];
    sockaddr_in from{};
    socklen_t length = sizeof(from);
    while (recvfrom(m_receiver.fd(), bytes, sizeof(bytes), MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from),
                    &length) > 0) {
        pairs.emplace(media::view_packet<media::PacketHeader>(bytes).id, from.sin_port);
        ports.insert(from.sin_port);
    }
    EXPECT_EQ(ports.size(), 3U);
    EXPECT_EQ(pairs.size(), 6U);
}

} // namespace
} // namespace corvalin::tools
