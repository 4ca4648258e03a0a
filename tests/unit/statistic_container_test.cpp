#include "corvalin_lib/statistic_container.h"

#include <gtest/gtest.h>

namespace {

struct Block {
    Block() { ++alive; }
    ~Block() { --alive; }
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;

    int number = 0;
    static inline int alive = 0;
};

using Container = corvalin::StatisticContainer<Block>;

TEST(StatisticContainerTest, counts_into_the_block_of_its_creator_which_outlives_it) {
    Block block;
    {
        const Container container(&block);
        EXPECT_EQ(&container.statistic(), &block);
        container.statistic().number = 5;
        EXPECT_EQ(Block::alive, 1);
    }
    EXPECT_EQ(Block::alive, 1);
    EXPECT_EQ(block.number, 5);
}

TEST(StatisticContainerTest, without_a_block_it_makes_one_of_its_own_and_frees_it) {
    {
        const Container container(nullptr);
        EXPECT_EQ(Block::alive, 1);
        EXPECT_EQ(container.statistic().number, 0);
    }
    EXPECT_EQ(Block::alive, 0);
}

TEST(StatisticContainerTest, frees_its_own_block_when_destroyed_through_the_base) {
    struct User : Container {
        User() : Container(nullptr) {}
    };
    const Container* const container = new User;
    EXPECT_EQ(Block::alive, 1);
    delete container;
    EXPECT_EQ(Block::alive, 0);
}

} // namespace
