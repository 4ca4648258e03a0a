#include "tests/faults/faults.h"

#include <atomic>
#include <cerrno>
#include <utility>

namespace {

using corvalin::test::FakeSleep;
using corvalin::test::LockScript;

// Plain: whatever needs a constructor might allocate, and would do so within the first call that is led here.
thread_local LockScript* lock_script = nullptr; // borrowed

std::atomic<FakeSleep*> fake_sleep{nullptr}; // borrowed

} // namespace

// NOLINTBEGIN(readability-identifier-naming): the linker makes these names of the wrapped calls
extern "C" {
int __real_nanosleep(const timespec* wanted, timespec* left);
int __real_pthread_rwlock_rdlock(pthread_rwlock_t* lock);
int __real_pthread_rwlock_wrlock(pthread_rwlock_t* lock);
int __real_pthread_rwlock_unlock(pthread_rwlock_t* lock);
int __real_pthread_mutex_lock(pthread_mutex_t* lock);

int __wrap_nanosleep(const timespec* wanted, timespec* left) {
    FakeSleep* const sleep = fake_sleep.load(std::memory_order_acquire);
    return sleep != nullptr ? sleep->sleep(wanted, left) : __real_nanosleep(wanted, left);
}

int __wrap_pthread_rwlock_rdlock(pthread_rwlock_t* lock) {
    if (lock_script == nullptr) {
        return __real_pthread_rwlock_rdlock(lock);
    }
    return lock_script->take("read", lock, [lock] { return __real_pthread_rwlock_rdlock(lock); });
}

int __wrap_pthread_rwlock_wrlock(pthread_rwlock_t* lock) {
    if (lock_script == nullptr) {
        return __real_pthread_rwlock_wrlock(lock);
    }
    return lock_script->take("write", lock, [lock] { return __real_pthread_rwlock_wrlock(lock); });
}

int __wrap_pthread_rwlock_unlock(pthread_rwlock_t* lock) {
    const int result = __real_pthread_rwlock_unlock(lock);
    if (lock_script != nullptr) {
        lock_script->record("unlock", lock, result);
    }
    return result;
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* lock) {
    const int result = __real_pthread_mutex_lock(lock);
    if (lock_script != nullptr) {
        lock_script->record("mutex", lock, result);
    }
    return result;
}
}
// NOLINTEND(readability-identifier-naming)

namespace corvalin::test {

FakeSleep::FakeSleep(std::deque<Answer> answers) : m_answers(std::move(answers)) {
    fake_sleep.store(this, std::memory_order_release);
}

FakeSleep::~FakeSleep() {
    fake_sleep.store(nullptr, std::memory_order_release);
}

void FakeSleep::wait_for_sleeper() {
    std::unique_lock<std::mutex> guard(m_lock);
    m_changed.wait(guard, [this] { return m_has_sleeper; });
}

void FakeSleep::release() {
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_is_released = true;
    }
    m_changed.notify_all();
}

std::vector<std::string> FakeSleep::wanted() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_wanted;
}

int FakeSleep::sleep(const timespec* wanted, timespec* left) {
    std::unique_lock<std::mutex> guard(m_lock);
    m_wanted.push_back(std::to_string(wanted->tv_sec) + " " + std::to_string(wanted->tv_nsec));
    if (!m_answers.empty()) {
        const Answer answer = m_answers.front();
        m_answers.pop_front();
        if (answer.error == EINTR && left != nullptr) {
            *left = answer.left;
        }
        errno = answer.error;
        return answer.error == 0 ? 0 : -1;
    }
    m_has_sleeper = true;
    m_changed.notify_all();
    m_changed.wait(guard, [this] { return m_is_released; });
    m_has_sleeper = false;
    return 0;
}

LockScript::LockScript(std::deque<int> results) : m_results(std::move(results)) {
    lock_script = this;
}

LockScript::~LockScript() {
    lock_script = nullptr;
}

std::string LockScript::text() const {
    std::string text;
    for (const Event& event : m_events) {
        text += (text.empty() ? "" : ", ") + event.call + " " + std::to_string(event.result);
    }
    return text;
}

template <class Call>
int LockScript::take(const char* call, const void* lock, const Call& real_call) {
    int result = 0;
    if (!m_results.empty()) {
        result = m_results.front();
        m_results.pop_front();
    }
    if (result == 0) {
        result = real_call();
    }
    record(call, lock, result);
    return result;
}

void LockScript::record(const char* call, const void* lock, int result) {
    m_events.push_back({call, lock, result});
}

} // namespace corvalin::test
