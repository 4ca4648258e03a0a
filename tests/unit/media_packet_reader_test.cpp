#include "corvalin_lib/media_packet_reader.h"

#include <sys/syscall.h>
#include <syslog.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iostream>
#include <memory>
#include <ostream>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "corvalin_lib/counter.h"
#include "corvalin_lib/log.h"
#include "corvalin_lib/media_session_manager.h"
#include "corvalin_lib/thread.h"
#include "tests/support/captured_log.h"
#include "tests/support/packet_builder.h"
#include "tests/support/pooled_packet.h"
#include "tests/support/private_syslog.h"
#include "tests/support/refused_system_call.h"
#include "tests/support/waiting.h"

namespace {

using namespace corvalin;
using log::Level;
using media::PacketBuffer;
using media::PacketReader;
using media::PacketReaderStatistic;
using test::Bytes;
using test::CapturedLog;
using test::data_packet;
using test::DEFAULT_UUID_TEXT;
using test::pooled;
using test::start_packet;
using test::terminate_packet;
using test::wait_until;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::size_t RING_ELEMENTS = 100'000;
constexpr std::size_t POOL_BUFFERS = 150'000;

/// Keeps what it was given. Filled on the reader thread, read by the test when that has ended.
class RecordingListener : public media::PacketReaderListener {
public:
    struct Packet {
        std::string type;
        uint64_t id;
        uint64_t seq;
        bool operator==(const Packet&) const = default;
        friend std::ostream& operator<<(std::ostream& stream, const Packet& packet) {
            return stream << packet.type << " id " << packet.id << " seq " << packet.seq;
        }
    };

    void on_packet(media::StartPacket& packet) override { keep("start", packet); }
    void on_packet(media::TerminatePacket& packet) override { keep("terminate", packet); }
    void on_packet(media::DataPacket& packet) override { keep("data", packet); }
    void on_packet_try() override { ++tries; }
    bool on_packet_idle() override {
        ++idles;
        return idle_result;
    }

    std::vector<Packet> packets;
    std::function<void(media::PacketHeader&)> on_any;
    std::atomic<uint64_t> received{0};
    std::atomic<int> thread_id{0};
    uint64_t tries = 0;
    uint64_t idles = 0;
    bool idle_result = false;

private:
    void keep(const char* type, media::PacketHeader& packet) {
        packets.push_back({type, packet.id, packet.seq});
        thread_id = current_thread_id();
        if (on_any) {
            on_any(packet);
        }
        ++received;
    }
};

/// Keeps the ids that it was told, and 0 where there was none.
class LookingAheadListener : public RecordingListener, public media::PacketLookahead {
public:
    void on_packet_ahead(const media::PacketHeader* packet) override {
        told.push_back(packet != nullptr ? packet->id : 0);
    }

    std::vector<uint64_t> told;
};

/// Counts the waits that ran out.
class CountingReader : public PacketReader {
public:
    using PacketReader::PacketReader;

    void on_queue_read(rc_ptr<PacketBuffer> packet) override {
        null_reads += packet ? 0 : 1;
        PacketReader::on_queue_read(std::move(packet));
    }
    bool runs() const { return is_running(); }

    std::atomic<uint64_t> null_reads{0};
};

/// Counters by name, for whole comparisons.
struct Counts {
    uint64_t bad_marker = 0;
    uint64_t version = 0;
    uint64_t corrupted_size = 0;
    uint64_t unknown_type = 0;
    uint64_t start = 0;
    uint64_t term = 0;
    uint64_t data = 0;

    bool operator==(const Counts&) const = default;
    uint64_t sum() const {
        return bad_marker + version + corrupted_size + unknown_type + start + term + data;
    }
    friend std::ostream& operator<<(std::ostream& stream, const Counts& counts) {
        return stream << "marker " << counts.bad_marker << " version " << counts.version << " size "
                      << counts.corrupted_size << " type " << counts.unknown_type << " start " << counts.start
                      << " term " << counts.term << " data " << counts.data;
    }
};

Counts counts_of(const PacketReaderStatistic& statistic) {
    return {statistic.rejected_bad_marker.value(),
            statistic.rejected_version.value(),
            statistic.rejected_corrupted_size.value(),
            statistic.rejected_unknown_type.value(),
            statistic.start_packets.value(),
            statistic.term_packets.value(),
            statistic.data_packets.value()};
}

class MediaPacketReaderTest : public ::testing::Test {
protected:
    MediaPacketReaderTest() { rebuild(); }

    void rebuild() {
        m_reader = nullptr;
        m_statistic = std::make_unique<PacketReaderStatistic>();
        m_reader = std::make_unique<CountingReader>(m_listener, *m_statistic);
    }
    void read_from(const Bytes& datagram) { m_reader->read_from(datagram.data(), datagram.size()); }
    /// A reader that was never started goes exactly one round: it looks at its flag behind the round only.
    void one_round() { m_reader->PacketReader::QueueIdleReader::run(); }
    /// Validation alone, without the ring.
    void validate(const Bytes& datagram) { m_reader->on_queue_read(pooled(datagram)); }

    RecordingListener m_listener;
    std::unique_ptr<PacketReaderStatistic> m_statistic;
    std::unique_ptr<CountingReader> m_reader;
};

std::size_t free_buffers() {
    std::vector<rc_ptr<PacketBuffer>> buffers;
    buffers.reserve(POOL_BUFFERS);
    try {
        for (;;) {
            buffers.emplace_back(PacketBuffer::allocator.allocate());
        }
    } catch (const PacketBuffer::BadAlloc&) {
    }
    return buffers.size();
}

// ---- The entry of the receiving thread

TEST_F(MediaPacketReaderTest, datagrams_of_48_to_1376_bytes_are_passed_on_and_others_counted) {
    struct Case {
        std::size_t length;
        uint64_t too_short;
        uint64_t too_long;
        uint64_t passed;
    };
    const std::array<Case, 8> cases = {{{0, 1, 0, 0},
                                        {1, 1, 0, 0},
                                        {47, 1, 0, 0},
                                        {48, 0, 0, 1},
                                        {1375, 0, 0, 1},
                                        {1376, 0, 0, 1},
                                        {1377, 0, 1, 0},
                                        {65507, 0, 1, 0}}};
    for (const Case& row : cases) {
        SCOPED_TRACE(row.length);
        rebuild();
        read_from(Bytes(row.length, 0x55));
        EXPECT_EQ(m_statistic->dropped_min_length.value(), row.too_short);
        EXPECT_EQ(m_statistic->dropped_max_length.value(), row.too_long);
        EXPECT_EQ(m_statistic->passed_elements.value(), row.passed);
        EXPECT_EQ(m_statistic->dropped_elements.value(), 0u);
        EXPECT_EQ(m_statistic->dropped_failed_allocation.value(), 0u);
        if (row.passed == 1) {
            one_round();
            EXPECT_EQ(m_statistic->rejected_bad_marker.value(), 1u);
        }
    }
}

TEST_F(MediaPacketReaderTest, the_callers_bytes_are_free_again_when_read_from_returns) {
    Bytes datagram = terminate_packet().id(7).seq(9).bytes();
    read_from(datagram);
    std::fill(datagram.begin(), datagram.end(), uint8_t{0});
    one_round();
    EXPECT_THAT(m_listener.packets, ElementsAre(RecordingListener::Packet{"terminate", 7, 9}));
}

TEST_F(MediaPacketReaderTest, without_a_free_buffer_the_datagram_is_counted_and_forgotten) {
    std::vector<rc_ptr<PacketBuffer>> all;
    for (std::size_t count = 0; count < POOL_BUFFERS; ++count) {
        all.emplace_back(PacketBuffer::allocator.allocate());
    }
    const CapturedLog captured(Level::TRACE);
    read_from(terminate_packet().bytes());
    EXPECT_EQ(m_statistic->dropped_failed_allocation.value(), 1u);
    EXPECT_EQ(m_statistic->passed_elements.value(), 0u);
    EXPECT_EQ(m_statistic->dropped_elements.value(), 0u);
    // The lengths are looked at first: these do not ask the pool.
    read_from(Bytes(47));
    read_from(Bytes(1377));
    EXPECT_EQ(m_statistic->dropped_failed_allocation.value(), 1u);
    EXPECT_EQ(m_statistic->dropped_min_length.value(), 1u);
    EXPECT_EQ(m_statistic->dropped_max_length.value(), 1u);

    all.pop_back();
    read_from(terminate_packet().id(3).bytes());
    EXPECT_EQ(m_statistic->passed_elements.value(), 1u);
    EXPECT_THAT(captured.texts(), IsEmpty());
}

TEST_F(MediaPacketReaderTest, a_full_ring_loses_the_newest_datagram_whose_buffer_is_free_at_once) {
    const CapturedLog captured(Level::TRACE);
    const Bytes datagram = terminate_packet().bytes();
    for (std::size_t count = 0; count < RING_ELEMENTS; ++count) {
        read_from(datagram);
    }
    EXPECT_EQ(m_statistic->passed_elements.value(), RING_ELEMENTS);
    EXPECT_EQ(m_statistic->dropped_elements.value(), 0u);

    read_from(terminate_packet().id(99).bytes());
    EXPECT_EQ(m_statistic->passed_elements.value(), RING_ELEMENTS);
    EXPECT_EQ(m_statistic->dropped_elements.value(), 1u);
    EXPECT_EQ(free_buffers(), POOL_BUFFERS - RING_ELEMENTS);
    EXPECT_EQ(m_statistic->dropped_failed_allocation.value(), 0u);
    EXPECT_THAT(captured.texts(), IsEmpty());

    // One element taken makes room for one.
    one_round();
    read_from(datagram);
    read_from(datagram);
    EXPECT_EQ(m_statistic->passed_elements.value(), RING_ELEMENTS + 1);
    EXPECT_EQ(m_statistic->dropped_elements.value(), 2u);

    m_reader = nullptr;
    EXPECT_EQ(free_buffers(), POOL_BUFFERS) << "what was left in the ring is back in the pool";
}

TEST_F(MediaPacketReaderTest, packets_pass_in_order_across_the_wraps_of_the_ring) {
    uint64_t sent = 0;
    uint64_t expected = 0;
    m_listener.on_any = [&](const media::PacketHeader& packet) {
        ASSERT_EQ(packet.seq, expected);
        ++expected;
    };
    Bytes datagram = data_packet().id(1).bytes();
    while (sent < 2 * RING_ELEMENTS + 500) {
        for (int count = 0; count < 700; ++count) {
            test::put_number(datagram, test::offset::SEQ, 8, sent++);
            read_from(datagram);
        }
        for (int count = 0; count < 700; ++count) {
            one_round();
        }
        m_listener.packets.clear();
    }
    EXPECT_EQ(expected, sent);
    EXPECT_EQ(m_statistic->dropped_elements.value(), 0u);
    EXPECT_EQ(m_statistic->elements.value(), 0u);
}

TEST_F(MediaPacketReaderTest, a_buffer_is_back_in_the_pool_when_its_packet_has_been_handled) {
    read_from(terminate_packet().bytes());
    EXPECT_EQ(free_buffers(), POOL_BUFFERS - 1);
    one_round();
    EXPECT_EQ(free_buffers(), POOL_BUFFERS);
}

// ---- Validation

struct Rejection {
    const char* description;
    Bytes datagram;
    Counts expected;
};

std::vector<Rejection> rejections() {
    const std::string longest(1288, 'x');
    return {
        {"start, no call id", start_packet().bytes(), {.start = 1}},
        {"start, call id", start_packet().call_id("abc").bytes(), {.start = 1}},
        {"start, the longest call id", start_packet().call_id(longest).bytes(), {.start = 1}},
        {"start, a zero byte within the call id",
         start_packet().call_id(std::string("abc\0de", 6)).bytes(),
         {.start = 1}},
        {"start, a byte short", start_packet().call_id("abc").length(90).bytes(), {.corrupted_size = 1}},
        {"start, a byte long", start_packet().call_id("abc").length(92).bytes(), {.corrupted_size = 1}},
        {"start, cut in the record", start_packet().length(87).bytes(), {.corrupted_size = 1}},
        {"start, a header only", start_packet().call_id("abc").length(48).bytes(), {.corrupted_size = 1}},
        {"start, the highest length field",
         start_packet().call_id_length(65535).bytes(),
         {.corrupted_size = 1}},
        {"data, no payload", data_packet().bytes(), {.data = 1}},
        {"data, one unit", data_packet().payload_units(1).bytes(), {.data = 1}},
        {"data, the largest payload", data_packet().payload_units(660).bytes(), {.data = 1}},
        {"data, a byte short", data_packet().payload_units(2).length(59).bytes(), {.corrupted_size = 1}},
        {"data, a byte long", data_packet().payload_units(2).length(61).bytes(), {.corrupted_size = 1}},
        {"data, a header only", data_packet().length(48).bytes(), {.corrupted_size = 1}},
        {"data, cut before its number of units",
         data_packet().payload_units(4).length(50).bytes(),
         {.corrupted_size = 1}},
        {"data, the highest number of units", data_packet().m_num(65535).bytes(), {.corrupted_size = 1}},
        // 2 * 32784 + 56 is 88 modulo 65536.
        {"data, a number of units that would wrap in 16 bits",
         data_packet().m_num(32784).length(88).bytes(),
         {.corrupted_size = 1}},
        // 65496 + 88 is 48 modulo 65536.
        {"start, a length field that would wrap in 16 bits",
         start_packet().call_id_length(65496).length(88).bytes(),
         {.corrupted_size = 1}},
        {"terminate", terminate_packet().bytes(), {.term = 1}},
        {"terminate, a byte long", terminate_packet().length(49).bytes(), {.corrupted_size = 1}},
        {"terminate, the length of a start", terminate_packet().length(88).bytes(), {.corrupted_size = 1}},
        {"type 0x80", terminate_packet().type(0x80).bytes(), {.unknown_type = 1}},
        {"type 0x84", terminate_packet().type(0x84).bytes(), {.unknown_type = 1}},
        {"type 0x00", terminate_packet().type(0x00).bytes(), {.unknown_type = 1}},
        {"type 0x01", terminate_packet().type(0x01).bytes(), {.unknown_type = 1}},
        {"type 0xff", terminate_packet().type(0xff).bytes(), {.unknown_type = 1}},
        {"version 1", terminate_packet().version(1).bytes(), {.version = 1}},
        {"version 255", data_packet().version(255).bytes(), {.version = 1}},
        {"marker, first byte", terminate_packet().byte(0, 0xfe).bytes(), {.bad_marker = 1}},
        {"marker, last byte", terminate_packet().byte(3, 0x01).bytes(), {.bad_marker = 1}},
        {"marker, the other byte order", terminate_packet().marker(0xFF00FF00).bytes(), {.bad_marker = 1}},
        {"48 bytes of zeros", Bytes(48), {.bad_marker = 1}},
        {"bad version and unknown type", terminate_packet().version(1).type(0).bytes(), {.version = 1}},
        {"bad version and bad length", terminate_packet().version(1).length(49).bytes(), {.version = 1}},
        {"bad marker and bad version", terminate_packet().marker(1).version(1).bytes(), {.bad_marker = 1}},
        {"bad marker, version, type and length",
         terminate_packet().marker(1).version(1).type(0).length(60).bytes(),
         {.bad_marker = 1}},
    };
}

TEST_F(MediaPacketReaderTest, the_first_failure_of_a_packet_counts_and_a_whole_packet_reaches_the_listener) {
    for (const Rejection& row : rejections()) {
        SCOPED_TRACE(row.description);
        rebuild();
        m_listener.packets.clear();
        read_from(row.datagram);
        EXPECT_EQ(m_statistic->passed_elements.value(), 1u);
        one_round();
        EXPECT_EQ(counts_of(*m_statistic), row.expected);
        const uint64_t valid = row.expected.start + row.expected.term + row.expected.data;
        EXPECT_EQ(m_listener.packets.size(), valid);
    }
}

TEST_F(MediaPacketReaderTest, a_rejected_packet_leaves_no_line_anywhere) {
    const test::ChildReport report = test::run_with_private_syslog([this] {
        const CapturedLog captured(Level::TRACE);
        for (const Rejection& row : rejections()) {
            if (row.expected.start + row.expected.term + row.expected.data == 0) {
                validate(row.datagram);
            }
        }
        read_from(Bytes(10));
        read_from(Bytes(2000));
        EXPECT_THAT(captured.texts(), IsEmpty());
        EXPECT_GE(counts_of(*m_statistic).sum(), 20u);
    });
    EXPECT_EQ(report.wait_status, 0);
    EXPECT_THAT(report.syslog, IsEmpty());
}

TEST_F(MediaPacketReaderTest, nothing_is_done_when_a_wait_has_run_out) {
    m_reader->on_queue_read(nullptr);
    EXPECT_EQ(counts_of(*m_statistic), Counts());
    EXPECT_THAT(m_listener.packets, IsEmpty());
}

TEST_F(MediaPacketReaderTest,
       a_listener_that_looks_ahead_is_told_each_packet_that_waits_once_up_to_five_ahead) {
    LookingAheadListener listener;
    PacketReaderStatistic statistic;
    CountingReader reader(listener, statistic);
    const auto handle_all = [&](const std::vector<Bytes>& datagrams) {
        for (const Bytes& datagram : datagrams) {
            reader.read_from(datagram.data(), datagram.size());
        }
        std::vector<std::vector<uint64_t>> told;
        for (std::size_t round = 0; round < datagrams.size(); ++round) {
            reader.PacketReader::QueueIdleReader::run();
            told.push_back(std::exchange(listener.told, {}));
        }
        return told;
    };
    std::vector<Bytes> datagrams;
    for (uint64_t id = 1; id <= 14; ++id) {
        datagrams.push_back(data_packet().id(id).bytes());
    }
    // Foreign and damaged packets wait like all others.
    datagrams[2] = data_packet().id(3).marker(5).bytes();
    datagrams[4] = data_packet().id(5).version(9).bytes();
    datagrams[7] = start_packet().id(8).bytes();
    datagrams[8] = terminate_packet().id(9).bytes();
    using Ids = std::vector<uint64_t>;
    EXPECT_THAT(handle_all(datagrams),
                ElementsAre(Ids{0}, Ids{3}, Ids{4, 5}, Ids{6, 7}, Ids{8, 9}, Ids{10, 11}, // the lead grows
                            Ids{12}, Ids{13}, Ids{14},                                    // and stays at five
                            Ids{0}, Ids{0}, Ids{0}, Ids{0}, Ids{}));
    EXPECT_EQ(counts_of(statistic),
              (Counts{.bad_marker = 1, .version = 1, .start = 1, .term = 1, .data = 10}));

    EXPECT_THAT(handle_all({data_packet().id(21).bytes()}), ElementsAre(Ids{})) << "alone in the ring";
    EXPECT_THAT(handle_all({data_packet().id(31).bytes(), data_packet().id(32).bytes()}),
                ElementsAre(Ids{0}, Ids{}));
}

TEST_F(MediaPacketReaderTest, the_listener_gets_the_record_in_the_buffer_and_may_change_it) {
    const Bytes sent = data_packet().id(5).seq(6).payload_units(4).bytes();
    const auto buffer = pooled(sent);
    m_listener.on_any = [&](media::PacketHeader& packet) {
        EXPECT_EQ(static_cast<void*>(&packet), static_cast<void*>(buffer->data));
        packet.seq = 77;
    };
    m_reader->on_queue_read(buffer);
    EXPECT_EQ(m_listener.received, 1u);
    EXPECT_EQ(test::bytes_of(*buffer), test::with_seq(sent, 77));
}

// ---- Traces

std::vector<test::SyslogLine> traced(const std::function<void()>& body) {
    const test::ChildReport report = test::run_with_private_syslog(body);
    EXPECT_EQ(report.wait_status, 0);
    std::vector<test::SyslogLine> lines;
    for (const std::string& datagram : report.syslog) {
        lines.push_back(test::parse_syslog(datagram));
    }
    return lines;
}

/// The text behind level and place, without its line feed.
std::string text_of(const test::SyslogLine& line, std::size_t fields_in_front) {
    std::size_t begin = 0;
    for (std::size_t field = 0; field < fields_in_front; ++field) {
        begin = line.text.find(" | ", begin) + 3;
    }
    EXPECT_EQ(line.text.back(), '\n');
    return line.text.substr(begin, line.text.size() - begin - 1);
}

TEST_F(MediaPacketReaderTest, a_start_packet_is_traced_with_all_its_fields) {
    struct Case {
        const char* description;
        Bytes datagram;
        std::string text;
    };
    const std::string uuid = DEFAULT_UUID_TEXT;
    const std::vector<Case> cases = {
        {"both nodes",
         start_packet()
             .flags(0xC0)
             .side(0)
             .id(1)
             .seq(2)
             .mt(3)
             .ts(4)
             .sync_ts(5)
             .sync_mt(6)
             .rule(7)
             .call_id("abc")
             .bytes(),
         "START | mt: 3, v: 0, f: wa, uuid: " + uuid +
             ", ts: 4, seq: 2, leg: inbound, call id: abc, id: 1, sync ts: 5, sync mt: 6, rule: 7"},
        {"a writer node", start_packet().flags(0x80).side(1).rule(7).bytes(),
         "START | mt: 0, v: 0, f: w-, uuid: " + uuid +
             ", ts: 0, seq: 0, leg: outbound, call id: , id: 0, sync ts: 0, sync mt: 0"},
        {"a media node", start_packet().flags(0x40).side(255).rule(0).call_id("x").bytes(),
         "START | mt: 0, v: 0, f: -a, uuid: " + uuid +
             ", ts: 0, seq: 0, leg: outbound, call id: x, id: 0, sync ts: 0, sync mt: 0, rule: 0"},
        {"no node, all other flags", start_packet().flags(0x3f).rule(7).bytes(),
         "START | mt: 0, v: 0, f: --, uuid: " + uuid +
             ", ts: 0, seq: 0, leg: inbound, call id: , id: 0, sync ts: 0, sync mt: 0"},
        {"a zero byte within the call id", start_packet().call_id(std::string("abc\0de", 6)).bytes(),
         "START | mt: 0, v: 0, f: --, uuid: " + uuid +
             ", ts: 0, seq: 0, leg: inbound, call id: abc, id: 0, sync ts: 0, sync mt: 0"},
        {"a call id that reads like a format", start_packet().call_id("%s%n").bytes(),
         "START | mt: 0, v: 0, f: --, uuid: " + uuid +
             ", ts: 0, seq: 0, leg: inbound, call id: %s%n, id: 0, sync ts: 0, sync mt: 0"},
        {"the highest numbers",
         start_packet()
             .flags(0xff)
             .id(UINT64_MAX)
             .seq(UINT64_MAX)
             .mt(UINT64_MAX)
             .ts(UINT64_MAX)
             .sync_ts(UINT64_MAX)
             .sync_mt(UINT64_MAX)
             .rule(UINT64_MAX)
             .bytes(),
         "START | mt: 18446744073709551615, v: 0, f: wa, uuid: " + uuid +
             ", ts: 18446744073709551615, seq: 18446744073709551615, leg: inbound, call id: , id: "
             "18446744073709551615, sync ts: 18446744073709551615, sync mt: 18446744073709551615, rule: "
             "18446744073709551615"},
    };
    const auto lines = traced([&] {
        for (const Case& row : cases) {
            validate(row.datagram);
        }
    });
    ASSERT_THAT(lines, SizeIs(cases.size()));
    for (std::size_t index = 0; index < cases.size(); ++index) {
        SCOPED_TRACE(cases[index].description);
        EXPECT_EQ(lines[index].text, "SYSTEM  | " + cases[index].text + "\n");
        EXPECT_EQ(lines[index].priority, LOG_LOCAL1 | LOG_NOTICE);
    }
}

TEST_F(MediaPacketReaderTest, a_terminate_packet_is_traced) {
    const auto lines = traced([this] { validate(terminate_packet().id(1).seq(2).mt(3).bytes()); });
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_EQ(lines[0].text,
              std::string("SYSTEM  | TERM  | mt: 3, uuid: ") + DEFAULT_UUID_TEXT + ", seq: 2\n");
    EXPECT_EQ(lines[0].priority, LOG_LOCAL1 | LOG_NOTICE);
}

TEST_F(MediaPacketReaderTest, a_data_packet_is_traced_at_the_trace_level_to_a_facility_of_its_own) {
    const auto lines = traced([this] {
        log::Logger::m_instance.m_level = Level::TRACE;
        validate(data_packet()
                     .id(1)
                     .seq(2)
                     .mt(3)
                     .side(200)
                     .m_flg(65535)
                     .m_off(4294967295)
                     .payload_units(4)
                     .bytes());
    });
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_THAT(lines[0].text, testing::StartsWith("TRACE   | media_packet_reader:"));
    EXPECT_EQ(text_of(lines[0], 2), std::string("DATA  | mt: 3, uuid: ") + DEFAULT_UUID_TEXT +
                                        ", seq: 2, side: 200, m_flg: 65535, m_num: 4, m_off: 4294967295");
    EXPECT_EQ(lines[0].priority, LOG_LOCAL7 | LOG_DEBUG);
}

TEST_F(MediaPacketReaderTest, which_packets_are_traced_depends_on_the_threshold) {
    struct Case {
        Level threshold;
        std::size_t lines;
    };
    for (const Case row :
         {Case{Level::ERROR, 2}, Case{Level::INFO, 2}, Case{Level::DEBUG, 2}, Case{Level::TRACE, 3}}) {
        SCOPED_TRACE(log::level_to_string(row.threshold));
        const auto lines = traced([&] {
            log::Logger::m_instance.m_level = row.threshold;
            validate(start_packet().bytes());
            validate(data_packet().bytes());
            validate(terminate_packet().bytes());
        });
        EXPECT_THAT(lines, SizeIs(row.lines));
    }
}

TEST_F(MediaPacketReaderTest, traces_do_not_go_through_the_loggers_sink) {
    const CapturedLog captured(Level::TRACE);
    EXPECT_THAT(traced([this] {
                    validate(start_packet().bytes());
                    validate(data_packet().bytes());
                    validate(terminate_packet().bytes());
                }),
                SizeIs(3));
    validate(start_packet().bytes());
    EXPECT_THAT(captured.texts(), IsEmpty());
}

TEST_F(MediaPacketReaderTest, a_trace_shows_the_sequence_number_as_it_was_received) {
    m_listener.on_any = [](media::PacketHeader& packet) { packet.seq = 777; };
    const auto lines = traced([this] {
        log::Logger::m_instance.m_level = Level::TRACE;
        validate(start_packet().seq(41).bytes());
        validate(data_packet().seq(42).bytes());
        validate(terminate_packet().seq(43).bytes());
    });
    ASSERT_THAT(lines, SizeIs(3));
    EXPECT_THAT(lines[0].text, testing::HasSubstr(", seq: 41,"));
    EXPECT_THAT(lines[1].text, testing::HasSubstr(", seq: 42,"));
    EXPECT_THAT(lines[2].text, testing::EndsWith(", seq: 43\n"));
}

// ---- The rounds of the reader, with the session table

class MediaPacketReaderWithTableTest : public ::testing::Test {
protected:
    static int64_t clock() { return now_us; }
    static inline int64_t now_us = 0;

    MediaPacketReaderWithTableTest() { now_us = 1'000'000; }

    void start_sessions(uint64_t count) {
        for (uint64_t id = 0; id < count; ++id) {
            const auto buffer = pooled(start_packet().id(id).seq(1).bytes());
            m_manager.on_packet(media::view_packet<media::StartPacket>(buffer->data));
        }
    }
    void one_round() { m_reader->QueueIdleReader::run(); }

    const CapturedLog m_log{Level::ERROR}; // a hundred timeouts are not of interest
    media::SessionManagerStatistic m_session_statistic;
    media::SessionManager m_manager{&m_session_statistic, &clock};
    PacketReaderStatistic m_statistic;
    const std::unique_ptr<PacketReader> m_reader = std::make_unique<PacketReader>(m_manager, m_statistic);
};

TEST_F(MediaPacketReaderWithTableTest,
       a_backlog_of_25_expired_sessions_takes_three_rounds_before_the_reader_sleeps) {
    start_sessions(25);
    now_us += 300'000'000;
    std::vector<uint64_t> left;
    const auto begin = std::chrono::steady_clock::now();
    for (int round = 0; round < 3; ++round) {
        one_round();
        left.push_back(m_session_statistic.session_number.value());
    }
    EXPECT_THAT(left, ElementsAre(15, 5, 0));
    EXPECT_EQ(m_statistic.idle_hits.value(), 3u);
    EXPECT_EQ(m_statistic.empty_hits.value(), 3u);
    EXPECT_EQ(m_session_statistic.audit_executions.value(), 3u);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3)) << "a round has slept";

    const auto fourth = std::chrono::steady_clock::now();
    one_round();
    EXPECT_GE(std::chrono::steady_clock::now() - fourth, std::chrono::seconds(1));
    EXPECT_EQ(m_statistic.idle_hits.value(), 3u);
    EXPECT_EQ(m_session_statistic.audit_calls.value(), 4u);
    EXPECT_EQ(m_session_statistic.audit_executions.value(), 3u);
}

TEST_F(MediaPacketReaderWithTableTest, one_round_above_10000_entries_and_with_an_empty_ring_audits_twice) {
    start_sessions(10'011);
    now_us += 300'000'000;
    one_round();
    EXPECT_EQ(m_session_statistic.audit_calls.value(), 2u);
    EXPECT_EQ(m_session_statistic.session_number.value(), 9'991u);
    EXPECT_EQ(m_statistic.idle_hits.value(), 1u);
}

TEST_F(MediaPacketReaderWithTableTest,
       a_round_with_a_packet_audits_above_10000_entries_only_and_before_the_packet) {
    const Bytes datagram = data_packet().id(0).seq(2).mt(600'000'000).bytes();
    start_sessions(10'000);
    now_us += 300'000'000;
    m_reader->read_from(datagram.data(), datagram.size());
    one_round();
    EXPECT_EQ(m_session_statistic.audit_calls.value(), 0u);
    EXPECT_EQ(m_session_statistic.session_number.value(), 10'000u);

    const auto extra = pooled(start_packet().id(99'999).bytes());
    m_manager.on_packet(media::view_packet<media::StartPacket>(extra->data));
    const Bytes next = data_packet().id(1).seq(2).mt(600'000'000).bytes();
    m_reader->read_from(next.data(), next.size());
    one_round();
    EXPECT_EQ(m_session_statistic.audit_calls.value(), 1u);
    EXPECT_EQ(m_session_statistic.unknown_index_errors.value(), 1u) << "id 1 has expired ahead of its packet";
    EXPECT_EQ(m_session_statistic.session_number.value(), 9'992u) << "ten removed, one zombie entered";
}

// ---- The thread

TEST_F(MediaPacketReaderTest,
       packets_reach_the_listener_on_the_reader_thread_whose_start_and_stop_are_logged) {
    const CapturedLog captured;
    ASSERT_EQ(m_reader->start(), 0);
    read_from(data_packet().id(7).seq(1).bytes());
    ASSERT_TRUE(wait_until([this] { return m_listener.received == 1; }));
    EXPECT_NE(m_listener.thread_id, current_thread_id());

    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(m_reader->stop(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1) + std::chrono::seconds(5));
    const std::string reader = std::to_string(m_listener.thread_id);
    const std::string caller = std::to_string(current_thread_id());
    const std::string prefix = "SYSTEM media_packet_reader: PACKETS_READER: thread [";
    EXPECT_THAT(captured.records(),
                ElementsAre(prefix + reader + "] started", prefix + caller + "] stopped"));
}

TEST_F(MediaPacketReaderTest, stop_of_a_reader_that_does_not_run_is_a_success_and_logs_nothing) {
    const CapturedLog captured;
    EXPECT_EQ(m_reader->stop(), 0);
    EXPECT_THAT(captured.texts(), IsEmpty());

    ASSERT_EQ(m_reader->start(), 0);
    EXPECT_EQ(m_reader->stop(), 0);
    const std::size_t lines = captured.lines().size();
    EXPECT_EQ(m_reader->stop(), 0);
    EXPECT_EQ(captured.lines().size(), lines);
}

TEST_F(MediaPacketReaderTest, a_thread_that_could_not_be_made_shows_when_the_reader_is_stopped) {
    const CapturedLog captured;
    std::string caller;
    test::with_refused_system_call(SYS_clone3, EPERM, [&] {
        caller = std::to_string(current_thread_id());
        EXPECT_EQ(m_reader->start(), EPERM);
        EXPECT_THAT(captured.texts(), IsEmpty());
        EXPECT_EQ(m_reader->stop(), ESRCH);
        EXPECT_EQ(m_reader->stop(), 0) << "it does not count as running any more";
    });
    EXPECT_THAT(captured.records(), ElementsAre("WARNING media_packet_reader: PACKETS_READER: thread [" +
                                                caller + "] stopped with error (3)"));
}

TEST_F(MediaPacketReaderTest, a_reader_without_traffic_goes_round_once_a_second) {
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_EQ(m_reader->start(), 0);
    ASSERT_TRUE(wait_until([this] { return m_reader->null_reads >= 3; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3)) << "it has not waited";
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3 + 5))
        << "it has waited too long";
    EXPECT_EQ(m_reader->stop(), 0);
    EXPECT_EQ(m_reader->null_reads, m_statistic->empty_hits.value());
    EXPECT_EQ(m_listener.tries, m_statistic->empty_hits.value());
    EXPECT_EQ(m_listener.idles, m_statistic->empty_hits.value());
    EXPECT_EQ(m_statistic->idle_hits.value(), 0u);
    EXPECT_EQ(m_statistic->elements.value(), 0u);
}

TEST_F(MediaPacketReaderTest, packets_left_in_the_ring_at_a_stop_are_not_handled) {
    m_listener.on_any = [this](const media::PacketHeader& packet) {
        // The first packet holds the reader until the stop has come.
        while (packet.seq == 0 && m_reader->runs()) {
            std::this_thread::yield();
        }
    };
    for (uint64_t seq = 0; seq < 5; ++seq) {
        read_from(data_packet().id(7).seq(seq).bytes());
    }
    ASSERT_EQ(m_reader->start(), 0);
    EXPECT_EQ(m_reader->stop(), 0);
    EXPECT_EQ(m_listener.received, 1u);
    EXPECT_EQ(m_statistic->elements.value(), 4u);
    EXPECT_EQ(m_statistic->passed_elements.value(), 5u);
    EXPECT_EQ(m_statistic->data_packets.value(), 1u);
    m_reader = nullptr;
    EXPECT_EQ(free_buffers(), POOL_BUFFERS);
}

TEST_F(MediaPacketReaderTest, under_two_threads_every_datagram_is_accounted_for) {
    std::random_device source;
    const auto seed = source();
    std::mt19937 random(seed);
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::cout << "seed " << seed << "\n";

    // Kinds in a fixed proportion by chance; the sequence number tells which datagram it was.
    constexpr uint64_t DATAGRAMS = 60'000;
    const CapturedLog captured(Level::ERROR);
    uint64_t too_short = 0;
    uint64_t too_long = 0;
    Counts expected;
    std::vector<RecordingListener::Packet> expected_packets;
    Bytes datagram;
    ASSERT_EQ(m_reader->start(), 0);
    for (uint64_t number = 1; number <= DATAGRAMS; ++number) {
        switch (random() % 64) {
        case 0:
            datagram = Bytes(random() % 48, 0x55);
            ++too_short;
            break;
        case 1:
            datagram = Bytes(1377 + random() % 1000, 0x55);
            ++too_long;
            break;
        case 2:
            datagram = terminate_packet().marker(static_cast<uint32_t>(random()) | 1U << 8).bytes();
            ++expected.bad_marker;
            break;
        case 3:
            datagram = data_packet().version(1).bytes();
            ++expected.version;
            break;
        case 4:
            datagram = data_packet().payload_units(random() % 600).length(1376).byte(55, 1).bytes();
            ++expected.corrupted_size;
            break;
        case 5:
            datagram = terminate_packet().type(static_cast<uint8_t>(random() % 0x81)).bytes();
            ++expected.unknown_type;
            break;
        default:
            datagram = data_packet().id(random()).seq(number).payload_units(random() % 661).bytes();
            expected_packets.push_back({"data", test::id_of(datagram), number});
            ++expected.data;
        }
        read_from(datagram);
        // Far from a full ring, so that nothing is dropped and the comparison can be exact.
        if (number % 4'096 == 0) {
            ASSERT_TRUE(wait_until([&] { return m_listener.received + 2'048 >= expected.data; }));
        }
    }
    ASSERT_TRUE(wait_until([&] { return counts_of(*m_statistic).sum() >= expected.sum(); }));
    EXPECT_EQ(m_reader->stop(), 0);
    EXPECT_EQ(counts_of(*m_statistic), expected);
    EXPECT_EQ(m_statistic->passed_elements.value(), expected.sum());
    EXPECT_EQ(m_statistic->dropped_min_length.value(), too_short);
    EXPECT_EQ(m_statistic->dropped_max_length.value(), too_long);
    EXPECT_EQ(m_statistic->dropped_elements.value(), 0u);
    EXPECT_EQ(m_statistic->dropped_failed_allocation.value(), 0u);
    EXPECT_EQ(too_short + too_long + expected.sum(), DATAGRAMS);
    EXPECT_TRUE(m_listener.packets == expected_packets);
    EXPECT_EQ(free_buffers(), POOL_BUFFERS);
}

TEST_F(MediaPacketReaderTest, under_a_flood_the_counters_keep_the_law_of_conservation) {
    // The reader is held now and then, so that the ring runs full.
    m_listener.on_any = [this](const media::PacketHeader& packet) {
        m_listener.packets.clear();
        if (packet.seq == 1) {
            wait_until([this] { return m_statistic->dropped_elements.value() > 1'000; });
        }
    };
    constexpr uint64_t DATAGRAMS = RING_ELEMENTS + 50'000;
    ASSERT_EQ(m_reader->start(), 0);
    Bytes datagram = data_packet().payload_units(2).bytes();
    for (uint64_t number = 1; number <= DATAGRAMS; ++number) {
        test::put_number(datagram, test::offset::SEQ, 8, number);
        read_from(datagram);
    }
    const uint64_t passed = m_statistic->passed_elements.value();
    EXPECT_GT(m_statistic->dropped_elements.value(), 1'000u);
    EXPECT_EQ(passed + m_statistic->dropped_elements.value() + m_statistic->dropped_failed_allocation.value(),
              DATAGRAMS);
    ASSERT_TRUE(wait_until([&] { return m_listener.received == passed; }));
    EXPECT_EQ(m_reader->stop(), 0);
    EXPECT_EQ(counts_of(*m_statistic).sum(), passed);
    EXPECT_EQ(m_statistic->elements.value(), 0u);
}

TEST_F(MediaPacketReaderTest, a_packet_wakes_a_reader_that_sleeps) {
    constexpr int PACKETS = 20;
    int woken = 0;
    ASSERT_EQ(m_reader->start(), 0);
    read_from(data_packet().seq(0).bytes());
    ASSERT_TRUE(wait_until([&] { return m_listener.received == 1; }));
    for (uint64_t seq = 1; seq <= PACKETS; ++seq) {
        ASSERT_TRUE(test::wait_until_asleep(m_listener.thread_id));
        const auto begin = std::chrono::steady_clock::now();
        read_from(data_packet().seq(seq).bytes());
        ASSERT_TRUE(wait_until([&] { return m_listener.received == seq + 1; }));
        // A reader that is not woken finds the packet when its wait of a second ends.
        woken += std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(700) ? 1 : 0;
    }
    EXPECT_EQ(m_reader->stop(), 0);
    EXPECT_GE(woken, PACKETS / 2) << "a busy machine may delay some, but not most";
}

using MediaPacketReaderDeathTest = MediaPacketReaderTest;

TEST_F(MediaPacketReaderDeathTest, an_exception_of_the_listener_ends_the_process) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            m_listener.on_any = [](const media::PacketHeader&) {
                throw std::runtime_error("of the listener");
            };
            m_reader->start();
            read_from(data_packet().bytes());
            wait_until([] { return false; });
        },
        testing::KilledBySignal(SIGABRT), "of the listener");
}

// ---- Counters of two threads

TEST_F(MediaPacketReaderTest, counters_of_the_two_threads_do_not_share_a_pair_of_cache_lines) {
    const PacketReaderStatistic& block = *m_statistic;
    const std::vector<const Counter*> main_thread = {
        &block.passed_elements,    &block.dropped_elements,          &block.dropped_min_length,
        &block.dropped_max_length, &block.dropped_failed_allocation,
    };
    const std::vector<const Counter*> reader_thread = {
        &block.elements,
        &block.empty_hits,
        &block.idle_hits,
        &block.rejected_bad_marker,
        &block.rejected_version,
        &block.rejected_corrupted_size,
        &block.rejected_unknown_type,
        &block.start_packets,
        &block.term_packets,
        &block.data_packets,
    };
    const auto block_of = [](const Counter* counter) { return reinterpret_cast<uintptr_t>(counter) / 128; };
    for (const Counter* const mine : main_thread) {
        for (const Counter* const theirs : reader_thread) {
            EXPECT_NE(block_of(mine), block_of(theirs));
        }
    }
    // Nor with what another object puts behind the block or in front of it.
    EXPECT_EQ(reinterpret_cast<uintptr_t>(&block) % 128, 0u);
    EXPECT_EQ(sizeof(PacketReaderStatistic) % 128, 0u);
    EXPECT_EQ(alignof(media::SessionManagerStatistic), 128u);
    EXPECT_EQ(sizeof(media::SessionManagerStatistic) % 128, 0u);
}

} // namespace
