#include "corvalin_lib/mem_object_allocator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <thread>
#include <type_traits>
#include <vector>

#include "corvalin_lib/queue.h"

namespace {

using corvalin::mem::ObjectAllocator;

/// An object of a size that is no multiple of 8 behind its flag, with a destructor that tells.
struct Item {
    class BadAlloc : public std::bad_alloc {};

    static void* operator new(std::size_t, void* place) noexcept { return place; }
    static void operator delete(void* item) noexcept { ObjectAllocator<Item, 3>::give_back(item); }
    static void operator delete(void*, void*) noexcept {}

    uint64_t words[3];
    uint8_t tail[5];
};
using Pool = ObjectAllocator<Item, 3>;

class MemObjectAllocatorTest : public ::testing::Test {
protected:
    Pool m_pool;
};

std::ptrdiff_t distance(const Item* from, const Item* to) {
    return reinterpret_cast<const char*>(to) - reinterpret_cast<const char*>(from);
}

TEST_F(MemObjectAllocatorTest, items_lie_next_to_each_other_each_followed_by_its_flag_and_rounded_up_to_8) {
    const Item* const first = m_pool.allocate();
    const Item* const second = m_pool.allocate();
    const Item* const third = m_pool.allocate();
    EXPECT_EQ(sizeof(Item), 32u);
    EXPECT_EQ(distance(first, second), 40); // 32, the flag, rounded up
    EXPECT_EQ(distance(second, third), 40);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(first) % 8, 0u);
}

TEST_F(MemObjectAllocatorTest, the_scan_goes_on_behind_the_last_item_even_if_an_earlier_one_is_free) {
    Item* const first = m_pool.allocate();
    delete first;
    Item* const second = m_pool.allocate();
    EXPECT_NE(second, first);
    delete second;
    Item* const third = m_pool.allocate();
    EXPECT_NE(third, first);
    EXPECT_NE(third, second);
    delete third;
    EXPECT_EQ(m_pool.allocate(), first) << "behind the last item comes the first";
}

TEST_F(MemObjectAllocatorTest, the_scan_passes_items_in_use) {
    Item* const first = m_pool.allocate();
    const Item* const second = m_pool.allocate();
    const Item* const third = m_pool.allocate();
    delete first;
    EXPECT_EQ(m_pool.allocate(), first);
    delete third;
    EXPECT_EQ(m_pool.allocate(), third) << "the second item is in use";
    EXPECT_NE(second, nullptr);
}

TEST_F(MemObjectAllocatorTest, an_exhausted_pool_throws_after_one_round_and_stays_at_its_place) {
    std::vector<Item*> items;
    for (int count = 0; count < 3; ++count) {
        items.push_back(m_pool.allocate());
    }
    delete items[0];
    ASSERT_EQ(m_pool.allocate(), items[0]); // the next scan begins at the second item
    for (int attempt = 0; attempt < 4; ++attempt) {
        EXPECT_THROW(m_pool.allocate(), Item::BadAlloc);
    }
    for (const Item* const item : items) {
        delete item;
    }
    EXPECT_EQ(m_pool.allocate(), items[1]);
    EXPECT_EQ(m_pool.allocate(), items[2]);
    EXPECT_EQ(m_pool.allocate(), items[0]);
}

TEST_F(MemObjectAllocatorTest, after_one_release_the_next_allocation_finds_that_item_wherever_it_lies) {
    std::vector<Item*> items;
    for (int count = 0; count < 3; ++count) {
        items.push_back(m_pool.allocate());
    }
    for (Item* const item : items) {
        EXPECT_THROW(m_pool.allocate(), Item::BadAlloc);
        delete item;
        EXPECT_EQ(m_pool.allocate(), item);
    }
    // Against the order of the scan too.
    for (const std::size_t index : {2u, 1u, 0u, 2u}) {
        delete items[index];
        EXPECT_EQ(m_pool.allocate(), items[index]);
    }
}

TEST_F(MemObjectAllocatorTest, an_object_is_all_zero_whatever_lay_in_its_place) {
    for (int round = 0; round < 6; ++round) {
        Item* const item = m_pool.allocate();
        for (const uint64_t word : item->words) {
            EXPECT_EQ(word, 0u);
        }
        EXPECT_THAT(item->tail, testing::Each(0));
        std::memset(item->words, 0xAA, sizeof(item->words));
        std::memset(item->tail, 0xAA, sizeof(item->tail));
        delete item;
    }
}

// ---- When an item is free again

struct SelfAware;
using SelfAwarePool = ObjectAllocator<SelfAware, 1>;

/// Tries to take its own place while it ends.
struct SelfAware {
    class BadAlloc : public std::bad_alloc {};

    virtual ~SelfAware();
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    static void operator delete(void* item) noexcept;
    static void operator delete(void*, void*) noexcept {}

    SelfAwarePool* pool = nullptr;
    bool* was_free = nullptr;
};

SelfAware::~SelfAware() {
    try {
        pool->allocate();
        *was_free = true;
    } catch (const BadAlloc&) {
        *was_free = false;
    }
}

void SelfAware::operator delete(void* item) noexcept {
    SelfAwarePool::give_back(item);
}

TEST(MemObjectAllocatorLifeTest, an_item_is_free_only_when_the_destructor_of_its_object_has_ended) {
    SelfAwarePool pool;
    bool was_free = true;
    SelfAware* const object = pool.allocate();
    object->pool = &pool;
    object->was_free = &was_free;

    delete object;

    EXPECT_FALSE(was_free);
    SelfAware* const next = pool.allocate();
    EXPECT_EQ(next, object);
    EXPECT_EQ(next->pool, nullptr);
    next->pool = &pool;
    next->was_free = &was_free;
    delete next;
}

TEST(MemObjectAllocatorLifeTest, a_pool_is_destroyed_through_its_base) {
    EXPECT_TRUE(std::has_virtual_destructor_v<Pool>);
}

// The sanitizers' operator new ends the process where the plain one throws.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(MemObjectAllocatorLifeTest, a_pool_that_the_heap_cannot_hold_is_not_built) {
    struct Huge : Item {};
    using HugePool = ObjectAllocator<Huge, uint64_t{1} << 50>;
    EXPECT_THROW(std::make_unique<HugePool>(), std::bad_alloc);
}
#endif

// ---- Two threads: one allocates, the other gives back

struct Message;
using MessagePool = ObjectAllocator<Message, 8>;

struct Message {
    class BadAlloc : public std::bad_alloc {};

    static void* operator new(std::size_t, void* place) noexcept { return place; }
    static void operator delete(void* item) noexcept { MessagePool::give_back(item); }
    static void operator delete(void*, void*) noexcept {}

    uint64_t number;
    uint64_t copies[14];
};

TEST(MemObjectAllocatorThreadTest, an_item_given_back_on_another_thread_comes_out_zeroed_and_unused) {
    constexpr uint64_t MESSAGES = 50'000;
    const auto pool = std::make_unique<MessagePool>();
    const auto queue = std::make_unique<corvalin::Queue<Message*, 64, true>>();
    std::atomic<uint64_t> broken{0};
    std::thread consumer([&] {
        for (uint64_t number = 1; number <= MESSAGES;) {
            Message* const message = queue->pop(1'000'000);
            if (message == nullptr) {
                continue; // the wait has run out
            }
            bool whole = message->number == number;
            for (uint64_t& copy : message->copies) {
                whole = whole && copy == number;
                copy = ~copy; // the object is this thread's until it is given back
            }
            broken += whole ? 0 : 1;
            delete message;
            ++number;
        }
    });
    uint64_t unclean = 0;
    uint64_t exhausted = 0;
    for (uint64_t number = 1; number <= MESSAGES;) {
        Message* message = nullptr;
        try {
            message = pool->allocate();
        } catch (const Message::BadAlloc&) {
            ++exhausted;
            std::this_thread::yield();
            continue;
        }
        unclean += message->number;
        message->number = number;
        for (uint64_t& copy : message->copies) {
            unclean += copy;
            copy = number;
        }
        while (!queue->push(message)) {
            std::this_thread::yield();
        }
        ++number;
    }
    consumer.join();
    EXPECT_EQ(unclean, 0u);
    EXPECT_EQ(broken, 0u);
    // The ring holds more than the pool, so the pool is what ran out, if anything did.
    for (int count = 0; count < 8; ++count) {
        pool->allocate();
    }
    EXPECT_THROW(pool->allocate(), Message::BadAlloc) << "more items than there are; ran out " << exhausted;
}

} // namespace
