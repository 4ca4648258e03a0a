// The road of a data packet from `read_from` to the send, in one process with the product's two threads, and
// the heap allocations on it, counted by a replaced operator new: `allocations_per_packet`. Allocations of all
// threads count, from the first packet to the last.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/counted_new.h"
#include "corvalin_lib/media_packet.h"
#include "corvalin_lib/media_packet_reader.h"
#include "corvalin_lib/net.h"
#include "corvalin_lib/net_socket.h"
#include "router/routing_manager.h"

namespace {

using namespace corvalin;

constexpr uint64_t SESSIONS = 1000;
constexpr uint64_t RING_PART = 10'000; // fewer than the ring holds: nothing is dropped
constexpr std::size_t PAYLOAD_UNITS = 160;

struct Wire {
    media::DataPacket packet;
    uint16_t payload[PAYLOAD_UNITS];
};

void wait_for(const Counter& counter, uint64_t number) {
    while (counter.value() < number) {
        std::this_thread::yield();
    }
}

void data_packets(benchmark::State& state) {
    // Nobody reads what arrives here: once its buffer is full, the kernel drops it.
    net::Socket node;
    node.open(0, INADDR_LOOPBACK);
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    getsockname(node.descriptor(), reinterpret_cast<sockaddr*>(&address), &length);
    net::Socket socket;
    socket.open(0, INADDR_ANY);

    media::PacketReaderStatistic reader_statistic;
    media::SessionManagerStatistic session_statistic;
    router::RoutingManager manager(&socket, &session_statistic);
    manager.set_media_hosts({net::make_host_addr("127.0.0.1", ntohs(address.sin_port))});
    media::PacketReader reader(manager, reader_statistic);
    reader.start();

    media::StartPacket start{};
    start.marker = media::PACKET_MARKER;
    start.type = media::PACKET_TYPE_START;
    start.flags = media::PACKET_FLAG_MEDIA;
    for (start.id = 1; start.id <= SESSIONS; ++start.id) {
        reader.read_from(&start, sizeof(start));
    }

    Wire wire{};
    wire.packet.marker = media::PACKET_MARKER;
    wire.packet.type = media::PACKET_TYPE_DATA;
    wire.packet.m_num = PAYLOAD_UNITS;
    // A packet is counted before it is handled: only behind a counted data packet is the last session whole.
    wire.packet.id = SESSIONS;
    wire.packet.seq = 1;
    reader.read_from(&wire, sizeof(wire));
    wait_for(reader_statistic.data_packets, 1);
    constexpr uint64_t FIRST_SEQ = 2;
    constexpr uint64_t COUNTED_BEFORE = 1;
    uint64_t sent = 0;
    const uint64_t calls_before = bench::new_calls();
    for (auto _ : state) {
        wire.packet.id = sent % SESSIONS + 1;
        wire.packet.seq = sent / SESSIONS + FIRST_SEQ;
        reader.read_from(&wire, sizeof(wire));
        ++sent;
        wait_for(reader_statistic.data_packets, COUNTED_BEFORE + sent - std::min(sent, RING_PART));
    }
    wait_for(reader_statistic.data_packets, COUNTED_BEFORE + sent);
    const uint64_t allocations = bench::new_calls() - calls_before;
    reader.stop();
    if (session_statistic.sequence_breaks.value() + session_statistic.unknown_index_errors.value() != 0) {
        state.SkipWithError("a packet found no session");
    }
    state.counters["allocations_per_packet"] = static_cast<double>(allocations) / static_cast<double>(sent);
    state.counters["allocations"] = static_cast<double>(allocations);
}
BENCHMARK(data_packets)->Iterations(300'000)->UseRealTime();

} // namespace
