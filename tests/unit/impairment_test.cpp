#include "tools/tool_support/impairment.h"

#include <gtest/gtest.h>

#include <vector>

namespace corvalin::tools {
namespace {

ImpairmentSettings some_of_everything() {
    ImpairmentSettings settings;
    settings.loss_percent = 10;
    settings.duplicate_percent = 20;
    settings.reorder_percent = 30;
    settings.delay_percent = 40;
    settings.delay_min_us = 100;
    settings.delay_max_us = 200;
    return settings;
}

TEST(ImpairmentTest, does_nothing_by_default) {
    Impairment impairment(ImpairmentSettings(), 1);
    for (int i = 0; i < 1000; ++i) {
        const ImpairmentDecision decision = impairment.next();
        ASSERT_FALSE(decision.lost || decision.duplicated || decision.reordered || decision.delay_us != 0);
    }
}

TEST(ImpairmentTest, meets_its_percentages) {
    constexpr int rounds = 100000;
    Impairment impairment(some_of_everything(), 42);
    int lost = 0;
    int duplicated = 0;
    int reordered = 0;
    int delayed = 0;
    for (int i = 0; i < rounds; ++i) {
        const ImpairmentDecision decision = impairment.next();
        lost += decision.lost ? 1 : 0;
        duplicated += decision.duplicated ? 1 : 0;
        reordered += decision.reordered ? 1 : 0;
        delayed += decision.delay_us != 0 ? 1 : 0;
    }
    // Of what is not lost; within five standard deviations, which are at most 160.
    EXPECT_NEAR(lost, rounds * 0.10, 800);
    EXPECT_NEAR(duplicated, rounds * 0.9 * 0.20, 800);
    EXPECT_NEAR(reordered, rounds * 0.9 * 0.30, 800);
    EXPECT_NEAR(delayed, rounds * 0.9 * 0.40, 800);
}

TEST(ImpairmentTest, a_lost_datagram_meets_nothing_else) {
    ImpairmentSettings settings = some_of_everything();
    settings.loss_percent = settings.duplicate_percent = settings.reorder_percent = settings.delay_percent =
        100;
    const ImpairmentDecision decision = Impairment(settings, 1).next();
    EXPECT_TRUE(decision.lost);
    EXPECT_FALSE(decision.duplicated || decision.reordered || decision.delay_us != 0);
}

TEST(ImpairmentTest, delays_lie_between_the_two_limits) {
    ImpairmentSettings settings;
    settings.delay_percent = 100;
    settings.delay_min_us = 100;
    settings.delay_max_us = 102;
    Impairment impairment(settings, 1);
    std::vector<int> seen(3);
    for (int i = 0; i < 1000; ++i) {
        const uint64_t delay_us = impairment.next().delay_us;
        ASSERT_TRUE(delay_us >= 100 && delay_us <= 102) << delay_us;
        ++seen[delay_us - 100];
    }
    EXPECT_TRUE(seen[0] > 0 && seen[1] > 0 && seen[2] > 0);
}

TEST(ImpairmentTest, the_same_seed_decides_the_same_and_another_seed_otherwise) {
    Impairment one(some_of_everything(), 5);
    Impairment same(some_of_everything(), 5);
    Impairment other(some_of_everything(), 6);
    int different = 0;
    for (int i = 0; i < 1000; ++i) {
        const ImpairmentDecision decision = one.next();
        const ImpairmentDecision again = same.next();
        ASSERT_TRUE(decision.lost == again.lost && decision.duplicated == again.duplicated &&
                    decision.reordered == again.reordered && decision.delay_us == again.delay_us);
        different += decision.lost != other.next().lost ? 1 : 0;
    }
    EXPECT_GT(different, 0);
}

TEST(ImpairmentTest, one_percentage_leaves_the_other_decisions_alone) {
    ImpairmentSettings without_duplicates = some_of_everything();
    without_duplicates.duplicate_percent = 0;
    Impairment one(some_of_everything(), 5);
    Impairment other(without_duplicates, 5);
    for (int i = 0; i < 1000; ++i) {
        const ImpairmentDecision decision = one.next();
        const ImpairmentDecision again = other.next();
        ASSERT_TRUE(decision.lost == again.lost && decision.reordered == again.reordered &&
                    decision.delay_us == again.delay_us);
    }
}

} // namespace
} // namespace corvalin::tools
