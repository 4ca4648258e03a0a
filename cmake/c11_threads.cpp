// c11_threads: the threads of C11 by those of POSIX, for builds with ThreadSanitizer.
//
// Debian's librdkafka makes its threads by thrd_create and locks by mtx_lock. The sanitizer's runtime knows the calls of
// POSIX only: a thread that it has not seen begin has no state there, and ends in a fault at its first instrumented
// access. Linked into an executable, these take the place of the C library's. The types may be handed through: each of
// them is the C library's POSIX type under another name, and the results are translated.
#include <pthread.h>
#include <threads.h>

#include <cerrno>
#include <cstdint>
#include <memory>

static_assert(sizeof(thrd_t) == sizeof(pthread_t));
static_assert(sizeof(mtx_t) >= sizeof(pthread_mutex_t));
static_assert(sizeof(cnd_t) >= sizeof(pthread_cond_t));
static_assert(sizeof(once_flag) == sizeof(pthread_once_t));

namespace {

struct Start {
    thrd_start_t function;
    void* argument;
};

void* run(void* start) {
    const std::unique_ptr<Start> owned(static_cast<Start*>(start));
    return reinterpret_cast<void*>(static_cast<intptr_t>(owned->function(owned->argument)));
}

int c11_result(int error) {
    switch (error) {
    case 0:
        return thrd_success;
    case EBUSY:
        return thrd_busy;
    case ETIMEDOUT:
        return thrd_timedout;
    case ENOMEM:
        return thrd_nomem;
    default:
        return thrd_error;
    }
}

pthread_mutex_t* posix(mtx_t* mutex) {
    return reinterpret_cast<pthread_mutex_t*>(mutex);
}

pthread_cond_t* posix(cnd_t* condition) {
    return reinterpret_cast<pthread_cond_t*>(condition);
}

} // namespace

extern "C" {

int thrd_create(thrd_t* thread, thrd_start_t function, void* argument) {
    auto start = std::make_unique<Start>(Start{function, argument});
    const int error = pthread_create(thread, nullptr, &run, start.get());
    if (error == 0) {
        start.release(); // the new thread's
    }
    return c11_result(error);
}

thrd_t thrd_current() {
    return pthread_self();
}

int thrd_join(thrd_t thread, int* result) {
    void* value = nullptr;
    const int error = pthread_join(thread, &value);
    if (result != nullptr) {
        *result = static_cast<int>(reinterpret_cast<intptr_t>(value));
    }
    return c11_result(error);
}

void call_once(once_flag* flag, void (*function)()) {
    pthread_once(reinterpret_cast<pthread_once_t*>(flag), function);
}

int mtx_init(mtx_t* mutex, int type) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes,
                              (type & mtx_recursive) != 0 ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_NORMAL);
    const int error = pthread_mutex_init(posix(mutex), &attributes);
    pthread_mutexattr_destroy(&attributes);
    return c11_result(error);
}

int mtx_lock(mtx_t* mutex) {
    return c11_result(pthread_mutex_lock(posix(mutex)));
}

int mtx_trylock(mtx_t* mutex) {
    return c11_result(pthread_mutex_trylock(posix(mutex)));
}

int mtx_unlock(mtx_t* mutex) {
    return c11_result(pthread_mutex_unlock(posix(mutex)));
}

void mtx_destroy(mtx_t* mutex) {
    pthread_mutex_destroy(posix(mutex));
}

int cnd_init(cnd_t* condition) {
    return c11_result(pthread_cond_init(posix(condition), nullptr));
}

int cnd_signal(cnd_t* condition) {
    return c11_result(pthread_cond_signal(posix(condition)));
}

int cnd_broadcast(cnd_t* condition) {
    return c11_result(pthread_cond_broadcast(posix(condition)));
}

int cnd_wait(cnd_t* condition, mtx_t* mutex) {
    return c11_result(pthread_cond_wait(posix(condition), posix(mutex)));
}

int cnd_timedwait(cnd_t* condition, mtx_t* mutex, const timespec* deadline) {
    return c11_result(pthread_cond_timedwait(posix(condition), posix(mutex), deadline));
}

void cnd_destroy(cnd_t* condition) {
    pthread_cond_destroy(posix(condition));
}

} // extern "C"
