#include "corvalin_lib/queue.h"

#include <pthread.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "corvalin_lib/reference_countable.h"
#include "corvalin_lib/thread.h"
#include "tests/support/waiting.h"

namespace {

using corvalin::current_thread_id;
using corvalin::Queue;
using corvalin::rc_ptr;
using corvalin::ReferenceCountable;
using corvalin::test::wait_until;
using corvalin::test::wait_until_asleep;

constexpr uint64_t NS_PER_MS = 1'000'000;
constexpr uint64_t NS_PER_S = 1'000'000'000;
constexpr uint64_t LONG_WAIT_NS =
    2 * std::chrono::nanoseconds(corvalin::test::WAIT_LIMIT).count(); // never run out

/// An element that knows how many of its kind are alive.
struct Tracked : ReferenceCountable {
    explicit Tracked(int first) : number(first) { ++alive; }
    ~Tracked() override { --alive; }

    const int number;
    static inline std::atomic<int> alive{0};
};
using TrackedPtr = rc_ptr<Tracked>;

TEST(QueueTest, a_new_ring_is_empty) {
    const Queue<int, 4, true> queue;
    EXPECT_TRUE(queue.is_empty());
    EXPECT_EQ(queue.size(), 0u);
}

TEST(QueueTest, a_peek_shows_the_elements_in_their_order_across_the_wrap_and_takes_none) {
    Queue<int, 4, true> queue;
    for (int taken = 0; taken < 10; ++taken) {
        SCOPED_TRACE(taken);
        while (queue.push(taken + static_cast<int>(queue.size()))) {
        }
        for (const int distance : {0, 1, 2, 3}) {
            EXPECT_EQ(queue.peek(static_cast<uint64_t>(distance)), taken + distance);
        }
        EXPECT_EQ(queue.size(), 4u);
        EXPECT_EQ(queue.pop(), taken);
    }
}

TEST(QueueTest, elements_come_out_in_the_order_in_which_they_went_in) {
    Queue<int, 4, true> queue;
    for (const int element : {10, 11, 12}) {
        EXPECT_TRUE(queue.push(element));
    }
    EXPECT_EQ(queue.size(), 3u);
    for (const int element : {10, 11, 12}) {
        EXPECT_EQ(queue.pop(), element);
    }
    EXPECT_TRUE(queue.is_empty());
}

TEST(QueueTest, a_full_ring_refuses_the_newest_element_and_keeps_the_old_ones) {
    Queue<int, 3, true> queue;
    ASSERT_TRUE(queue.push(1));
    ASSERT_TRUE(queue.push(2));
    ASSERT_TRUE(queue.push(3)) << "all slots can be used";
    EXPECT_FALSE(queue.push(4));
    EXPECT_FALSE(queue.push(5));
    EXPECT_EQ(queue.size(), 3u);

    EXPECT_EQ(queue.pop(), 1);
    ASSERT_TRUE(queue.push(6)) << "one free slot is enough";
    EXPECT_FALSE(queue.push(7));
    for (const int element : {2, 3, 6}) {
        EXPECT_EQ(queue.pop(), element);
    }
}

TEST(QueueTest, slot_positions_go_on_across_any_number_of_wraps) {
    constexpr int CAPACITY = 5;
    Queue<int, CAPACITY, true> queue;
    int pushed = 0;
    int popped = 0;
    // Every fill level from 1 to full, at every position of the ring, many times over.
    for (int round = 0; round < 20 * CAPACITY; ++round) {
        const int burst = round % CAPACITY + 1;
        for (int count = 0; count < burst; ++count) {
            ASSERT_TRUE(queue.push(pushed++));
        }
        ASSERT_EQ(queue.push(-1), burst < CAPACITY);
        for (int count = 0; count < burst; ++count) {
            ASSERT_EQ(queue.pop(), popped++);
        }
        if (burst < CAPACITY) {
            ASSERT_EQ(queue.pop(), -1);
        }
        ASSERT_TRUE(queue.is_empty());
    }
}

TEST(QueueTest, a_slot_lets_go_of_its_element_when_that_is_taken) {
    Queue<TrackedPtr, 4, true> queue;
    ASSERT_TRUE(queue.push(new Tracked(1)));
    EXPECT_EQ(Tracked::alive, 1);
    {
        const TrackedPtr taken = queue.pop();
        EXPECT_EQ(taken->number, 1);
        EXPECT_EQ(taken->reference_count(), 1) << "the slot still holds the element";
    }
    EXPECT_EQ(Tracked::alive, 0);
}

TEST(QueueTest, a_refused_element_stays_with_its_caller) {
    Queue<TrackedPtr, 1, true> queue;
    ASSERT_TRUE(queue.push(new Tracked(1)));
    const TrackedPtr refused(new Tracked(2));
    EXPECT_FALSE(queue.push(refused));
    EXPECT_EQ(refused->reference_count(), 1);
    EXPECT_FALSE(queue.push(new Tracked(3)));
    EXPECT_EQ(Tracked::alive, 2) << "the ring holds on to an element that it has refused";
}

TEST(QueueTest, what_is_left_in_the_ring_goes_with_it) {
    {
        Queue<TrackedPtr, 4, true> queue;
        for (int number = 0; number < 4; ++number) {
            ASSERT_TRUE(queue.push(new Tracked(number)));
        }
        EXPECT_EQ(Tracked::alive, 4);
    }
    EXPECT_EQ(Tracked::alive, 0);
}

TEST(QueueTest, a_wait_with_a_limit_takes_an_element_that_is_there_at_once) {
    Queue<TrackedPtr, 4, true> queue;
    ASSERT_TRUE(queue.push(new Tracked(8)));
    const TrackedPtr taken = queue.pop(0);
    ASSERT_NE(taken.get(), nullptr);
    EXPECT_EQ(taken->number, 8);
}

// Also a proof of the clock: a limit on the monotonic clock that is taken for calendar time lies decades back.
TEST(QueueTest, a_wait_that_runs_out_gives_nothing_and_not_before_its_limit) {
    Queue<TrackedPtr, 4, true> queue;
    // A whole second carries into the seconds of the limit at any time of day.
    for (const uint64_t limit_ns : {uint64_t{1}, 20 * NS_PER_MS, NS_PER_S}) {
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(queue.pop(limit_ns).get(), nullptr);
        const auto waited = std::chrono::steady_clock::now() - begin;
        EXPECT_GE(waited, std::chrono::nanoseconds(limit_ns));
        EXPECT_LT(waited, std::chrono::nanoseconds(limit_ns) + corvalin::test::WAIT_LIMIT);
    }
    EXPECT_TRUE(queue.is_empty());
    ASSERT_TRUE(queue.push(new Tracked(1)));
    EXPECT_NE(queue.pop(NS_PER_S).get(), nullptr);
}

/// A consumer that sleeps in an empty ring.
class SleepingConsumer {
public:
    template <class Pop>
    explicit SleepingConsumer(Pop pop)
        : m_thread([this, pop] {
              m_id = current_thread_id();
              m_result = pop();
              m_done = true;
          }) {}
    ~SleepingConsumer() { m_thread.join(); }
    SleepingConsumer(const SleepingConsumer&) = delete;
    SleepingConsumer& operator=(const SleepingConsumer&) = delete;

    bool sleeps() {
        return wait_until([this] { return m_id != 0; }) && wait_until_asleep(m_id) && !m_done;
    }
    std::optional<int> result() {
        return wait_until([this] { return m_done.load(); }) ? std::optional<int>(m_result) : std::nullopt;
    }

private:
    std::atomic<int> m_id{0};
    std::atomic<int> m_result{0};
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

TEST(QueueTest, a_push_wakes_a_consumer_that_waits_with_a_limit) {
    Queue<int, 4, true> queue;
    const auto begin = std::chrono::steady_clock::now();
    SleepingConsumer consumer([&queue] { return queue.pop(LONG_WAIT_NS); });
    ASSERT_TRUE(consumer.sleeps());
    ASSERT_TRUE(queue.push(5));
    EXPECT_EQ(consumer.result(), 5);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::nanoseconds(LONG_WAIT_NS));
}

TEST(QueueTest, a_push_wakes_a_consumer_that_waits_without_a_limit) {
    Queue<int, 4, true> queue;
    SleepingConsumer consumer([&queue] { return queue.pop(); });
    ASSERT_TRUE(consumer.sleeps());
    ASSERT_TRUE(queue.push(6));
    EXPECT_EQ(consumer.result(), 6);
}

TEST(QueueTest, a_consumer_that_was_woken_can_sleep_and_be_woken_again) {
    Queue<int, 4, true> queue;
    for (int element = 1; element <= 20; ++element) {
        SleepingConsumer consumer([&queue] { return queue.pop(LONG_WAIT_NS); });
        ASSERT_TRUE(consumer.sleeps());
        ASSERT_TRUE(queue.push(element));
        ASSERT_EQ(consumer.result(), element);
    }
}

// ---- Layout: which thread writes where

using Ring = Queue<rc_ptr<Tracked>, 100'000, true>;

// The language lets an explicit instantiation name private members, and nothing else shows where they lie.
template <class Tag, typename Tag::Member MEMBER>
struct Reveal {
    friend typename Tag::Member reveal(Tag /*tag*/) { return MEMBER; }
};
struct Slots {
    using Member = std::unique_ptr<rc_ptr<Tracked>[]> Ring::*;
    friend Member reveal(Slots /*tag*/);
};
struct WriteIndex {
    using Member = std::atomic<uint64_t> Ring::*;
    friend Member reveal(WriteIndex /*tag*/);
};
struct ReadIndex {
    using Member = std::atomic<uint64_t> Ring::*;
    friend Member reveal(ReadIndex /*tag*/);
};
struct ReaderSleeps {
    using Member = std::atomic<bool> Ring::*;
    friend Member reveal(ReaderSleeps /*tag*/);
};
struct Mutex {
    using Member = pthread_mutex_t Ring::*;
    friend Member reveal(Mutex /*tag*/);
};
struct NotEmpty {
    using Member = pthread_cond_t Ring::*;
    friend Member reveal(NotEmpty /*tag*/);
};
template struct Reveal<Slots, &Ring::m_ring>;
template struct Reveal<WriteIndex, &Ring::m_write_index>;
template struct Reveal<ReadIndex, &Ring::m_read_index>;
template struct Reveal<ReaderSleeps, &Ring::m_reader_sleeps>;
template struct Reveal<Mutex, &Ring::m_mutex>;
template struct Reveal<NotEmpty, &Ring::m_not_empty>;

TEST(QueueTest, fields_of_different_writers_stand_128_bytes_apart_each_in_a_block_of_its_own) {
    Ring ring;
    const std::array<uintptr_t, 4> addresses = {
        reinterpret_cast<uintptr_t>(&(ring.*reveal(Slots()))),
        reinterpret_cast<uintptr_t>(&(ring.*reveal(WriteIndex()))),
        reinterpret_cast<uintptr_t>(&(ring.*reveal(ReadIndex()))),
        reinterpret_cast<uintptr_t>(&(ring.*reveal(ReaderSleeps()))),
    };
    for (std::size_t index = 1; index < addresses.size(); ++index) {
        EXPECT_EQ(addresses[index] - addresses[index - 1], 128u) << index;
    }
    for (const uintptr_t address : addresses) {
        EXPECT_EQ(address % 128, 0u);
    }
    EXPECT_GE(reinterpret_cast<uintptr_t>(&ring) + sizeof(ring) - addresses.back(), 128u)
        << "what stands behind the ring shares the line of the consumer's flag";
}

TEST(QueueTest, the_indexes_count_all_elements_and_are_never_reset) {
    Ring ring;
    constexpr uint64_t ELEMENTS = 250'000; // two and a half rounds
    const rc_ptr<Tracked> element(new Tracked(0));
    for (uint64_t count = 0; count < ELEMENTS; ++count) {
        ASSERT_TRUE(ring.push(element));
        ASSERT_NE(ring.pop().get(), nullptr);
    }
    EXPECT_EQ((ring.*reveal(WriteIndex())).load(), ELEMENTS);
    EXPECT_EQ((ring.*reveal(ReadIndex())).load(), ELEMENTS);
}

TEST(QueueTest, the_slot_of_an_index_is_the_index_modulo_the_capacity_and_null_when_it_holds_nothing) {
    Ring ring;
    const rc_ptr<Tracked>* const slots = (ring.*reveal(Slots())).get();
    for (uint64_t count = 0; count < 99'999; ++count) {
        ASSERT_TRUE(ring.push(nullptr));
        ring.pop();
    }
    const rc_ptr<Tracked> last(new Tracked(1));
    const rc_ptr<Tracked> first(new Tracked(2));
    ASSERT_TRUE(ring.push(last));
    ASSERT_TRUE(ring.push(first));
    EXPECT_EQ(slots[99'999].get(), last.get());
    EXPECT_EQ(slots[0].get(), first.get());
    ring.pop();
    EXPECT_EQ(slots[99'999].get(), nullptr);
    EXPECT_EQ(slots[0].get(), first.get());
}

TEST(QueueTest, the_consumer_is_marked_asleep_in_its_wait_only) {
    Ring ring;
    const auto& asleep = ring.*reveal(ReaderSleeps());
    EXPECT_FALSE(asleep);
    std::atomic<int> id{0};
    std::thread consumer([&] {
        id = current_thread_id();
        ring.pop(LONG_WAIT_NS);
    });
    EXPECT_TRUE(wait_until([&] { return id != 0; }));
    EXPECT_TRUE(wait_until_asleep(id));
    EXPECT_TRUE(asleep);
    ring.push(new Tracked(1));
    consumer.join();
    EXPECT_FALSE(asleep);
    ring.pop(1);
    EXPECT_FALSE(asleep) << "a wait that ran out leaves the mark";
}

TEST(QueueTest, a_consumer_that_has_been_woken_but_does_not_run_yet_is_not_woken_again) {
    Ring ring;
    auto& asleep = ring.*reveal(ReaderSleeps());
    asleep = true; // a consumer in its wait, as the producer sees it
    ring.push(new Tracked(1));
    EXPECT_FALSE(asleep) << "each element until it runs would wake it anew";
}

TEST(QueueTest, a_consumer_that_wakes_without_an_element_waits_on_and_is_woken_by_the_next_one) {
    struct Case {
        const char* description;
        rc_ptr<Tracked> (*pop)(Ring& ring);
    };
    const std::array<Case, 2> cases = {{
        {"with a limit", [](Ring& ring) { return ring.pop(LONG_WAIT_NS); }},
        {"without a limit", [](Ring& ring) { return ring.pop(); }},
    }};
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        Ring ring;
        auto& asleep = ring.*reveal(ReaderSleeps());
        SleepingConsumer consumer([&] { return row.pop(ring) ? 1 : 0; });
        ASSERT_TRUE(consumer.sleeps());

        const auto wake = [&] {
            pthread_mutex_lock(&(ring.*reveal(Mutex())));
            asleep = false;
            pthread_cond_broadcast(&(ring.*reveal(NotEmpty())));
            pthread_mutex_unlock(&(ring.*reveal(Mutex())));
        };
        wake(); // a producer that saw the mark of the sleep before, and was held up until this one
        EXPECT_TRUE(wait_until([&] { return asleep.load(); })) << "no element would wake it";
        EXPECT_TRUE(consumer.sleeps());
        const auto begin = std::chrono::steady_clock::now();
        ring.push(new Tracked(1));
        EXPECT_EQ(consumer.result(), 1);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::nanoseconds(LONG_WAIT_NS));
        wake(); // a consumer that has failed the test must end all the same
    }
}

// ---- Two threads

/// Several words that belong together: a slot that is read before all of it is there does not add up.
struct Sealed {
    uint64_t number = 0;
    std::array<uint64_t, 6> words{};
    uint64_t seal = 0;

    static Sealed make(uint64_t number) {
        Sealed element;
        element.number = number;
        uint64_t state = number * 0x9e3779b97f4a7c15 + 1;
        for (uint64_t& word : element.words) {
            state = state * 6364136223846793005 + 1442695040888963407;
            word = state;
        }
        element.seal = element.sum();
        return element;
    }
    uint64_t sum() const {
        uint64_t total = number * 31 + 7;
        for (const uint64_t word : words) {
            total = total * 1099511628211 + word;
        }
        return total;
    }
    bool is_whole() const { return seal == sum(); }
};

TEST(QueueTest, two_threads_hand_over_every_element_once_whole_and_in_order) {
    constexpr uint64_t ELEMENTS = 50'000;
    // Small, so that both threads meet the full and the empty ring all the time.
    const auto queue = std::make_unique<Queue<Sealed, 13, true>>();
    std::thread producer([&queue] {
        for (uint64_t number = 1; number <= ELEMENTS; ++number) {
            while (!queue->push(Sealed::make(number))) {
                std::this_thread::yield();
            }
        }
    });
    uint64_t broken = 0;
    uint64_t out_of_order = 0;
    for (uint64_t number = 1; number <= ELEMENTS;) {
        const Sealed element = queue->pop(NS_PER_MS);
        if (element.number == 0) {
            continue; // the wait has run out
        }
        broken += element.is_whole() ? 0 : 1;
        out_of_order += element.number == number ? 0 : 1;
        ++number;
    }
    producer.join();
    EXPECT_EQ(broken, 0u);
    EXPECT_EQ(out_of_order, 0u);
    EXPECT_TRUE(queue->is_empty());
}

TEST(QueueTest, an_element_is_either_taken_once_or_refused_to_its_producer) {
    constexpr uint64_t ELEMENTS = 40'000;
    const auto queue = std::make_unique<Queue<Sealed, 7, true>>();
    std::vector<uint64_t> refused;
    std::atomic<bool> ended{false};
    std::thread producer([&] {
        for (uint64_t number = 1; number <= ELEMENTS; ++number) {
            if (!queue->push(Sealed::make(number))) {
                refused.push_back(number);
                std::this_thread::yield();
            }
        }
        ended = true;
    });
    std::vector<uint64_t> taken;
    while (!ended || !queue->is_empty()) {
        const Sealed element = queue->pop(1000); // a short limit: the wait runs out amid the traffic
        if (element.number != 0) {
            ASSERT_TRUE(element.is_whole());
            taken.push_back(element.number);
        }
    }
    producer.join();

    std::vector<uint64_t> all;
    std::merge(taken.begin(), taken.end(), refused.begin(), refused.end(), std::back_inserter(all));
    ASSERT_EQ(all.size(), ELEMENTS);
    for (uint64_t number = 1; number <= ELEMENTS; ++number) {
        ASSERT_EQ(all[number - 1], number);
    }
    EXPECT_TRUE(std::is_sorted(taken.begin(), taken.end()));
}

/// Plain fields behind the pointer: the thread sanitizer sees an index that is stored without publishing them.
struct Parcel : ReferenceCountable {
    explicit Parcel(uint64_t first) : sealed(Sealed::make(first)) { ++alive; }
    ~Parcel() override { --alive; }

    Sealed sealed;
    static inline std::atomic<int> alive{0};
};

TEST(QueueTest, shared_objects_pass_between_threads_with_their_content_and_end_with_their_last_owner) {
    constexpr uint64_t ELEMENTS = 60'000;
    std::random_device source;
    const auto seed = source();
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    uint64_t passed = 0;
    uint64_t sum = 0;
    uint64_t expected_sum = 0;
    {
        const auto queue = std::make_unique<Queue<rc_ptr<Parcel>, 64, true>>();
        std::atomic<uint64_t> pushed_sum{0};
        std::thread producer([&] {
            std::mt19937 random(seed);
            uint64_t total = 0;
            for (uint64_t number = 1; number <= ELEMENTS; ++number) {
                const rc_ptr<Parcel> parcel(new Parcel(number * 3 + random() % 3));
                total += parcel->sealed.seal;
                while (!queue->push(parcel)) {
                    std::this_thread::yield();
                }
            }
            pushed_sum = total;
        });
        while (passed < ELEMENTS) {
            const rc_ptr<Parcel> parcel = queue->pop(NS_PER_MS);
            if (parcel) {
                ASSERT_TRUE(parcel->sealed.is_whole());
                ++passed;
                ASSERT_EQ(parcel->sealed.number / 3, passed);
                sum += parcel->sealed.seal;
                parcel->sealed = Sealed(); // the consumer is the only user by now
            }
        }
        producer.join();
        expected_sum = pushed_sum;
    }
    EXPECT_EQ(sum, expected_sum);
    EXPECT_EQ(Parcel::alive, 0);
}

TEST(QueueTest, a_consumer_without_a_limit_misses_no_element_of_a_producer_that_pauses) {
    constexpr int ELEMENTS = 300;
    Queue<int, 4, true> queue;
    std::atomic<int> id{0};
    std::vector<int> taken;
    std::thread consumer([&] {
        id = current_thread_id();
        for (int count = 0; count < ELEMENTS; ++count) {
            taken.push_back(queue.pop());
        }
    });
    EXPECT_TRUE(wait_until([&] { return id != 0; }));
    for (int element = 0; element < ELEMENTS; ++element) {
        // A push that crosses the falling asleep is missed by design; this one comes when the sleep is deep.
        EXPECT_TRUE(wait_until_asleep(id));
        EXPECT_TRUE(queue.push(element));
        EXPECT_TRUE(wait_until([&] { return queue.size() == 0; }));
    }
    consumer.join();
    for (int element = 0; element < ELEMENTS; ++element) {
        ASSERT_EQ(taken[static_cast<std::size_t>(element)], element);
    }
}

} // namespace
