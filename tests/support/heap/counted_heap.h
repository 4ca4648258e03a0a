// counted_heap: the heap of a test program that counts what is taken from it, and refuses on demand.
//
// The source replaces every form of the global operator new and delete, so it belongs to a program of its own
// and to no library.
//
// Threads    counting: all threads together. Refusing: the thread that asked for it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace corvalin::test {

/// Calls of any form of operator new in the process so far.
uint64_t allocations();

/// The largest allocation before `note_main` was called.
std::size_t largest_allocation_before_main();
/// First thing in main.
void note_main();

/// Makes exactly one allocation of this thread throw std::bad_alloc: the one behind `good_allocations` others.
class RefusedAllocation {
public:
    explicit RefusedAllocation(uint64_t good_allocations);
    /// Only allocations of this size count.
    RefusedAllocation(uint64_t good_allocations, std::size_t size);
    ~RefusedAllocation();
    RefusedAllocation(const RefusedAllocation&) = delete;
    RefusedAllocation& operator=(const RefusedAllocation&) = delete;

    /// Whether it has come to that.
    static bool happened();
};

} // namespace corvalin::test
