#include "corvalin_lib/thread.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace corvalin {

int Thread::start() {
    m_running.store(true, std::memory_order_release);
    const int error = pthread_create(&m_thread, nullptr, &Thread::thread_func, this);
    m_joinable = error == 0;
    return error;
}

int Thread::stop() {
    m_running.store(false, std::memory_order_release);
    if (!m_joinable) {
        return ESRCH;
    }
    m_joinable = false;
    return pthread_join(m_thread, nullptr);
}

void* Thread::thread_func(void* self) {
    static_cast<Thread*>(self)->run();
    return nullptr;
}

int current_thread_id() noexcept {
    return static_cast<int>(syscall(SYS_gettid));
}

} // namespace corvalin
