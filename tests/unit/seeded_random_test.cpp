#include "tools/tool_support/seeded_random.h"

#include <gtest/gtest.h>

#include <set>

namespace corvalin::tools {
namespace {

// The published first numbers of the splitmix64 generator for this seed.
TEST(SeededRandomTest, gives_the_numbers_of_its_generator) {
    SeededRandom random(1234567);
    for (const uint64_t expected : {6457827717110365317U, 3203168211198807973U, 9817491932198370423U,
                                    4593380528125082431U, 16408922859458223821U}) {
        EXPECT_EQ(random.next(), expected);
    }
}

TEST(SeededRandomTest, draws_between_two_numbers_and_reaches_both) {
    SeededRandom random(1);
    std::set<uint64_t> seen;
    for (int i = 0; i < 1000; ++i) {
        seen.insert(random.between(5, 8));
    }
    EXPECT_EQ(seen, (std::set<uint64_t>{5, 6, 7, 8}));
}

TEST(SeededRandomTest, a_chance_is_met_as_often_as_it_says) {
    struct Case {
        const char* description;
        double percent;
        int at_least; // of 100000: five standard deviations around the mean
        int at_most;
    };
    const Case cases[] = {
        {"never", 0, 0, 0},
        {"one in a hundred", 1, 1000 - 158, 1000 + 158},
        {"half", 50, 50000 - 791, 50000 + 791},
        {"always", 100, 100000, 100000},
    };
    for (const Case& row : cases) {
        SeededRandom random(7);
        int met = 0;
        for (int i = 0; i < 100000; ++i) {
            met += random.chance(row.percent) ? 1 : 0;
        }
        EXPECT_GE(met, row.at_least) << row.description;
        EXPECT_LE(met, row.at_most) << row.description;
    }
}

TEST(SeededRandomTest, a_chance_draws_one_number_whatever_the_percentage) {
    SeededRandom never(3);
    SeededRandom always(3);
    never.chance(0);
    always.chance(100);
    EXPECT_EQ(never.next(), always.next());
}

TEST(SeededRandomTest, two_unforeseen_seeds_differ) {
    EXPECT_NE(random_seed(), random_seed());
}

} // namespace
} // namespace corvalin::tools
