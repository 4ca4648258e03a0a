#include "tools/tool_support/sequence_checker.h"

#include <gtest/gtest.h>

#include <vector>

namespace corvalin::tools {

std::ostream& operator<<(std::ostream& stream, const SequenceCounts& counts) {
    return stream << "sessions " << counts.sessions << ", ended " << counts.ended_sessions << ", gaps "
                  << counts.gaps << ", missing " << counts.missing << ", repeats " << counts.repeats
                  << ", after end " << counts.after_end;
}

namespace {

constexpr uint8_t START = 0x81;
constexpr uint8_t TERMINATE = 0x82;
constexpr uint8_t DATA = 0x83;

struct Packet {
    uint64_t id;
    uint8_t type;
    uint64_t seq;
};

TEST(SequenceCheckerTest, counts_what_is_wrong_with_the_numbers_of_each_session) {
    struct Case {
        const char* description;
        std::vector<Packet> packets;
        SequenceCounts expected; // sessions, ended_sessions, gaps, missing, repeats, after_end
        bool clean;
    };
    const Case cases[] = {
        {"nothing", {}, {0, 0, 0, 0, 0, 0}, true},
        {"a whole session",
         {{7, START, 1}, {7, DATA, 2}, {7, DATA, 3}, {7, TERMINATE, 4}},
         {1, 1, 0, 0, 0, 0},
         true},
        {"a session that goes on", {{7, START, 1}, {7, DATA, 2}}, {1, 0, 0, 0, 0, 0}, true},
        {"two sessions side by side",
         {{7, START, 1}, {8, START, 1}, {8, DATA, 2}, {7, DATA, 2}, {7, TERMINATE, 3}, {8, TERMINATE, 3}},
         {2, 2, 0, 0, 0, 0},
         true},
        {"one number missing", {{7, START, 1}, {7, DATA, 3}, {7, DATA, 4}}, {1, 0, 1, 1, 0, 0}, false},
        {"two gaps of three", {{7, START, 1}, {7, DATA, 5}, {7, TERMINATE, 9}}, {1, 1, 2, 6, 0, 0}, false},
        {"the start missing", {{7, DATA, 2}, {7, DATA, 3}}, {1, 0, 1, 1, 0, 0}, false},
        {"a repeat", {{7, START, 1}, {7, DATA, 2}, {7, DATA, 2}, {7, DATA, 3}}, {1, 0, 0, 0, 1, 0}, false},
        {"a late packet",
         {{7, START, 1}, {7, DATA, 3}, {7, DATA, 2}, {7, DATA, 4}},
         {1, 0, 1, 1, 1, 0},
         false},
        {"number zero", {{7, START, 0}}, {1, 0, 0, 0, 1, 0}, false},
        {"a repeated end", {{7, START, 1}, {7, TERMINATE, 2}, {7, TERMINATE, 2}}, {1, 1, 0, 0, 1, 0}, false},
        {"data behind the end", {{7, START, 1}, {7, TERMINATE, 2}, {7, DATA, 3}}, {1, 1, 0, 0, 0, 1}, false},
        {"a second end", {{7, START, 1}, {7, TERMINATE, 2}, {7, TERMINATE, 3}}, {1, 1, 0, 0, 0, 1}, false},
        {"the id used again",
         {{7, START, 1}, {7, TERMINATE, 2}, {7, START, 1}, {7, DATA, 2}, {7, TERMINATE, 3}},
         {2, 2, 0, 0, 0, 0},
         true},
        {"a start within a session", {{7, START, 1}, {7, DATA, 2}, {7, START, 1}}, {1, 0, 0, 0, 1, 0}, false},
        {"the largest number",
         {{7, START, 1}, {7, DATA, UINT64_MAX}},
         {1, 0, 1, UINT64_MAX - 2, 0, 0},
         false},
    };
    for (const Case& row : cases) {
        SequenceChecker checker;
        for (const Packet& packet : row.packets) {
            checker.on_packet(packet.id, packet.type, packet.seq);
        }
        EXPECT_EQ(checker.counts(), row.expected) << row.description;
        EXPECT_EQ(checker.counts().are_clean(), row.clean) << row.description;
    }
}

TEST(SequenceCheckerTest, counts_can_be_summed) {
    SequenceCounts sum{1, 2, 3, 4, 5, 6};
    sum.add({10, 20, 30, 40, 50, 60});
    EXPECT_EQ(sum, (SequenceCounts{11, 22, 33, 44, 55, 66}));
}

} // namespace
} // namespace corvalin::tools
