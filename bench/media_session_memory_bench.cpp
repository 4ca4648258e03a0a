// Memory of a live routed session: what the heap gives out for each of a million sessions in the table of the
// router, all allocations together (session, hosts, list entry, table entry and buckets, long call id), with
// the rounding and the header of each chunk. `bytes_per_session` is the figure; the time is that of the
// building, and a start packet with its assignment and its send is most of that.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <list>
#include <random>
#include <string>

#include <benchmark/benchmark.h>

#include "bench/counted_new.h"
#include "corvalin_lib/media_packet.h"
#include "corvalin_lib/net.h"
#include "corvalin_lib/net_socket.h"
#include "router/routing_manager.h"

namespace {

using namespace corvalin;

constexpr int64_t SESSIONS = 1'000'000;
constexpr uint64_t SEED = 20'210'101;

/// Sessions with `hosts` hosts and a call id of `call_id_bytes`; up to 15 bytes lie within the session.
void build_sessions(benchmark::State& state) {
    const auto hosts = state.range(0);
    const auto call_id_bytes = static_cast<std::size_t>(state.range(1));
    // Nobody reads what arrives here: once its buffer is full, the kernel drops it.
    net::Socket node;
    node.open(0, INADDR_LOOPBACK);
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    getsockname(node.descriptor(), reinterpret_cast<sockaddr*>(&address), &length);
    const std::list<net::HostAddr> nodes = {net::make_host_addr("127.0.0.1", ntohs(address.sin_port))};
    net::Socket socket;
    socket.open(0, INADDR_ANY);

    struct {
        media::StartPacket packet;
        char call_id[256];
    } start{};
    start.packet.flags =
        hosts > 1 ? media::PACKET_FLAG_WRITER | media::PACKET_FLAG_MEDIA : media::PACKET_FLAG_MEDIA;
    start.packet.call_id_length = static_cast<uint16_t>(call_id_bytes);
    std::memset(start.call_id, 'c', call_id_bytes);
    for (auto _ : state) {
        media::SessionManagerStatistic statistic;
        router::RoutingManager manager(&socket, &statistic);
        manager.set_media_hosts(nodes);
        manager.set_writer_hosts(nodes);
        std::mt19937_64 random(SEED);
        const int64_t before = bench::bytes_in_use();
        for (int64_t session = 0; session < SESSIONS; ++session) {
            start.packet.id = random();
            manager.on_packet(start.packet);
        }
        state.counters["bytes_per_session"] =
            static_cast<double>(bench::bytes_in_use() - before) / static_cast<double>(SESSIONS);
        if (statistic.session_number.value() != SESSIONS) {
            state.SkipWithError("not every session is in the table");
        }
    }
}
BENCHMARK(build_sessions)
    ->ArgNames({"hosts", "call_id_bytes"})
    ->Args({1, 15})
    ->Args({1, 36})
    ->Args({2, 15})
    ->Args({2, 36})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

} // namespace
