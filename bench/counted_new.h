// counted_new: how often and how much this program takes from the heap.
//
// A program that links counted_new.cpp has an operator new that counts. All forms of it end there: arrays,
// aligned types and the nothrow ones.
//
// Threads    any thread may allocate and read. Numbers of several threads are exact once those are at rest.
#pragma once

#include <cstdint>

namespace corvalin::bench {

/// Calls of operator new since the program began.
uint64_t new_calls() noexcept;

/// Heap bytes that operator new has handed out and not taken back, as the heap sees them: each object with
/// the rounding and the header of its chunk.
int64_t bytes_in_use() noexcept;

} // namespace corvalin::bench
