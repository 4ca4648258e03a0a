// Ring hand-over, two threads flat out: one pushes 100000 elements, as many as the ring holds, while the other
// takes them. The figure is the time of such a round.
//
// The yardstick is a bare ring: two std::atomic indexes with release stores and acquire loads, and raw
// pointers in the slots. `bare_ring_of_rc_ptr` is the same with the elements of the product, and shows what
// the wider, counted pointer costs alone. In all of them the elements come from an array and go to an array,
// so that nobody's memory management is measured, and nobody sleeps: a consumer that has to wait spins.
//
// A round in which one of the two threads lost its processor says nothing about a ring, and on a busy machine
// that is most of them: such rounds are repeated. `disturbed` counts those for which that did not help.
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "corvalin_lib/queue.h"
#include "corvalin_lib/reference_countable.h"

namespace {

using corvalin::Queue;
using corvalin::rc_ptr;
using corvalin::ReferenceCountable;

constexpr std::size_t ELEMENTS = 100'000;

class Item : public ReferenceCountable {};

// Times that the calling thread gave up its processor or was made to.
int64_t context_switches() {
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nvcsw + usage.ru_nivcsw;
}

// A processor for each of the two threads, so that no round begins with both on one.
void pin_to(unsigned processor) {
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(processor % std::thread::hardware_concurrency(), &processors);
    pthread_setaffinity_np(pthread_self(), sizeof(processors), &processors);
}

// Waits without a sleep, but lets others run after a while: the machine may have something else to do.
template <class Condition>
void spin_until(Condition condition) {
    for (uint32_t turns = 1; !condition(); ++turns) {
        if (turns % 65536 == 0) {
            std::this_thread::yield();
        }
    }
}

template <class T, std::memory_order PUBLISH>
class BareRing {
public:
    bool push(T element) {
        const uint64_t write_index = m_write_index.load(std::memory_order_relaxed);
        if (write_index - m_read_index.load(std::memory_order_acquire) == ELEMENTS) {
            return false;
        }
        m_slots[write_index % ELEMENTS] = std::move(element);
        m_write_index.store(write_index + 1, PUBLISH);
        return true;
    }

    bool is_empty() const {
        return m_write_index.load(std::memory_order_acquire) == m_read_index.load(std::memory_order_relaxed);
    }

    T pop() {
        const uint64_t read_index = m_read_index.load(std::memory_order_relaxed);
        T element = std::move(m_slots[read_index % ELEMENTS]);
        m_read_index.store(read_index + 1, PUBLISH);
        return element;
    }

private:
    alignas(128) std::unique_ptr<T[]> m_slots = std::make_unique<T[]>(ELEMENTS);
    alignas(128) std::atomic<uint64_t> m_write_index{0};
    alignas(128) std::atomic<uint64_t> m_read_index{0};
};

template <class T>
std::vector<T> make_elements() {
    std::vector<T> elements;
    elements.reserve(ELEMENTS);
    for (std::size_t index = 0; index < ELEMENTS; ++index) {
        if constexpr (std::is_pointer_v<T>) {
            elements.push_back(reinterpret_cast<T>(index + 1));
        } else {
            elements.emplace_back(new Item);
        }
    }
    return elements;
}

template <class Ring, class T>
class Pair {
public:
    Pair() : m_consumer([this] { consume(); }) { pin_to(0); }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;
    ~Pair() {
        m_is_over.store(true, std::memory_order_release);
        m_consumer.join();
    }

    /// The time of one round in seconds; `is_disturbed` tells whether both threads ran all through it.
    double round(bool& is_disturbed) {
        const int64_t switches_before = context_switches();
        const auto begin = std::chrono::steady_clock::now();
        m_begun.store(++m_round, std::memory_order_release);
        for (T& element : m_source) {
            m_all_fit = m_ring->push(std::move(element)) && m_all_fit;
        }
        spin_until([this] { return m_ended.load(std::memory_order_acquire) == m_round; });
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
        is_disturbed = m_is_consumer_disturbed || context_switches() != switches_before;
        // Both threads are at rest here: what has arrived is sent again.
        m_source.swap(m_sink);
        return time.count();
    }

    bool all_fit() const { return m_all_fit; }

private:
    void consume() {
        pin_to(1);
        for (uint64_t round = 1;; ++round) {
            const int64_t switches_before = context_switches();
            spin_until([&] {
                return m_begun.load(std::memory_order_acquire) == round ||
                       m_is_over.load(std::memory_order_acquire);
            });
            if (m_begun.load(std::memory_order_acquire) != round) {
                return;
            }
            for (T& element : m_sink) {
                spin_until([this] { return !m_ring->is_empty(); });
                element = m_ring->pop();
            }
            m_is_consumer_disturbed = context_switches() != switches_before;
            m_ended.store(round, std::memory_order_release); // publishes the sink and the line above
        }
    }

    std::unique_ptr<Ring> m_ring = std::make_unique<Ring>();
    std::vector<T> m_source = make_elements<T>();
    std::vector<T> m_sink = std::vector<T>(ELEMENTS);
    uint64_t m_round = 0;
    bool m_all_fit = true;
    alignas(128) std::atomic<uint64_t> m_begun{0};
    alignas(128) std::atomic<uint64_t> m_ended{0};
    bool m_is_consumer_disturbed = false;
    std::atomic<bool> m_is_over{false};
    std::thread m_consumer; // last: it uses all of the above
};

template <class Ring, class T>
void hand_over(benchmark::State& state) {
    constexpr int REPEATS_MAX = 20;
    Pair<Ring, T> pair;
    double disturbed = 0;
    for (auto _ : state) {
        bool is_disturbed = true;
        double time = 0;
        for (int repeat = 0; is_disturbed && repeat < REPEATS_MAX; ++repeat) {
            time = pair.round(is_disturbed);
        }
        disturbed += is_disturbed ? 1 : 0;
        state.SetIterationTime(time);
    }
    if (!pair.all_fit()) {
        state.SkipWithError("a ring with room refused an element");
    }
    state.counters["disturbed"] = disturbed;
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(ELEMENTS));
}

using ItemPtr = rc_ptr<Item>;

void product_ring(benchmark::State& state) {
    hand_over<Queue<ItemPtr, ELEMENTS, true>, ItemPtr>(state);
}
void bare_ring(benchmark::State& state) {
    hand_over<BareRing<Item*, std::memory_order_release>, Item*>(state);
}
void bare_ring_of_rc_ptr(benchmark::State& state) {
    hand_over<BareRing<ItemPtr, std::memory_order_release>, ItemPtr>(state);
}
void bare_ring_sequentially_consistent(benchmark::State& state) {
    hand_over<BareRing<Item*, std::memory_order_seq_cst>, Item*>(state);
}

BENCHMARK(product_ring)->UseManualTime()->Iterations(100)->Unit(benchmark::kMicrosecond);
BENCHMARK(bare_ring)->UseManualTime()->Iterations(100)->Unit(benchmark::kMicrosecond);
BENCHMARK(bare_ring_of_rc_ptr)->UseManualTime()->Iterations(100)->Unit(benchmark::kMicrosecond);
BENCHMARK(bare_ring_sequentially_consistent)->UseManualTime()->Iterations(100)->Unit(benchmark::kMicrosecond);

} // namespace
