// queue: a ring between one producer thread and one consumer thread.
//
// Threads    push: the producer. pop, peek, is_empty: the consumer. size: either of them.
// Ownership  an element belongs to the ring from push to pop. What is left goes with the ring.
// Errors     a full ring refuses the newest element. It never blocks the producer.
//
// The indexes count elements ever pushed and ever taken and never wrap back, so that full and empty differ.
// No lock and no locked instruction is on the fast path: each index has one writer, whose release store
// publishes the slot that it has just filled or emptied, and the other side's acquire load sees that slot.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cassert>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <memory>
#include <utility>

namespace corvalin {

/// `SingleProducer` has only the form `true`.
template <class T, uint64_t Capacity, bool SingleProducer>
class Queue;

template <class T, uint64_t Capacity>
class Queue<T, Capacity, true> {
public:
    Queue() : m_ring(std::make_unique<T[]>(Capacity)) {
        pthread_condattr_init(&m_clock_attribute);
        pthread_condattr_setclock(&m_clock_attribute, CLOCK_MONOTONIC);
        pthread_cond_init(&m_not_empty, &m_clock_attribute);
    }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;
    virtual ~Queue() {
        pthread_cond_destroy(&m_not_empty);
        pthread_condattr_destroy(&m_clock_attribute);
        pthread_mutex_destroy(&m_mutex);
    }

    /// Producer. Returns false, and leaves the element to its caller's destructor, if the ring is full.
    bool push(T element) {
        const uint64_t write_index = m_write_index.load(std::memory_order_relaxed);
        if (write_index - m_read_index.load(std::memory_order_acquire) == Capacity) {
            return false;
        }
        m_ring[write_index % Capacity] = std::move(element);
        m_write_index.store(write_index + 1, std::memory_order_release); // publishes the filled slot
        // Relaxed: when this look and the consumer's setting of the flag cross, the consumer sleeps with an
        // element in the ring until its wait ends. A fence would close that gap at the price of one per
        // element.
        if (m_reader_sleeps.load(std::memory_order_relaxed)) {
            wake_reader();
        }
        return true;
    }

    /// Consumer. Waits without a limit for an element.
    T pop() {
        if (is_empty()) {
            sleep([this] { return pthread_cond_wait(&m_not_empty, &m_mutex); });
        }
        return take();
    }

    /// Consumer. Waits at most `timeout_ns` for an element; without one the result is T().
    T pop(uint64_t timeout_ns) {
        if (!is_empty()) {
            return take();
        }
        return wait_until(monotonic_time_in(timeout_ns)) ? take() : T();
    }

    /// Consumer. The element `distance` places behind the next one, which stays where it is. `distance` must be below
    /// a size that the consumer has seen since its last pop.
    const T& peek(uint64_t distance) const noexcept {
        return m_ring[(m_read_index.load(std::memory_order_relaxed) + distance) % Capacity];
    }

    /// Consumer.
    bool is_empty() const noexcept { return size() == 0; }

    /// Producer or consumer. Elements in the ring; the other side may be changing it meanwhile.
    uint64_t size() const noexcept {
        // The consumer's own index first: it never passes the producer's, so the difference is never
        // negative.
        const uint64_t read_index = m_read_index.load(std::memory_order_acquire);
        return m_write_index.load(std::memory_order_acquire) - read_index;
    }

private:
    static timespec monotonic_time_in(uint64_t timeout_ns) noexcept {
        constexpr uint64_t NS_PER_S = 1'000'000'000;
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        const uint64_t nanoseconds = static_cast<uint64_t>(now.tv_nsec) + timeout_ns;
        now.tv_sec += static_cast<time_t>(nanoseconds / NS_PER_S);
        now.tv_nsec = static_cast<long>(nanoseconds % NS_PER_S);
        return now;
    }

    // Consumer. True if the ring has an element and the last wait did not run out. An element that arrives at
    // the very moment of the timeout stays for the next round.
    bool wait_until(const timespec& deadline) {
        return sleep([&] { return pthread_cond_timedwait(&m_not_empty, &m_mutex, &deadline); }) == 0;
    }

    // Consumer. Until there is an element or `wait` fails; returns the result of the last `wait`, 0 without one.
    template <class Wait>
    int sleep(Wait wait) {
        int result = 0;
        lock();
        do {
            m_reader_sleeps.store(true, std::memory_order_relaxed); // for each wait: see wake_reader
            if (!is_empty()) {
                break;
            }
            result = wait();
        } while (result == 0 && is_empty());
        m_reader_sleeps.store(false, std::memory_order_relaxed);
        unlock();
        return result;
    }

    // Consumer. The slot is empty before its index is given back, so a buffer lives no longer than needed.
    T take() {
        const uint64_t read_index = m_read_index.load(std::memory_order_relaxed);
        T element = std::exchange(m_ring[read_index % Capacity], T());
        m_read_index.store(read_index + 1, std::memory_order_release); // publishes the emptied slot
        return element;
    }

    // Producer. Takes the mark away, so that the consumer is woken once and not by each element that arrives until it runs:
    // on a machine at rest a whole burst does. It may take that of a later sleep than it has seen; the consumer then wakes
    // without an element, and marks itself anew.
    void wake_reader() {
        lock();
        m_reader_sleeps.store(false, std::memory_order_relaxed);
        pthread_cond_broadcast(&m_not_empty);
        unlock();
    }

    void lock() { pthread_mutex_lock(&m_mutex); }
    void unlock() { pthread_mutex_unlock(&m_mutex); }

    // 128 bytes apart: the hardware fetches lines in pairs, and the two threads must not share one through
    // these.
    alignas(128) std::unique_ptr<T[]> m_ring;                         // set at construction
    alignas(128) std::atomic<uint64_t> m_write_index{0};              // written by the producer
    alignas(128) std::atomic<uint64_t> m_read_index{0};               // written by the consumer
    alignas(128) std::atomic<bool> m_reader_sleeps{false};            // written under m_mutex
    alignas(128) pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER; // the wait only, never the fast path
    pthread_cond_t m_not_empty;
    pthread_condattr_t m_clock_attribute; // waits are measured on CLOCK_MONOTONIC
};

} // namespace corvalin
