#include "corvalin_lib/reference_countable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <barrier>
#include <functional>
#include <memory>
#include <numeric>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/support/captured_log.h"

namespace {

using corvalin::rc_ptr;
using corvalin::ReferenceCountable;
using corvalin::test::CapturedLog;
using ::testing::ElementsAre;

constexpr const char* NEGATIVE_COUNT = "ERROR reference_countable: RC_PTR: possibly a memory leak: "
                                       "impossible to release pointer with negative reference count";

/// Tells of its end.
struct Counted : ReferenceCountable {
    explicit Counted(int& destroyed_times) : destroyed(destroyed_times) {}
    ~Counted() override {
        ++destroyed;
        if (on_end) {
            on_end();
        }
    }

    int& destroyed;
    std::function<void()> on_end;
};

/// Lies in the test's own memory: its deleting destructor tells, and frees nothing.
struct Placed : ReferenceCountable {
    static void operator delete(void*) { ++deleted; }
    static inline int deleted = 0;
};

class ReferenceCountableTest : public ::testing::Test {
protected:
    int m_destroyed = 0;
};

TEST_F(ReferenceCountableTest, an_object_starts_with_a_count_of_zero_and_gets_one_from_its_first_pointer) {
    auto* const object = new Counted(m_destroyed);
    EXPECT_EQ(object->reference_count(), 0);
    const rc_ptr<Counted> pointer(object);
    EXPECT_EQ(object->reference_count(), 1);
    EXPECT_EQ(pointer.get(), object);
    EXPECT_EQ(&*pointer, object);
}

TEST_F(ReferenceCountableTest, an_object_that_no_pointer_took_is_never_freed) {
    auto* const object = new Counted(m_destroyed);
    EXPECT_EQ(m_destroyed, 0);
    delete object;
    EXPECT_EQ(m_destroyed, 1);
}

TEST_F(ReferenceCountableTest, a_default_pointer_is_null_and_so_are_its_copies) {
    const rc_ptr<Counted> pointer;
    const rc_ptr<Counted> copy(pointer);
    rc_ptr<Counted> assigned(new Counted(m_destroyed));
    assigned = copy;
    EXPECT_EQ(pointer.get(), nullptr);
    EXPECT_FALSE(static_cast<bool>(copy));
    EXPECT_EQ(assigned.get(), nullptr);
    EXPECT_EQ(m_destroyed, 1);
}

TEST_F(ReferenceCountableTest, copies_add_one_and_their_ends_take_one_away) {
    const rc_ptr<Counted> first(new Counted(m_destroyed));
    {
        const rc_ptr<Counted> second(first);
        EXPECT_EQ(first->reference_count(), 2);
        rc_ptr<Counted> third;
        third = second;
        EXPECT_EQ(first->reference_count(), 3);
        third = nullptr;
        EXPECT_EQ(first->reference_count(), 2);
    }
    EXPECT_EQ(first->reference_count(), 1);
    EXPECT_EQ(m_destroyed, 0);
}

TEST_F(ReferenceCountableTest, the_last_release_destroys_the_object_once) {
    {
        const rc_ptr<Counted> first(new Counted(m_destroyed));
        const rc_ptr<Counted> second(first);
        EXPECT_EQ(m_destroyed, 0);
    }
    EXPECT_EQ(m_destroyed, 1);
}

TEST_F(ReferenceCountableTest, the_last_release_calls_the_deleting_destructor_of_the_objects_own_class) {
    alignas(Placed) std::array<unsigned char, sizeof(Placed)> place{};
    Placed::deleted = 0;
    { const rc_ptr<ReferenceCountable> pointer(::new (place.data()) Placed); }
    EXPECT_EQ(Placed::deleted, 1);
}

TEST_F(ReferenceCountableTest, assigning_releases_the_old_object_before_it_takes_the_new_one) {
    struct Case {
        const char* description;
        std::function<void(rc_ptr<Counted>&, Counted*)> assign;
    };
    const rc_ptr<Counted> kept(new Counted(m_destroyed));
    const std::array<Case, 2> cases = {{
        {"from a raw pointer", [](rc_ptr<Counted>& to, Counted* from) { to = from; }},
        {"from another pointer", [&kept](rc_ptr<Counted>& to, Counted* /*from*/) { to = kept; }},
    }};
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        int old_destroyed = 0;
        auto* const old_object = new Counted(old_destroyed);
        rc_ptr<Counted> pointer(old_object);
        int count_seen = -1;
        const Counted* pointer_seen = nullptr;
        old_object->on_end = [&] {
            count_seen = kept->reference_count();
            pointer_seen = pointer.get();
        };
        row.assign(pointer, kept.get());
        EXPECT_EQ(old_destroyed, 1);
        EXPECT_EQ(count_seen, 1) << "the new object was counted before the old one was released";
        EXPECT_EQ(pointer_seen, old_object)
            << "the new pointer was stored before the old object was released";
        EXPECT_EQ(pointer.get(), kept.get());
        EXPECT_EQ(kept->reference_count(), 2);
    }
}

// Counting an object that was just destroyed is what a sanitizer is there to stop, so this is for the other builds.
#ifndef __SANITIZE_ADDRESS__
TEST_F(ReferenceCountableTest, the_only_owner_assigned_to_itself_destroys_its_object) {
    alignas(Placed) std::array<unsigned char, sizeof(Placed)> place{};
    Placed::deleted = 0;
    rc_ptr<ReferenceCountable> pointer(::new (place.data()) Placed);
    rc_ptr<ReferenceCountable>& same = pointer;

    pointer = same;

    EXPECT_EQ(Placed::deleted, 1);
    pointer.detach(); // what it points at is no more
}
#endif

TEST_F(ReferenceCountableTest, one_of_two_owners_may_be_assigned_to_itself) {
    rc_ptr<Counted> first(new Counted(m_destroyed));
    const rc_ptr<Counted> second(first);
    rc_ptr<Counted>& same = first;
    first = same;
    EXPECT_EQ(m_destroyed, 0);
    EXPECT_EQ(second->reference_count(), 2);
}

TEST_F(ReferenceCountableTest, a_move_leaves_the_count_alone_and_the_source_null) {
    rc_ptr<Counted> source(new Counted(m_destroyed));
    const Counted* const object = source.get();

    rc_ptr<Counted> moved(std::move(source));
    EXPECT_EQ(source.get(), nullptr); // NOLINT(bugprone-use-after-move): the state after a move is promised
    EXPECT_EQ(moved->reference_count(), 1);

    int other_destroyed = 0;
    rc_ptr<Counted> assigned(new Counted(other_destroyed));
    assigned = std::move(moved);
    EXPECT_EQ(other_destroyed, 1);
    EXPECT_EQ(moved.get(), nullptr); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(assigned.get(), object);
    EXPECT_EQ(assigned->reference_count(), 1);

    const rc_ptr<ReferenceCountable> to_base(std::move(assigned));
    EXPECT_EQ(to_base.get(), object);
    EXPECT_EQ(to_base->reference_count(), 1);
    EXPECT_EQ(m_destroyed, 0);
}

TEST_F(ReferenceCountableTest, a_pointer_to_the_base_shares_the_object_of_a_derived_one) {
    const rc_ptr<Counted> derived(new Counted(m_destroyed));
    {
        const rc_ptr<ReferenceCountable> base(derived);
        EXPECT_EQ(derived->reference_count(), 2);
    }
    EXPECT_EQ(derived->reference_count(), 1);
}

TEST_F(ReferenceCountableTest, a_detached_object_keeps_its_count_for_the_new_owner) {
    rc_ptr<Counted> pointer(new Counted(m_destroyed));
    Counted* const object = pointer.detach();
    EXPECT_EQ(pointer.get(), nullptr);
    EXPECT_EQ(object->reference_count(), 1);
    object->release_reference();
    EXPECT_EQ(m_destroyed, 1);
}

TEST_F(ReferenceCountableTest, a_release_below_zero_leaves_the_object_alone_and_reports_it_each_time) {
    const CapturedLog captured;
    {
        const auto object = std::make_unique<Counted>(m_destroyed);
        object->release_reference();
        EXPECT_EQ(object->reference_count(), -1);
        object->release_reference();
        EXPECT_EQ(object->reference_count(), -2);
        EXPECT_EQ(m_destroyed, 0);
    }
    EXPECT_THAT(captured.records(), ElementsAre(NEGATIVE_COUNT, NEGATIVE_COUNT));
}

TEST_F(ReferenceCountableTest, releases_down_to_zero_report_nothing) {
    const CapturedLog captured;
    {
        const rc_ptr<Counted> first(new Counted(m_destroyed));
        const rc_ptr<Counted> second(first);
    }
    EXPECT_EQ(m_destroyed, 1);
    EXPECT_TRUE(captured.texts().empty());
}

TEST_F(ReferenceCountableTest, pointer_and_object_are_no_larger_than_a_table_pointer_and_their_field) {
    EXPECT_TRUE(std::has_virtual_destructor_v<ReferenceCountable>);
    EXPECT_TRUE(std::has_virtual_destructor_v<rc_ptr<Counted>>);
    EXPECT_EQ(sizeof(ReferenceCountable), 16u);
    EXPECT_EQ(sizeof(rc_ptr<Counted>), 16u);
}

// ---- Several threads

constexpr int THREADS = 4;

TEST_F(ReferenceCountableTest, copies_and_releases_of_several_threads_are_all_counted) {
    // Phases that begin together keep the threads from running one after the other.
    constexpr int PHASES = 100;
    constexpr int ROUNDS = 15'000;
    const rc_ptr<Counted> shared(new Counted(m_destroyed));
    std::vector<std::vector<rc_ptr<Counted>>> kept(THREADS);
    std::barrier<> phase_begins(THREADS);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < THREADS; ++thread) {
        threads.emplace_back([&, &mine = kept[static_cast<std::size_t>(thread)]] {
            for (int phase = 0; phase < PHASES; ++phase) {
                phase_begins.arrive_and_wait();
                for (int round = 0; round < ROUNDS; ++round) {
                    const rc_ptr<Counted> copy(shared);
                }
                mine.push_back(shared);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(shared->reference_count(), 1 + THREADS * PHASES);
    kept.clear();
    EXPECT_EQ(shared->reference_count(), 1);
    EXPECT_EQ(m_destroyed, 0);
}

/// Each thread writes its own field without a lock before it lets go, and the destructor reads them all.
struct Ledger : ReferenceCountable {
    Ledger(std::atomic<int>& destroyed_times, std::atomic<int>& total_sum)
        : destroyed(destroyed_times), total(total_sum) {}
    ~Ledger() override {
        total += std::accumulate(entries.begin(), entries.end(), 0);
        ++destroyed;
    }

    std::array<int, THREADS> entries{};
    std::atomic<int>& destroyed;
    std::atomic<int>& total;
};

TEST_F(ReferenceCountableTest, threads_that_let_go_at_once_destroy_once_and_after_all_they_have_written) {
    constexpr int ROUNDS = 2'000;
    constexpr std::array<int, THREADS> DIGITS = {1, 10, 100, 1000};
    std::atomic<int> destroyed{0};
    std::atomic<int> total{0};
    std::array<rc_ptr<Ledger>, THREADS> owners;
    const auto refill = [&]() noexcept {
        const rc_ptr<Ledger> ledger(new Ledger(destroyed, total));
        owners.fill(ledger);
    };
    std::barrier<decltype(refill)> round_begins(THREADS, refill);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < THREADS; ++thread) {
        threads.emplace_back([&, index = static_cast<std::size_t>(thread)] {
            for (int round = 0; round < ROUNDS; ++round) {
                round_begins.arrive_and_wait();
                owners[index]->entries[index] = DIGITS[index];
                owners[index] = nullptr;
            }
            round_begins.arrive_and_drop();
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    owners.fill(nullptr); // what the last arrivals have filled in
    // The last completion of the barrier makes one more ledger, which nobody writes to.
    EXPECT_EQ(destroyed, ROUNDS + 1);
    EXPECT_EQ(total, ROUNDS * 1111);
}

} // namespace
