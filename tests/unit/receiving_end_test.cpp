#include "tools/tool_support/receiving_end.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace corvalin::tools {
namespace {

constexpr uint64_t START_NS = 7'000'000'000;
constexpr uint64_t MS = 1'000'000;

TEST(ReceivingEndTest, is_reached_by_datagrams_by_silence_behind_the_first_one_and_by_time) {
    struct Case {
        const char* description;
        ReceivingEnd end;
        uint64_t datagrams;
        uint64_t last_datagram_ns;
        uint64_t now_ns;
        bool is_reached;
    };
    const Case cases[] = {
        {"no limits", {0, 0, 0}, UINT64_MAX, START_NS, UINT64_MAX, false},
        {"one datagram less", {3, 0, 0}, 2, START_NS, START_NS, false},
        {"so many datagrams", {3, 0, 0}, 3, START_NS, START_NS, true},
        {"more datagrams", {3, 0, 0}, 4, START_NS, START_NS, true},
        {"silence that is too short", {0, 5, 0}, 1, START_NS, START_NS + 5 * MS - 1, false},
        {"silence", {0, 5, 0}, 1, START_NS, START_NS + 5 * MS, true},
        {"silence ahead of the first datagram", {0, 5, 0}, 0, 0, START_NS + 5 * MS, false},
        {"a datagram within the silence", {0, 5, 0}, 2, START_NS + MS, START_NS + 5 * MS, false},
        {"one nanosecond ahead of time", {0, 0, 0.25}, 0, 0, START_NS + 250 * MS - 1, false},
        {"in time, without a datagram", {0, 0, 0.25}, 0, 0, START_NS + 250 * MS, true},
    };
    for (const Case& row : cases) {
        EXPECT_EQ(row.end.is_reached({START_NS, row.datagrams, row.last_datagram_ns}, row.now_ns),
                  row.is_reached)
            << row.description;
    }
}

TEST(ReceivingEndTest, a_wait_is_no_longer_than_a_signal_or_the_silence_may_have_to_wait) {
    EXPECT_EQ(ReceivingEnd().longest_wait_ms(), 100U);
    EXPECT_EQ((ReceivingEnd{1, 0, 1}.longest_wait_ms()), 100U);
    EXPECT_EQ((ReceivingEnd{0, 99, 0}.longest_wait_ms()), 99U);
    EXPECT_EQ((ReceivingEnd{0, 100, 0}.longest_wait_ms()), 100U);
    EXPECT_EQ((ReceivingEnd{0, 101, 0}.longest_wait_ms()), 100U);
}

} // namespace
} // namespace corvalin::tools
