#include "tools/tool_support/pacer.h"

#include <gtest/gtest.h>

namespace corvalin::tools {
namespace {

constexpr uint64_t US = 1'000;
constexpr uint64_t MS = 1'000'000;
constexpr uint64_t SECOND = 1'000'000'000;
constexpr uint64_t START = 5 * SECOND;
constexpr uint64_t NO_LIMIT = UINT64_MAX;

TEST(PacerTest, spaces_packets_evenly_without_an_interval) {
    Pacer pacer(50'000, 0, NO_LIMIT, START);
    for (uint64_t i = 0; i < 1000; ++i) {
        ASSERT_EQ(pacer.next_due_ns(), START + i * 20 * US);
        ASSERT_EQ(pacer.take(pacer.next_due_ns()), 1U);
    }
}

TEST(PacerTest, gives_nothing_before_a_packet_is_due) {
    Pacer pacer(50'000, 0, NO_LIMIT, START);
    EXPECT_EQ(pacer.take(START), 1U);
    EXPECT_EQ(pacer.take(START + 20 * US - 1), 0U);
    EXPECT_EQ(pacer.take(START + 20 * US), 1U);
    EXPECT_EQ(pacer.take(START + 20 * US + 1), 0U);
}

TEST(PacerTest, gathers_the_packets_of_an_interval_at_its_start) {
    Pacer pacer(50'000, MS, NO_LIMIT, START);
    for (uint64_t i = 0; i < 1000; ++i) {
        ASSERT_EQ(pacer.next_due_ns(), START + i * MS);
        ASSERT_EQ(pacer.take(pacer.next_due_ns()), 50U);
        ASSERT_EQ(pacer.take(START + i * MS + MS - 1), 0U);
    }
}

TEST(PacerTest, keeps_a_rate_that_no_interval_divides) {
    for (const uint64_t interval_ns : {uint64_t{0}, MS, 7 * MS}) {
        Pacer pacer(33'333, interval_ns, NO_LIMIT, START);
        uint64_t taken = 0;
        while (pacer.next_due_ns() < START + 7 * SECOND) {
            taken += pacer.take(pacer.next_due_ns());
        }
        EXPECT_EQ(taken, 7 * 33'333U) << "interval of " << interval_ns << " ns";
    }
}

TEST(PacerTest, skips_intervals_in_which_nothing_is_due) {
    Pacer pacer(3, 100 * MS, NO_LIMIT, START);
    EXPECT_EQ(pacer.take(START), 1U);
    EXPECT_EQ(pacer.next_due_ns(), START + 300 * MS); // a third of a second, down to the interval
    EXPECT_EQ(pacer.take(START + 300 * MS), 1U);
    EXPECT_EQ(pacer.next_due_ns(), START + 600 * MS);
}

TEST(PacerTest, catches_up_a_delay_within_the_limit) {
    Pacer pacer(1000, 0, 10 * MS, START);
    EXPECT_EQ(pacer.take(START), 1U);
    EXPECT_EQ(pacer.take(START + 11 * MS), 11U); // the next was due at 1 ms: a lag of just the limit
    EXPECT_EQ(pacer.slips(), 0U);
    EXPECT_EQ(pacer.next_due_ns(), START + 12 * MS);
}

TEST(PacerTest, moves_the_schedule_on_after_a_delay_beyond_the_limit) {
    Pacer pacer(1000, 0, 10 * MS, START);
    EXPECT_EQ(pacer.take(START), 1U);
    EXPECT_EQ(pacer.take(START + 11 * MS + 1), 1U);
    EXPECT_EQ(pacer.slips(), 1U);
    EXPECT_EQ(pacer.slipped_ns(), 10 * MS + 1);
    EXPECT_EQ(pacer.next_due_ns(), START + 12 * MS + 1);
}

TEST(PacerTest, stays_exact_where_the_product_of_time_and_rate_passes_64_bits) {
    Pacer pacer(Pacer::MAX_RATE, 0, NO_LIMIT, 0);
    const uint64_t day = 86'400 * SECOND;
    EXPECT_EQ(pacer.take(day), day + 1);
    EXPECT_EQ(pacer.next_due_ns(), day + 1);
}

} // namespace
} // namespace corvalin::tools
