// reference_countable: objects shared by an intrusive count, and the pointer that counts.
//
// Threads    the count may be changed by any thread at any time. The object itself is as safe as its own
//            class says.
// Ownership  an object starts with a count of 0 and belongs to nobody. The first rc_ptr that takes it makes
//            the count 1; the rc_ptr that brings it back to 0 destroys it by its deleting destructor. An
//            object that no rc_ptr ever took is never freed.
// Cost       each copy and each release is a locked instruction. A move costs none: pass by reference, or by
//            value and move, where the object only changes hands.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

namespace corvalin {

class ReferenceCountable {
public:
    ReferenceCountable() noexcept = default;
    ReferenceCountable(const ReferenceCountable&) = delete;
    ReferenceCountable& operator=(const ReferenceCountable&) = delete;
    virtual ~ReferenceCountable() = default;

    /// Adds one owner.
    void add_reference() noexcept { m_reference_count.fetch_add(1, std::memory_order_seq_cst); }

    /// Takes one owner away. At 0 the object is destroyed. A count below 0 means that somebody released what
    /// he did not own: the object is left alone, since it may still be in use, and the fault is logged.
    [[gnu::hot]] void release_reference() noexcept {
        const int32_t left = m_reference_count.fetch_sub(1, std::memory_order_seq_cst) - 1;
        if (left == 0) {
            delete this;
        } else if (left < 0) [[unlikely]] {
            report_negative_count();
        }
    }

    /// Owners at this moment. For tests and assertions; it may be outdated when it is returned.
    int32_t reference_count() const noexcept { return m_reference_count.load(std::memory_order_relaxed); }

private:
    static void report_negative_count() noexcept;

    std::atomic<int32_t> m_reference_count{0};
};

template <class T>
class rc_ptr {
public:
    rc_ptr() noexcept = default;
    rc_ptr(T* object) noexcept : m_object(object) {
        acquire();
    } // implicit: a raw pointer is adopted where it is passed
    rc_ptr(const rc_ptr& other) noexcept : m_object(other.m_object) { acquire(); }
    rc_ptr(rc_ptr&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
    /// From a pointer to a derived class.
    template <class U>
    rc_ptr(rc_ptr<U> other) noexcept : m_object(other.detach()) {}
    [[gnu::hot]] virtual ~rc_ptr() { release(); }

    /// Releases first and takes over second, so assigning an object's only owner to itself destroys the
    /// object.
    rc_ptr& operator=(T* object) noexcept {
        release();
        m_object = object;
        acquire();
        return *this;
    }
    // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): see above; nobody assigns an rc_ptr to itself
    rc_ptr& operator=(const rc_ptr& other) noexcept { return *this = other.m_object; }
    rc_ptr& operator=(rc_ptr&& other) noexcept {
        T* const object = std::exchange(other.m_object, nullptr);
        release();
        m_object = object;
        return *this;
    }

    T* get() const noexcept { return m_object; }
    T* operator->() const noexcept { return m_object; }
    T& operator*() const noexcept { return *m_object; }
    explicit operator bool() const noexcept { return m_object != nullptr; }

    /// Gives the object away with its count: the caller owns one reference now.
    T* detach() noexcept { return std::exchange(m_object, nullptr); }

private:
    void acquire() noexcept {
        if (m_object != nullptr) {
            m_object->add_reference();
        }
    }
    void release() noexcept {
        if (m_object != nullptr) {
            m_object->release_reference();
        }
    }

    T* m_object = nullptr; // shared
};

} // namespace corvalin
