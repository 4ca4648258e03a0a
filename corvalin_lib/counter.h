// counter: numbers and settings that one thread writes and any thread reads.
//
// Threads    one writer at a time, named at the field; any number of readers.
// Ordering   relaxed throughout: a reader wants some recent number and infers nothing else from it. On x86-64
//            every access is the plain move that a bare integer costs, while ThreadSanitizer sees no race.
//            `fetch_add` would be a locked instruction and is not needed, since there is one writer.
#pragma once

#include <atomic>
#include <cstdint>

namespace corvalin {

/// A single setting that is changed at start and stop and read by all threads in between.
template <class T>
class Shared {
public:
    constexpr Shared() noexcept = default;
    constexpr Shared(T value) noexcept
        : m_value(value) {} // implicit: a setting is initialised like a plain field
    Shared& operator=(T value) noexcept {
        m_value.store(value, std::memory_order_relaxed);
        return *this;
    }
    operator T() const noexcept { return m_value.load(std::memory_order_relaxed); }

    static_assert(std::atomic<T>::is_always_lock_free, "read in signal handlers and on the packet path");

private:
    std::atomic<T> m_value{};
};

/// An unsigned 64-bit event counter or gauge. Zero at construction.
class Counter {
public:
    /// Writing thread only.
    void add(uint64_t amount) noexcept { set(value() + amount); }
    /// Writing thread only.
    void set(uint64_t number) noexcept { m_number.store(number, std::memory_order_relaxed); }
    /// Any thread.
    uint64_t value() const noexcept { return m_number.load(std::memory_order_relaxed); }

private:
    std::atomic<uint64_t> m_number{0};
};

static_assert(sizeof(Counter) == sizeof(uint64_t));

} // namespace corvalin
