// faults: sleeps that end when a test says so, and locks that answer with an error.
//
// Threads    LockScript acts on the thread that made it, and on no other. FakeSleep acts on every thread of
//            the process.
// Ownership  each fault ends with its object. At most one object of a kind lives at a time.
#pragma once

#include <pthread.h>

#include <condition_variable>
#include <ctime>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace corvalin::test {

/// Takes the place of nanosleep.
class FakeSleep {
public:
    struct Answer {
        int error;     // 0: the sleep has run its time
        timespec left; // for EINTR
    };

    /// The first sleeps are answered at once. Those behind them last until `release`.
    explicit FakeSleep(std::deque<Answer> answers);
    ~FakeSleep();
    FakeSleep(const FakeSleep&) = delete;
    FakeSleep& operator=(const FakeSleep&) = delete;

    /// Waits until the answers are used up and a thread sleeps.
    void wait_for_sleeper();
    /// Ends that sleep and any later one.
    void release();
    /// What was asked for, as seconds and nanoseconds: "5 0".
    std::vector<std::string> wanted() const;

    int sleep(const timespec* wanted, timespec* left);

private:
    mutable std::mutex m_lock;
    std::condition_variable m_changed;
    std::deque<Answer> m_answers;      // guarded by m_lock
    std::vector<std::string> m_wanted; // guarded by m_lock
    bool m_has_sleeper = false;        // guarded by m_lock
    bool m_is_released = false;        // guarded by m_lock
};

/// Records what this thread does with locks, and gives answers in the place of the reader-writer lock.
class LockScript {
public:
    /// The next attempts to take a reader-writer lock get these results without touching the lock; 0 stands for the
    /// real call. Attempts behind them are real.
    explicit LockScript(std::deque<int> results = {});
    ~LockScript();
    LockScript(const LockScript&) = delete;
    LockScript& operator=(const LockScript&) = delete;

    struct Event {
        std::string call; // "read", "write", "unlock", "mutex"
        const void* lock;
        int result;
    };
    const std::vector<Event>& events() const { return m_events; }
    /// The calls and their results as one text: "read 11, read 0, unlock 0".
    std::string text() const;

    template <class Call>
    int take(const char* call, const void* lock, const Call& real_call);
    void record(const char* call, const void* lock, int result);

private:
    std::deque<int> m_results;
    std::vector<Event> m_events;
};

} // namespace corvalin::test
