// A flood of random and half-valid datagrams: the process lives, its memory is bounded, and every datagram is accounted
// for.
#include "tests/support/system/router_fixture.h"
#include "tests/support/system/udp_diag.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace corvalin::test;

constexpr std::size_t DATAGRAMS =
    CORVALIN_FLOOD_DATAGRAMS;           // fewer in the instrumented presets, see CMakeLists.txt
constexpr std::size_t DISTINCT = 50000; // made once; id and seq are drawn anew each time
constexpr std::size_t BATCH = 64;
constexpr std::size_t RUN = 8;          // so many of a batch are neighbours among the distinct ones
constexpr uint32_t ROOM_BYTES = 100000; // about half of the receive buffer
// Bounds the table, and lies above the 10000 entries from which the audit runs with every packet.
constexpr uint64_t IDS = 20000;

class FloodTest : public RouterTest {
protected:
    uint64_t below(uint64_t limit) { return std::uniform_int_distribution<uint64_t>(0, limit - 1)(m_random); }
    uint64_t any() { return m_random(); }

    Bytes noise(std::size_t length) {
        Bytes bytes(length);
        for (uint8_t& byte : bytes) {
            byte = static_cast<uint8_t>(any());
        }
        return bytes;
    }

    // One in four falls back by more than the 300 seconds in which a session expires.
    uint64_t media_time() { return below(4) == 0 ? 600000000 : 1000000000; }

    // A datagram that passes the checks: data for the most part, since the other two are traced one by one.
    Bytes valid() {
        const uint64_t kind = below(60);
        if (kind == 0) {
            return start_packet()
                .flags(below(2) == 0 ? TO_NOBODY : TO_WRITER)
                .mt(media_time())
                .call_id("call")
                .bytes();
        }
        if (kind == 1) {
            return terminate_packet().mt(media_time()).bytes();
        }
        return data_packet().mt(media_time()).payload_units(below(40)).bytes();
    }

    Bytes datagram() {
        const uint64_t kind = below(100);
        if (kind < 10) {
            return noise(1 + below(1500));
        }
        if (kind < 20) {
            return data_packet()
                .version(static_cast<uint8_t>(1 + below(255)))
                .payload_units(below(40))
                .bytes();
        }
        if (kind < 30) {
            return data_packet().type(static_cast<uint8_t>(below(0x81))).length(48 + below(100)).bytes();
        }
        if (kind < 40) { // a header that is right and a length that is not
            const Bytes packet = valid();
            const std::size_t length = 1 + below(200);
            return length == packet.size() ? noise(length) : cut(packet, length);
        }
        if (kind < 50) { // fields of the length drawn at random
            return below(2) == 0
                       ? data_packet().payload_units(20).m_num(static_cast<uint16_t>(any())).bytes()
                       : start_packet().call_id("call").call_id_length(static_cast<uint16_t>(any())).bytes();
        }
        if (kind < 51) {
            return cut(valid(), below(50) == 0 ? 65507 : 1375 + below(4));
        }
        return valid();
    }

    static Bytes cut(Bytes packet, std::size_t length) {
        packet.resize(length);
        return packet;
    }

    uint64_t m_seed = std::random_device{}();
    std::mt19937_64 m_random{m_seed};
};

uint64_t received(const Counters& counters) {
    return counters.at("packet dropped  by min length") + counters.at("packet dropped  by max length") +
           counters.at("packet dropped  by failed allocation") +
           counters.at("packet queue dropped elements number") +
           counters.at("packet queue passed elements number");
}

uint64_t validated(const Counters& counters) {
    return counters.at("packet rejected by bad marker") + counters.at("packet rejected by version") +
           counters.at("packet rejected by corrupted size") + counters.at("packet rejected by unknown type") +
           counters.at("packet 'start' type number") + counters.at("packet 'term'  type number") +
           counters.at("packet 'data'  type number");
}

TEST_F(FloodTest, a_flood_of_half_valid_datagrams_leaves_the_router_alive_and_every_datagram_counted) {
    std::cout << DATAGRAMS << " datagrams, seed " << m_seed << "\n";
    RecordProperty("datagrams", std::to_string(DATAGRAMS));
    RecordProperty("seed", std::to_string(m_seed));
    syslog().keep_only([](const SyslogRecord& record) { return record.priority == STATISTIC_NOTICE; });
    start_with_nodes(1, 1, "log_level=ERROR\n");
    const uint16_t port = router().port();

    std::vector<Bytes> distinct(DISTINCT);
    std::generate(distinct.begin(), distinct.end(), [this] { return datagram(); });
    // By length, since neighbours of one length are sent for a fraction of the work.
    std::stable_sort(distinct.begin(), distinct.end(),
                     [](const Bytes& left, const Bytes& right) { return left.size() < right.size(); });
    UdpDiag diag;
    std::vector<Bytes> batch(BATCH);
    for (std::size_t sent = 0; sent < DATAGRAMS; sent += BATCH) {
        std::size_t drawn = 0;
        for (std::size_t index = 0; index < batch.size(); ++index) {
            drawn = index % RUN == 0 ? below(DISTINCT) : (drawn + 1) % DISTINCT;
            Bytes& packet = batch[index];
            packet = distinct[drawn];
            if (packet.size() >= 48) {
                put_number(packet, offset::ID, 8, below(IDS));
                put_number(packet, offset::SEQ, 8, sent / 1000 + below(100));
            }
        }
        batch.resize(std::min(BATCH, DATAGRAMS - sent));
        while (diag.queued_bytes(port) > ROOM_BYTES) {
            // Without a pause most of it would never get past the kernel; asleep, as the router needs the processor.
            std::this_thread::sleep_for(std::chrono::microseconds(20));
        }
        m_sender->send_all(batch);
    }
    ASSERT_TRUE(wait_until([&] { return diag.queued_bytes(port) == 0; }));
    const uint64_t lost = router().receive_socket().dropped_datagrams;
    EXPECT_LT(lost, DATAGRAMS / 2) << "most of the flood never reached the router";

    // At rest every datagram that the kernel let through stands in one counter, and every one that went through the
    // ring in a second one.
    const Counters counters = wait_for_report(syslog(), 0, [&](const Counters& last) {
        return received(last) == DATAGRAMS - lost &&
               validated(last) == last.at("packet queue passed elements number") &&
               last.at("packet queue elements number") == 0;
    });
    EXPECT_EQ(received(counters), DATAGRAMS - lost);
    EXPECT_EQ(validated(counters), counters.at("packet queue passed elements number"));
    EXPECT_EQ(counters.at("packet queue elements number"), 0u);
    EXPECT_LE(counters.at("session number"), IDS);
    EXPECT_EQ(counters.at("packet dropped  by failed allocation"), 0u) << "the pool is larger than the ring";
    for (const auto& [label, value] : counters) {
        std::cout << "    " << label << ": " << value << "\n";
    }
    // Not the audit's: whether it removes any depends on which session is in front, and so on chance.
    for (const char* const label :
         {"packet dropped  by min length", "packet dropped  by max length", "packet rejected by bad marker",
          "packet rejected by version", "packet rejected by corrupted size",
          "packet rejected by unknown type", "packet 'start' type number", "packet 'term'  type number",
          "packet 'data'  type number", "session number (zombie)", "session existing index errors number",
          "session unknown index errors number", "session sequence break errors number",
          "session lost packets number"}) {
        EXPECT_GT(counters.at(label), 0u) << label << ": the flood has missed this";
    }

#ifdef CORVALIN_MEMORY_IS_MEASURED
    constexpr uint64_t POOL_KB = 211200000 / 1024;
    constexpr uint64_t RING_KB = 100000 * 8 / 1024;
    constexpr uint64_t TABLE_KB = IDS * 450 / 1024;
    constexpr uint64_t PROGRAM_KB = 32UL * 1024; // code, libraries and stacks
    const uint64_t peak_kb = status_kilobytes(router().pid(), "VmHWM");
    std::cout << "    peak of the memory in use: " << peak_kb << " kB\n";
    EXPECT_LE(peak_kb, POOL_KB + RING_KB + TABLE_KB + PROGRAM_KB);
#endif

    // It still does its job.
    const Bytes packet = start_packet().id(IDS).seq(1).flags(TO_MEDIA).bytes();
    send(packet);
    EXPECT_EQ(media().receive(), packet);
    EXPECT_TRUE(is_alive(router().pid()));
}

} // namespace
