// The way of a data packet through the session table: look-up, sequence number, activity, place in the list.
// Ahead of it comes the audit that each round of the reader does while the table is large.
//
// The packets come from the sessions in random order. Nothing is sent and nothing received: the hook that
// would forward the packet is the empty one of the base class.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "corvalin_lib/media_packet.h"
#include "corvalin_lib/media_session_manager.h"

namespace {

using corvalin::media::DataPacket;
using corvalin::media::SessionManager;
using corvalin::media::StartPacket;

constexpr uint64_t SEED = 20'210'101;

void data_packet(benchmark::State& state) {
    SessionManager manager(nullptr);
    std::mt19937_64 random(SEED);
    std::vector<uint64_t> ids(static_cast<std::size_t>(state.range(0)));
    // A start packet is looked at up to the zero behind its call id, which here is the field itself.
    struct {
        StartPacket packet;
        char call_id[8];
    } start{};
    for (uint64_t& id : ids) {
        id = random();
        start.packet.id = id;
        manager.on_packet(start.packet);
    }
    std::shuffle(ids.begin(), ids.end(), random);

    DataPacket packet{};
    std::size_t next = 0;
    packet.seq = 1;
    for (auto _ : state) {
        packet.id = ids[next];
        manager.on_packet_try();
        manager.on_packet(packet);
        if (++next == ids.size()) {
            next = 0;
            ++packet.seq;
        }
    }
}
BENCHMARK(data_packet)
    ->ArgName("sessions")
    ->RangeMultiplier(10)
    ->Range(1000, 1'000'000)
    ->Iterations(1'000'000);

} // namespace
