// owner: an owning pointer that other threads look at while it is set and reset.
//
// Threads    reset: the owner's thread. get, ->, bool: any thread.
// Ownership  the object is deleted by reset and by the destructor.
// Ordering   relaxed: whoever may see the object before `reset` has returned, or after it, is told apart by the user of
//            this class, not by a fence. A null pointer is not guarded against; using it faults.
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
    ~Owner() { reset(); }

    /// Deletes the old object, then stores the new one. Others see null, and not the old object, while it is deleted.
    void reset(std::unique_ptr<T> object = nullptr) {
        delete m_object.exchange(nullptr, std::memory_order_relaxed);
        m_object.store(object.release(), std::memory_order_relaxed);
    }

    T* get() const noexcept { return m_object.load(std::memory_order_relaxed); }
    T* operator->() const noexcept { return get(); }
    explicit operator bool() const noexcept { return get() != nullptr; }

private:
    std::atomic<T*> m_object{nullptr};
};

} // namespace corvalin
