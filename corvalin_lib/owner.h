// owner: an owning pointer that other threads look at while it is set and reset.
//
// Threads    reset: the owner's thread. get, ->, bool: any thread.
// Ownership  the object is deleted by reset and by the destructor.
// Ordering   release on storing, acquire on looking: who sees the pointer sees the object behind it as it was
//            built. It does not keep the object alive: whoever may look before it is stored, or after it is
//            taken away, is told apart by the user of this class. A null pointer is not guarded against;
//            using it faults.
#pragma once

#include <atomic>
#include <memory>

namespace corvalin {

template <class T>
class Owner {
public:
    Owner() noexcept = default;
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;
    /// Others go on seeing the object while it is deleted: it may have threads that come in through this pointer until
    /// its destructor has joined them.
    ~Owner() { delete get(); }

    /// Deletes the old object, then stores the new one. Others see null, and not the old object, while it is deleted.
    void reset(std::unique_ptr<T> object = nullptr) {
        delete m_object.exchange(nullptr, std::memory_order_acq_rel);
        m_object.store(object.release(), std::memory_order_release);
    }

    T* get() const noexcept { return m_object.load(std::memory_order_acquire); }
    T* operator->() const noexcept { return get(); }
    explicit operator bool() const noexcept { return get() != nullptr; }

private:
    std::atomic<T*> m_object{nullptr};
};

} // namespace corvalin
