// What handing an rc_ptr on costs: a copy with its release are two locked instructions, a move is none. The
// figures are for one thread, with the count in its own cache; a count that two threads change at once costs
// several times as much.
#include <utility>

#include <benchmark/benchmark.h>

#include "corvalin_lib/reference_countable.h"

namespace {

using corvalin::rc_ptr;
using corvalin::ReferenceCountable;

class Item : public ReferenceCountable {};

void copy_and_release(benchmark::State& state) {
    const rc_ptr<Item> item(new Item);
    for (auto _ : state) {
        rc_ptr<Item> copy(item);
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(copy_and_release);

void move_there_and_back(benchmark::State& state) {
    rc_ptr<Item> item(new Item);
    for (auto _ : state) {
        rc_ptr<Item> moved(std::move(item));
        benchmark::DoNotOptimize(moved);
        item = std::move(moved);
        benchmark::DoNotOptimize(item);
    }
}
BENCHMARK(move_there_and_back);

void make_and_destroy(benchmark::State& state) {
    for (auto _ : state) {
        const rc_ptr<Item> item(new Item);
        benchmark::DoNotOptimize(item.get());
    }
}
BENCHMARK(make_and_destroy);

} // namespace
