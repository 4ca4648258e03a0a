// mem_object_allocator: a fixed pool of objects in one block.
//
// Threads    allocate: one thread. give_back: any thread, the one that drops the last reference.
// Ownership  the pool owns the block. An object belongs to its user from allocate until give_back.
// Errors     allocate throws T::BadAlloc when no object is free. The constructor throws std::bad_alloc.
// Cost       one flag test for each allocation in the normal case: objects come back in the order in which
//            they left, so the next one in the ring is the one that has been free for longest.
#pragma once

#include "corvalin_lib/prefetch.h"
#include "corvalin_lib/unwatched_writes.h"

#include <sys/mman.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>

namespace corvalin::mem {

template <class T, uint64_t N>
class ObjectAllocator {
public:
    /// Claims the block and writes to each of its items, so that no page of it is faulted in on the packet
    /// path.
    ObjectAllocator()
        : m_items(static_cast<Item*>(::operator new(N * sizeof(Item), BLOCK_ALIGNMENT))), m_storage(m_items),
          m_next(0) {
        if (reinterpret_cast<uintptr_t>(m_items) % alignof(uint64_t) != 0) {
            throw std::bad_alloc();
        }
        // A pool of this size costs a TLB miss for each packet in pages of 4 KiB. Only advice: its failure is
        // harmless.
        madvise(m_items, N * sizeof(Item), MADV_HUGEPAGE);
        const UnwatchedWrites unwatched; // nobody else knows the block yet
        for (uint64_t index = 0; index < N; ++index) {
            new (&m_items[index]) Item; // no parentheses: they would zero the whole block
        }
    }
    ObjectAllocator(const ObjectAllocator&) = delete;
    ObjectAllocator& operator=(const ObjectAllocator&) = delete;
    virtual ~ObjectAllocator() {
        if (m_storage != nullptr) {
            ::operator delete(m_storage, BLOCK_ALIGNMENT);
        }
    }

    /// A new object, all zero, that nobody references yet. Throws T::BadAlloc after one fruitless round.
    T* allocate() {
        for (uint64_t step = 0; step < N; ++step) {
            Item& item = m_items[m_next];
            m_next = m_next + 1 == N ? 0 : m_next + 1;
            // Acquire: what the last user did to the object is over before it is built anew.
            if (item.m_free.load(std::memory_order_acquire) != 0) {
                item.m_free.store(0, std::memory_order_relaxed);
                // The zeroing is part of T's construction: a memset of the memory in front of it would be a
                // dead store, and compilers drop it.
                return new (item.object) T();
            }
        }
        throw typename T::BadAlloc();
    }

    /// Fetches the memory of the next object, which has left the caches long ago. Allocating thread only, when it is about to
    /// wait for something: the stores of an allocation would queue behind what is fetched.
    void prefetch_next() const noexcept { prefetch(&m_items[m_next], sizeof(Item)); }

    /// Takes back an object whose destructor has ended. Any thread.
    static void give_back(void* object) noexcept {
        static_assert(offsetof(Item, object) == 0);
        // Release: the last act of the object's user.
        static_cast<Item*>(object)->m_free.store(1, std::memory_order_release);
    }

private:
    // The flag lies beside the object, so that it can be given back when the object is no more.
    struct Item {
        alignas(8) unsigned char object[sizeof(T)];
        std::atomic<uint8_t> m_free{1}; // 1 free, 0 in use
    };
    static_assert(alignof(T) <= 8 && sizeof(Item) == (sizeof(T) + 1 + 7) / 8 * 8);

    // That of a huge page, so that the whole block can lie in them.
    static constexpr std::align_val_t BLOCK_ALIGNMENT{2UL * 1024 * 1024};

    // Set at construction.
    Item* m_items;   // m_storage
    void* m_storage; // owned
    // Allocating thread only.
    uint64_t m_next; // where the next scan begins
};

} // namespace corvalin::mem
