// thread: base of an object that owns one thread.
//
// Threads    start and stop: the owner's thread, one at a time. run: the new thread. is_running: any thread.
// Ownership  the object must outlive its thread: call stop before the derived class is destroyed.
// Errors     the error numbers of pthread_create and pthread_join.
#pragma once

#include <pthread.h>

#include <atomic>

namespace corvalin {

class Thread {
public:
    Thread() noexcept = default;
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;
    virtual ~Thread() = default;

    /// The body of the thread. It should return soon after is_running has become false.
    virtual void run() = 0;
    /// Starts the thread. Returns 0, or the error number of pthread_create; the object counts as running in
    /// either case, so that stop tells of the thread that never was.
    virtual int start();
    /// Asks the thread to end and waits for it. Returns 0, or an error number: ESRCH if there is no thread to
    /// join.
    virtual int stop();

protected:
    bool is_running() const noexcept { return m_running.load(std::memory_order_acquire); }

private:
    static void* thread_func(void* self);

    pthread_t m_thread{};
    // Written by the owner. The release store of a start or stop publishes what the owner did before it.
    std::atomic<bool> m_running{false};
    // Owner only. True while m_thread names a thread that has to be joined: joining any other handle is
    // undefined.
    bool m_joinable = false;
};

/// The kernel's id of the calling thread, as it stands in log lines.
int current_thread_id() noexcept;

} // namespace corvalin
