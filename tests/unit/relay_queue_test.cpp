#include "tools/tool_support/relay_queue.h"

#include <gtest/gtest.h>

#include <string>

namespace corvalin::tools {
namespace {

constexpr uint64_t US = 1'000;
constexpr uint64_t LIMIT_NS = 1000 * US;

ImpairmentDecision plain() {
    return {};
}
ImpairmentDecision lost() {
    ImpairmentDecision decision;
    decision.lost = true;
    return decision;
}
ImpairmentDecision duplicated() {
    ImpairmentDecision decision;
    decision.duplicated = true;
    return decision;
}
ImpairmentDecision reordered() {
    ImpairmentDecision decision;
    decision.reordered = true;
    return decision;
}
ImpairmentDecision delayed(uint64_t delay_us) {
    ImpairmentDecision decision;
    decision.delay_us = delay_us;
    return decision;
}

class RelayQueueTest : public testing::Test {
protected:
    void give(char name, const ImpairmentDecision& decision, uint64_t now_ns = 0) {
        const auto byte = static_cast<uint8_t>(name);
        m_queue.on_datagram(&byte, 1, decision, now_ns);
    }

    std::string m_forwarded; // a letter for each datagram
    RelayQueue m_queue{2, LIMIT_NS, [this](const uint8_t* bytes, std::size_t size) {
                           m_forwarded.append(reinterpret_cast<const char*>(bytes), size);
                       }};
};

TEST_F(RelayQueueTest, forwards_at_once_without_faults) {
    give('a', plain());
    give('b', plain());
    EXPECT_EQ(m_forwarded, "ab");
    EXPECT_EQ(m_queue.next_due_ns(), UINT64_MAX);
    EXPECT_EQ(m_queue.counts().received, 2U);
    EXPECT_EQ(m_queue.counts().forwarded, 2U);
}

TEST_F(RelayQueueTest, loses_and_duplicates) {
    give('a', lost());
    give('b', duplicated());
    EXPECT_EQ(m_forwarded, "bb");
    EXPECT_EQ(m_queue.counts().lost, 1U);
    EXPECT_EQ(m_queue.counts().duplicated, 1U);
    EXPECT_EQ(m_queue.counts().forwarded, 2U);
}

TEST_F(RelayQueueTest, a_reordered_datagram_goes_on_behind_as_many_as_the_distance_says) {
    give('a', reordered());
    give('b', plain());
    give('c', plain());
    give('d', plain());
    EXPECT_EQ(m_forwarded, "bcad");
    EXPECT_EQ(m_queue.counts().reordered, 1U);
}

TEST_F(RelayQueueTest, a_lost_and_a_held_datagram_overtake_nothing) {
    give('a', reordered());
    give('b', lost());
    give('c', reordered());
    give('d', plain());
    EXPECT_EQ(m_forwarded, "d");
    give('e', plain());
    EXPECT_EQ(m_forwarded, "deac");
}

TEST_F(RelayQueueTest, a_reordered_datagram_does_not_wait_for_ever) {
    give('a', reordered(), 5 * US);
    EXPECT_EQ(m_queue.next_due_ns(), LIMIT_NS + 5 * US);
    m_queue.release_due(LIMIT_NS + 5 * US - 1);
    EXPECT_EQ(m_forwarded, "");
    m_queue.release_due(LIMIT_NS + 5 * US);
    EXPECT_EQ(m_forwarded, "a");
}

TEST_F(RelayQueueTest, delayed_datagrams_go_on_at_their_time) {
    give('a', delayed(30));
    give('b', delayed(10));
    give('c', delayed(10));
    give('d', plain());
    EXPECT_EQ(m_forwarded, "d");
    EXPECT_EQ(m_queue.next_due_ns(), 10 * US);
    m_queue.release_due(10 * US - 1);
    EXPECT_EQ(m_forwarded, "d");
    m_queue.release_due(10 * US);
    EXPECT_EQ(m_forwarded, "dbc");
    m_queue.release_due(30 * US);
    EXPECT_EQ(m_forwarded, "dbca");
    EXPECT_EQ(m_queue.counts().delayed, 3U);
}

TEST_F(RelayQueueTest, a_datagram_that_waits_is_forwarded_twice_if_duplicated) {
    ImpairmentDecision decision = delayed(10);
    decision.duplicated = true;
    give('a', decision);
    decision = reordered();
    decision.duplicated = true;
    give('b', decision);
    m_queue.release_all();
    EXPECT_EQ(m_forwarded, "bbaa");
}

TEST_F(RelayQueueTest, a_delay_takes_the_place_of_reordering) {
    ImpairmentDecision decision = delayed(10);
    decision.reordered = true;
    give('a', decision);
    give('b', plain());
    give('c', plain());
    EXPECT_EQ(m_forwarded, "bc");
    EXPECT_EQ(m_queue.counts().reordered, 0U);
    m_queue.release_due(10 * US);
    EXPECT_EQ(m_forwarded, "bca");
}

TEST_F(RelayQueueTest, lets_everything_go_at_the_end) {
    give('a', reordered());
    give('b', delayed(1000000));
    m_queue.release_all();
    EXPECT_EQ(m_forwarded, "ab");
    EXPECT_EQ(m_queue.next_due_ns(), UINT64_MAX);
}

} // namespace
} // namespace corvalin::tools
