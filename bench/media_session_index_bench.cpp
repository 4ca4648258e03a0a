// The table of sessions, beside designs that were tried instead of it:
//
//     product          shards of a table with linear probing behind SipHash-1-3, as the router has them
//     one_map_siphash  one std::unordered_map behind the same hash: the simplest, but it grows all at once
//     sharded_map      shards of std::unordered_map behind the same hash
//     one_map_identity one std::unordered_map with the library's own hash of a number, which is the number
//
// find             one look-up among `sessions` ids, in random order. The ids are random.
// find_chosen      one look-up among 100000 ids that were chosen against the table, see `chosen_ids`. All of
//                  it stands beside 100000 random ids.
// longest_insert   the longest single insertion while the table grows to `sessions`. It is the time of the
//                  thread on a processor, so that a busy machine does not show; `longest_wall_ms` is the time
//                  on the clock, preemption included. The clock of the thread is too slow to be read for each
//                  insertion, so it is the longest group of 16: too long by 15 common ones, some microseconds.
#include <time.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <benchmark/benchmark.h>

#include "corvalin_lib/media_session_index.h"
#include "corvalin_lib/reference_countable.h"
#include "corvalin_lib/utils_siphash.h"

namespace {

using corvalin::rc_ptr;
using corvalin::media::Session;
using corvalin::media::SessionIndex;
using corvalin::utils::SipHashKey;

using Ids = std::vector<uint64_t>;

constexpr std::size_t CHOSEN_IDS = 100'000;
constexpr uint64_t SEED = 20'210'101;

// Any key does: the ids are not chosen with a knowledge of it.
constexpr SipHashKey BENCH_KEY{0x0706050403020100, 0x0f0e0d0c0b0a0908};

struct SipHash {
    std::size_t operator()(uint64_t id) const noexcept {
        return corvalin::utils::siphash<1, 3>(BENCH_KEY, id);
    }
};

// The designs under one interface. Entries hold null pointers: no session is looked at.

class Product {
public:
    void insert(uint64_t id) { m_index.insert(id, rc_ptr<Session>()); }
    const void* find(uint64_t id) { return m_index.find(id); }

private:
    SessionIndex m_index;
};

template <class Hash>
class OneMap {
public:
    void insert(uint64_t id) { m_map.emplace(id, rc_ptr<Session>()); }
    const void* find(uint64_t id) {
        const auto position = m_map.find(id);
        return position == m_map.end() ? nullptr : &position->second;
    }

private:
    std::unordered_map<uint64_t, rc_ptr<Session>, Hash> m_map;
};

// The hash is stored with the key, so that it is calculated once for each look-up and never when a shard grows.
class ShardedMap {
public:
    void insert(uint64_t id) {
        const Key key = key_of(id);
        shard_of(key).emplace(key, rc_ptr<Session>());
    }
    const void* find(uint64_t id) {
        const Key key = key_of(id);
        Shard& shard = shard_of(key);
        const auto position = shard.find(key);
        return position == shard.end() ? nullptr : &position->second;
    }

private:
    struct Key {
        uint64_t id;
        uint64_t hash;
        bool operator==(const Key& other) const noexcept { return id == other.id; }
    };
    struct StoredHash {
        std::size_t operator()(const Key& key) const noexcept { return key.hash; }
    };
    using Shard = std::unordered_map<Key, rc_ptr<Session>, StoredHash>;

    static constexpr int SHARD_BITS = 10;

    static Key key_of(uint64_t id) noexcept { return {id, SipHash()(id)}; }
    Shard& shard_of(const Key& key) noexcept { return m_shards[key.hash >> (64 - SHARD_BITS)]; }

    std::array<Shard, std::size_t{1} << SHARD_BITS> m_shards;
};

Ids random_ids(std::size_t count) {
    std::mt19937_64 random(SEED);
    Ids ids(count);
    std::generate(ids.begin(), ids.end(), std::ref(random));
    return ids;
}

// Bucket counts that the library's map has on its way to `elements`, the last and largest one last.
Ids bucket_counts(std::size_t elements) {
    Ids counts;
    std::unordered_map<uint64_t, int> map;
    for (uint64_t id = 0; id < elements; ++id) {
        map.emplace(id, 0);
        if (counts.empty() || counts.back() != map.bucket_count()) {
            counts.push_back(map.bucket_count());
        }
    }
    return counts;
}

Ids multiples_of(uint64_t step, std::size_t count = CHOSEN_IDS) {
    Ids ids(count);
    for (std::size_t index = 0; index < ids.size(); ++index) {
        ids[index] = (index + 1) * step;
    }
    return ids;
}

enum Attack {
    RANDOM_IDS,           // none, to compare with
    MULTIPLES_OF_BUCKETS, // of the bucket count of one map of 100000
    MULTIPLES_OF_SHARD,   // of the bucket count of a shard that has its part of 100000
    MULTIPLES_OF_POWER,   // of a power of two, so that only the middle bits differ
    EQUAL_LOW_WORDS,      // only the upper 32 bits differ
    POWERS_AND_SUMS,      // sums of two or three powers of two
    ATTACKS,
};

const char* attack_name(int attack) {
    constexpr const char* NAMES[ATTACKS] = {
        "random",          "multiples_of_buckets", "multiples_of_shard_buckets", "multiples_of_2_20",
        "equal_low_words", "sums_of_powers_of_two"};
    return NAMES[attack];
}

// Of one to four powers of two.
Ids sums_of_powers() {
    std::mt19937_64 random(SEED);
    std::unordered_set<uint64_t> sums;
    while (sums.size() < CHOSEN_IDS) {
        uint64_t sum = 0;
        for (int term = 0; term < 4; ++term) {
            sum |= uint64_t{1} << (random() % 64);
        }
        sums.insert(sum);
    }
    return {sums.begin(), sums.end()};
}

Ids chosen_ids(int attack) {
    switch (attack) {
    case MULTIPLES_OF_BUCKETS:
        return multiples_of(bucket_counts(CHOSEN_IDS).back());
    case MULTIPLES_OF_SHARD:
        return multiples_of(bucket_counts(CHOSEN_IDS / 1024).back());
    case MULTIPLES_OF_POWER:
        return multiples_of(uint64_t{1} << 20);
    case EQUAL_LOW_WORDS:
        return multiples_of(uint64_t{1} << 32);
    case POWERS_AND_SUMS:
        return sums_of_powers();
    default:
        return random_ids(CHOSEN_IDS);
    }
}

template <class Table>
void find_all(benchmark::State& state, Ids ids) {
    const auto table = std::make_unique<Table>();
    for (const uint64_t id : ids) {
        table->insert(id);
    }
    // Random order, for chosen ids too: the order of insertion is the order in memory.
    std::shuffle(ids.begin(), ids.end(), std::mt19937_64(SEED));
    std::size_t next = 0;
    bool is_found = true;
    for (auto _ : state) {
        const void* const found = table->find(ids[next]);
        is_found = is_found && found != nullptr;
        next = next + 1 == ids.size() ? 0 : next + 1;
    }
    if (!is_found) {
        state.SkipWithError("an id that was inserted is not found");
    }
}

template <class Table>
void find(benchmark::State& state) {
    find_all<Table>(state, random_ids(static_cast<std::size_t>(state.range(0))));
}

template <class Table>
void find_chosen(benchmark::State& state) {
    find_all<Table>(state, chosen_ids(static_cast<int>(state.range(0))));
    state.SetLabel(attack_name(static_cast<int>(state.range(0))));
}

double thread_seconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

template <class Table>
void longest_insert(benchmark::State& state) {
    constexpr std::size_t GROUP = 16;
    using Clock = std::chrono::steady_clock;
    const Ids ids = random_ids(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        const auto table = std::make_unique<Table>();
        double longest = 0;
        Clock::duration longest_wall{};
        double before = thread_seconds();
        Clock::time_point before_wall = Clock::now();
        for (std::size_t index = 0; index < ids.size(); ++index) {
            table->insert(ids[index]);
            const Clock::time_point after_wall = Clock::now();
            longest_wall = std::max(longest_wall, after_wall - before_wall);
            before_wall = after_wall;
            if (index % GROUP == GROUP - 1) {
                const double after = thread_seconds();
                longest = std::max(longest, after - before);
                before = after;
            }
        }
        state.SetIterationTime(longest);
        state.counters["longest_wall_ms"] = std::chrono::duration<double, std::milli>(longest_wall).count();
    }
}

#define BENCH_DESIGN(NAME, TABLE)                                                                            \
    BENCHMARK(find<TABLE>)                                                                                   \
        ->Name("find/" NAME)                                                                                 \
        ->ArgName("sessions")                                                                                \
        ->RangeMultiplier(10)                                                                                \
        ->Range(1000, 1'000'000)                                                                             \
        ->Iterations(1'000'000)

BENCH_DESIGN("product", Product);
BENCH_DESIGN("one_map_siphash", OneMap<SipHash>);
BENCH_DESIGN("sharded_map", ShardedMap);
BENCH_DESIGN("one_map_identity", OneMap<std::hash<uint64_t>>);

#define BENCH_CHOSEN(NAME, TABLE)                                                                            \
    BENCHMARK(find_chosen<TABLE>)                                                                            \
        ->Name("find_chosen/" NAME)                                                                          \
        ->ArgName("attack")                                                                                  \
        ->DenseRange(0, ATTACKS - 1)                                                                         \
        ->Iterations(500'000)

BENCH_CHOSEN("product", Product);
BENCH_CHOSEN("one_map_siphash", OneMap<SipHash>);
BENCH_CHOSEN("sharded_map", ShardedMap);

#define BENCH_GROWTH(NAME, TABLE, SESSIONS)                                                                  \
    BENCHMARK(longest_insert<TABLE>)                                                                         \
        ->Name("longest_insert/" NAME)                                                                       \
        ->ArgName("sessions")                                                                                \
        ->Arg(SESSIONS)                                                                                      \
        ->Iterations(1)                                                                                      \
        ->UseManualTime()                                                                                    \
        ->Unit(benchmark::kMillisecond)

BENCH_GROWTH("product", Product, 10'000'000);
BENCH_GROWTH("one_map_siphash", OneMap<SipHash>, 10'000'000);
BENCH_GROWTH("sharded_map", ShardedMap, 10'000'000);
BENCH_GROWTH("one_map_identity", OneMap<std::hash<uint64_t>>, 10'000'000);

// One map without a keyed hash, for scale. It takes minutes to build a chain of 100000, so it gets 10000 ids.
void find_chosen_identity(benchmark::State& state) {
    constexpr std::size_t FEW = CHOSEN_IDS / 10;
    const bool is_attacked = state.range(0) != RANDOM_IDS;
    find_all<OneMap<std::hash<uint64_t>>>(state, is_attacked ? multiples_of(bucket_counts(FEW).back(), FEW)
                                                             : random_ids(FEW));
    state.SetLabel(attack_name(static_cast<int>(state.range(0))));
}
BENCHMARK(find_chosen_identity)
    ->Name("find_chosen/one_map_identity")
    ->ArgName("attack")
    ->Arg(RANDOM_IDS)
    ->Arg(MULTIPLES_OF_BUCKETS)
    ->Iterations(20'000);

} // namespace
