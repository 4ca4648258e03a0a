// One turn of a packet buffer: taken from the pool and zeroed, filled with a datagram, given back.
//
// The pool hands out its buffers in a circle of 211 MB, so each of them comes cold from memory: that, and
// not the instructions, is most of the figure. `zero_one_buffer_in_cache` shows how much of it.
#include <array>
#include <cstring>
#include <new>

#include <benchmark/benchmark.h>

#include "corvalin_lib/media_packet_buffer.h"
#include "corvalin_lib/reference_countable.h"

namespace {

using corvalin::rc_ptr;
using corvalin::media::PACKET_MAX_BYTES;
using corvalin::media::PacketBuffer;

void allocate_fill_and_release(benchmark::State& state) {
    std::array<unsigned char, PACKET_MAX_BYTES> datagram;
    datagram.fill(0xAA);
    const auto bytes = static_cast<std::size_t>(state.range(0));
    for (auto _ : state) {
        const rc_ptr<PacketBuffer> buffer(PacketBuffer::allocator.allocate());
        buffer->append(datagram.data(), bytes);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(allocate_fill_and_release)->ArgName("bytes")->Arg(48)->Arg(376)->Arg(1376);

void allocate_and_release(benchmark::State& state) {
    for (auto _ : state) {
        const rc_ptr<PacketBuffer> buffer(PacketBuffer::allocator.allocate());
        benchmark::DoNotOptimize(buffer->data);
    }
}
BENCHMARK(allocate_and_release);

void zero_one_buffer_in_cache(benchmark::State& state) {
    alignas(64) static std::array<unsigned char, sizeof(PacketBuffer)> memory;
    for (auto _ : state) {
        benchmark::DoNotOptimize(new (static_cast<void*>(memory.data())) PacketBuffer());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(zero_one_buffer_in_cache);

} // namespace
