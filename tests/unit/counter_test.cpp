#include "corvalin_lib/counter.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <thread>

namespace {

using corvalin::Counter;
using corvalin::Shared;

TEST(CounterTest, starts_at_zero_adds_and_stores) {
    Counter counter;
    EXPECT_EQ(counter.value(), 0u);
    counter.add(3);
    counter.add(4);
    EXPECT_EQ(counter.value(), 7u);
    counter.set(5);
    EXPECT_EQ(counter.value(), 5u);
}

TEST(CounterTest, wraps_as_an_unsigned_number_of_64_bits) {
    Counter counter;
    counter.set(std::numeric_limits<uint64_t>::max());
    counter.add(2);
    EXPECT_EQ(counter.value(), 1u);
}

TEST(CounterTest, a_reader_sees_it_grow_only_and_never_past_what_was_counted) {
    constexpr uint64_t EVENTS = 200'000;
    Counter counter;
    std::thread writer([&counter] {
        for (uint64_t event = 0; event < EVENTS; ++event) {
            counter.add(1);
        }
    });
    uint64_t last = 0;
    while (last < EVENTS) {
        const uint64_t now = counter.value();
        ASSERT_GE(now, last);
        ASSERT_LE(now, EVENTS);
        last = now;
    }
    writer.join();
    EXPECT_EQ(counter.value(), EVENTS);
}

TEST(CounterTest, a_shared_setting_is_read_as_it_was_written_last) {
    Shared<int> setting = 4;
    EXPECT_EQ(setting, 4);
    setting = -1;
    EXPECT_EQ(setting, -1);
    EXPECT_EQ(Shared<void*>(), nullptr);
}

TEST(CounterTest, a_shared_setting_may_change_while_another_thread_reads_it) {
    Shared<uint64_t> setting = 1;
    std::thread writer([&setting] { setting = 2; });
    uint64_t seen = 0;
    while ((seen = setting) != 2) {
        ASSERT_EQ(seen, 1u);
    }
    writer.join();
}

} // namespace
