#include "tests/support/heap/counted_heap.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

namespace {

using corvalin::test::allocations;
using corvalin::test::RefusedAllocation;

struct alignas(128) Aligned {
    std::array<char, 128> bytes;
};

// A compiler may leave out a pair of new and delete, but not one whose pointer it has lost sight of.
const void* volatile lost_sight_of;

void keep(const void* pointer) {
    lost_sight_of = pointer;
}

TEST(CountedHeapTest, every_form_of_allocation_is_counted_once) {
    const uint64_t before = allocations();
    auto* const one = new int;
    keep(one);
    EXPECT_EQ(allocations() - before, 1u);
    auto* const several = new int[5];
    keep(several);
    EXPECT_EQ(allocations() - before, 2u);
    auto* const silent = new (std::nothrow) int;
    keep(silent);
    EXPECT_EQ(allocations() - before, 3u);
    auto* const silent_several = new (std::nothrow) int[5];
    keep(silent_several);
    EXPECT_EQ(allocations() - before, 4u);
    auto* const aligned = new Aligned;
    keep(aligned);
    EXPECT_EQ(allocations() - before, 5u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(aligned) % 128, 0u);
    auto* const aligned_several = new Aligned[2];
    keep(aligned_several);
    EXPECT_EQ(allocations() - before, 6u);
    auto* const aligned_silent = new (std::nothrow) Aligned;
    keep(aligned_silent);
    EXPECT_EQ(allocations() - before, 7u);
    auto* const aligned_silent_several = new (std::nothrow) Aligned[2];
    keep(aligned_silent_several);
    EXPECT_EQ(allocations() - before, 8u);
    delete one;
    delete[] several;
    delete silent;
    delete[] silent_several;
    delete aligned;
    delete[] aligned_several;
    delete aligned_silent;
    delete[] aligned_silent_several;
    EXPECT_EQ(allocations() - before, 8u) << "a release is no allocation";
}

TEST(CountedHeapTest, allocations_within_the_library_and_of_other_threads_are_counted) {
    const uint64_t before = allocations();
    std::string text(100, 'x');
    keep(&text);
    EXPECT_EQ(allocations() - before, 1u);
    uint64_t of_thread = 0;
    std::thread([&of_thread] {
        const uint64_t begin = allocations();
        const std::vector<int> numbers(10);
        keep(&numbers);
        of_thread = allocations() - begin;
    }).join();
    EXPECT_EQ(of_thread, 1u);
    EXPECT_GE(allocations() - before, 2u);
}

TEST(CountedHeapTest, one_allocation_is_refused_and_those_around_it_are_not) {
    const RefusedAllocation refused(1);
    keep(std::make_unique<int>().get());
    EXPECT_FALSE(RefusedAllocation::happened());
    EXPECT_THROW(keep(std::make_unique<int>().get()), std::bad_alloc);
    EXPECT_TRUE(RefusedAllocation::happened());
    EXPECT_NO_THROW(keep(std::make_unique<int>().get()));
}

TEST(CountedHeapTest, an_allocation_is_refused_by_its_size) {
    const RefusedAllocation refused(0, 4321);
    EXPECT_NO_THROW(keep(std::make_unique<std::array<char, 4320>>().get()));
    EXPECT_NO_THROW(keep(std::make_unique<std::array<char, 4322>>().get()));
    EXPECT_THROW(keep(std::make_unique<std::array<char, 4321>>().get()), std::bad_alloc);
}

TEST(CountedHeapTest, a_refusal_that_has_not_come_ends_with_its_object) {
    { const RefusedAllocation refused(0, 4321); }
    EXPECT_NO_THROW(keep(std::make_unique<std::array<char, 4321>>().get()));
}

} // namespace
