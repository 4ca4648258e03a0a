// queue_reader: a thread that takes elements from a ring and hands them to its own class.
//
// Threads    push: the producer thread. run and the on_ hooks: the reader thread. start, stop: the owner's
//            thread.
// Ownership  an element is passed on by value.
// Errors     a full ring refuses and counts the newest element.
#pragma once

#include "corvalin_lib/counter.h"
#include "corvalin_lib/queue.h"
#include "corvalin_lib/statistic_container.h"
#include "corvalin_lib/thread.h"

#include <utility>

namespace corvalin {

// The counters of one writing thread stand together, those of another begin a line of their own: one line
// written by two threads costs the ring 10 ns for each element.
struct QueueReaderStatistic {
    alignas(128) Counter elements;        // gauge, written by the reader
    alignas(128) Counter passed_elements; // written by the producer
    Counter dropped_elements;             // written by the producer
};

struct QueueIdleReaderStatistic : QueueReaderStatistic {
    alignas(128) Counter empty_hits; // written by the reader
    Counter idle_hits;               // written by the reader
};

/// Takes elements one by one and drains the ring before it ends. `Timeout` is the limit of a wait in
/// nanoseconds.
template <class T, uint64_t Capacity, uint64_t Timeout>
class QueueReader : public StatisticContainer<QueueReaderStatistic>, public Thread {
public:
    using StatisticContainer<QueueReaderStatistic>::StatisticContainer;

    /// Producer. Returns false if the ring is full; the element is then lost and counted.
    [[gnu::hot]] virtual bool push(T element) {
        if (!m_queue.push(std::move(element))) {
            statistic().dropped_elements.add(1);
            return false;
        }
        statistic().passed_elements.add(1);
        return true;
    }

    void run() override {
        while (is_running() || !m_queue.is_empty()) {
            on_queue_read(m_queue.pop(Timeout));
            store_elements();
        }
    }

    /// The next element, or T() when a wait has run out.
    virtual void on_queue_read(T element) = 0;

protected:
    void store_elements() { statistic().elements.set(m_queue.size()); }

    Queue<T, Capacity, true> m_queue;
};

/// Offers the quiet moments to housekeeping, and ends at once when it is stopped: what is left in the ring
/// then is not processed.
template <class T, uint64_t Capacity, uint64_t Timeout>
class QueueIdleReader : public QueueReader<T, Capacity, Timeout> {
public:
    /// `statistic` is borrowed and outlives the reader.
    explicit QueueIdleReader(QueueIdleReaderStatistic& statistic)
        : QueueReader<T, Capacity, Timeout>(&statistic) {}

    [[gnu::hot]] void run() override {
        do {
            run_round();
            this->store_elements();
        } while (this->is_running());
        this->store_elements();
    }

    /// The ring is empty. Returns true if housekeeping found work, and would like to go on.
    virtual bool on_queue_idle() = 0;
    /// Comes before each round.
    virtual void on_queue_try() = 0;

private:
    [[gnu::hot]] void run_round() {
        on_queue_try();
        if (!this->m_queue.is_empty()) {
            this->on_queue_read(this->m_queue.pop());
            return;
        }
        idle_statistic().empty_hits.add(1);
        if (on_queue_idle()) {
            idle_statistic().idle_hits.add(1);
            return;
        }
        this->on_queue_read(this->m_queue.pop(Timeout));
    }

    // The constructor took no other kind of block.
    QueueIdleReaderStatistic& idle_statistic() const noexcept {
        return static_cast<QueueIdleReaderStatistic&>(this->statistic());
    }
};

} // namespace corvalin
