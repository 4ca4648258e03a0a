#include "corvalin_lib/queue_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/waiting.h"

namespace {

using corvalin::QueueIdleReader;
using corvalin::QueueIdleReaderStatistic;
using corvalin::QueueReader;
using corvalin::QueueReaderStatistic;
using corvalin::test::wait_until;
using ::testing::ElementsAre;

constexpr uint64_t CAPACITY = 4;
constexpr uint64_t TIMEOUT_NS = 20'000'000;
constexpr int NOTHING = 0; // what an int element is when a wait has run out

// ---- The form that drains

class DrainingReader : public QueueReader<int, CAPACITY, TIMEOUT_NS> {
public:
    using QueueReader::QueueReader;

    void on_queue_read(int element) override {
        read.push_back(element);
        gauges.push_back(statistic().elements.value());
        reads = read.size();
    }

    std::vector<int> read;
    std::vector<uint64_t> gauges; // as the hook found it
    std::atomic<uint64_t> reads{0};
};

class QueueReaderTest : public ::testing::Test {
protected:
    QueueReaderStatistic m_statistic;
    DrainingReader m_reader{&m_statistic};
};

TEST_F(QueueReaderTest, a_push_counts_what_went_in_and_what_was_refused) {
    for (uint64_t element = 1; element <= CAPACITY; ++element) {
        EXPECT_TRUE(m_reader.push(static_cast<int>(element)));
    }
    EXPECT_FALSE(m_reader.push(99));
    EXPECT_FALSE(m_reader.push(99));
    EXPECT_EQ(m_statistic.passed_elements.value(), CAPACITY);
    EXPECT_EQ(m_statistic.dropped_elements.value(), 2u);
}

// An object that was never started is not running: its loop ends when its condition is first looked at.
TEST_F(QueueReaderTest, a_stopped_reader_drains_the_ring_and_stores_the_gauge_behind_each_element) {
    m_reader.push(1);
    m_reader.push(2);
    m_reader.push(3);
    m_reader.run();
    EXPECT_THAT(m_reader.read, ElementsAre(1, 2, 3));
    EXPECT_THAT(m_reader.gauges, ElementsAre(0, 2, 1));
    EXPECT_EQ(m_statistic.elements.value(), 0u);
}

TEST_F(QueueReaderTest, a_stopped_reader_with_an_empty_ring_reads_nothing) {
    m_reader.run();
    EXPECT_TRUE(m_reader.read.empty());
}

TEST_F(QueueReaderTest, a_running_reader_hands_over_nothing_when_a_wait_runs_out) {
    ASSERT_EQ(m_reader.start(), 0);
    EXPECT_TRUE(wait_until([this] { return m_reader.reads >= 2; }));
    EXPECT_EQ(m_reader.stop(), 0);
    for (const int element : m_reader.read) {
        EXPECT_EQ(element, NOTHING);
    }
}

TEST_F(QueueReaderTest, a_reader_that_is_stopped_under_load_loses_nothing) {
    ASSERT_EQ(m_reader.start(), 0);
    std::vector<int> expected;
    for (int element = 1; element <= 2'000; ++element) {
        if (m_reader.push(element)) {
            expected.push_back(element);
        } else {
            std::this_thread::yield();
        }
    }
    EXPECT_EQ(m_reader.stop(), 0);
    std::erase(m_reader.read, NOTHING);
    EXPECT_EQ(m_reader.read, expected);
    EXPECT_EQ(m_statistic.passed_elements.value(), expected.size());
    EXPECT_EQ(m_statistic.passed_elements.value() + m_statistic.dropped_elements.value(), 2'000u);
}

// ---- The form with housekeeping

class IdleReader : public QueueIdleReader<int, CAPACITY, TIMEOUT_NS> {
public:
    using QueueIdleReader::QueueIdleReader;

    void on_queue_try() override { events.emplace_back("try"); }
    bool on_queue_idle() override {
        events.emplace_back("idle");
        if (on_idle) {
            on_idle();
        }
        return idle_rounds_with_work > 0 && idle_rounds_with_work-- > 0;
    }
    void on_queue_read(int element) override {
        events.push_back("read " + std::to_string(element));
        gauges.push_back(statistic().elements.value());
        if (on_read) {
            on_read();
        }
        ++reads;
    }

    std::vector<std::string> events;
    std::vector<uint64_t> gauges; // as the hook found it
    int idle_rounds_with_work = 0;
    std::function<void()> on_idle;
    std::function<void()> on_read;
    std::atomic<uint64_t> reads{0};
};

/// A reader that was never started goes exactly one round: it looks at its flag behind the round only.
class QueueIdleReaderTest : public ::testing::Test {
protected:
    void one_round() { m_reader.run(); }

    QueueIdleReaderStatistic m_statistic;
    IdleReader m_reader{m_statistic};
};

TEST_F(QueueIdleReaderTest, a_round_takes_one_element_and_offers_no_housekeeping_while_there_are_any) {
    m_reader.push(7);
    m_reader.push(8);
    one_round();
    EXPECT_THAT(m_reader.events, ElementsAre("try", "read 7"));
    EXPECT_EQ(m_statistic.elements.value(), 1u);
    EXPECT_EQ(m_statistic.empty_hits.value(), 0u);
    EXPECT_EQ(m_statistic.idle_hits.value(), 0u);
}

TEST_F(QueueIdleReaderTest, a_stop_leaves_the_rest_of_the_ring_unread) {
    m_reader.push(1);
    m_reader.push(2);
    m_reader.push(3);
    one_round();
    EXPECT_THAT(m_reader.events, ElementsAre("try", "read 1"));
    EXPECT_EQ(m_statistic.elements.value(), 2u);
    EXPECT_EQ(m_statistic.passed_elements.value(), 3u);
}

TEST_F(QueueIdleReaderTest, an_empty_ring_without_work_ends_in_a_wait_and_a_read_of_nothing) {
    const auto begin = std::chrono::steady_clock::now();
    one_round();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::nanoseconds(TIMEOUT_NS));
    EXPECT_THAT(m_reader.events, ElementsAre("try", "idle", "read 0"));
    EXPECT_EQ(m_statistic.empty_hits.value(), 1u);
    EXPECT_EQ(m_statistic.idle_hits.value(), 0u);
    EXPECT_EQ(m_statistic.elements.value(), 0u);
}

TEST_F(QueueIdleReaderTest, housekeeping_that_found_work_ends_the_round_without_a_wait_or_a_read) {
    m_reader.idle_rounds_with_work = 1;
    one_round();
    EXPECT_THAT(m_reader.events, ElementsAre("try", "idle"));
    EXPECT_EQ(m_statistic.empty_hits.value(), 1u);
    EXPECT_EQ(m_statistic.idle_hits.value(), 1u);
}

TEST_F(QueueIdleReaderTest, an_element_that_arrives_during_housekeeping_is_read_in_the_same_round) {
    m_reader.on_idle = [this] { m_reader.push(5); };
    one_round();
    EXPECT_THAT(m_reader.events, ElementsAre("try", "idle", "read 5"));
    EXPECT_EQ(m_statistic.elements.value(), 0u);
}

TEST_F(QueueIdleReaderTest, the_gauge_is_stored_at_the_end_of_a_round_and_once_more_at_the_exit) {
    m_reader.push(1);
    // Behind the taking of the element the ring is empty; what the hook adds is seen at the end of the round.
    m_reader.on_read = [this] {
        m_reader.push(2);
        m_reader.push(3);
    };
    one_round();
    EXPECT_THAT(m_reader.gauges, ElementsAre(0));
    EXPECT_EQ(m_statistic.elements.value(), 2u);
}

TEST_F(QueueIdleReaderTest, a_backlog_of_housekeeping_is_worked_off_round_by_round_before_the_first_wait) {
    m_reader.idle_rounds_with_work = 3;
    ASSERT_EQ(m_reader.start(), 0);
    EXPECT_TRUE(wait_until([this] { return m_reader.reads >= 1; }));
    EXPECT_EQ(m_reader.stop(), 0);
    m_reader.events.resize(9);
    EXPECT_THAT(m_reader.events,
                ElementsAre("try", "idle", "try", "idle", "try", "idle", "try", "idle", "read 0"));
    EXPECT_EQ(m_statistic.idle_hits.value(), 3u);
    EXPECT_GE(m_statistic.empty_hits.value(), 4u);
}

// ---- Counters of two threads

TEST_F(QueueIdleReaderTest, counters_of_the_two_threads_do_not_share_a_pair_of_cache_lines) {
    const auto block_of = [](const corvalin::Counter& counter) {
        return reinterpret_cast<uintptr_t>(&counter) / 128;
    };
    const QueueIdleReaderStatistic& block = m_statistic;
    for (const corvalin::Counter* const reader : {&block.elements, &block.empty_hits, &block.idle_hits}) {
        for (const corvalin::Counter* const producer : {&block.passed_elements, &block.dropped_elements}) {
            EXPECT_NE(block_of(*reader), block_of(*producer));
        }
    }
}

} // namespace
