#include "tests/support/heap/counted_heap.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

namespace corvalin::test {

namespace {

constexpr std::size_t ANY_SIZE = 0;

// All of it is constant-initialised: the first allocations come before any constructor of this program.
constinit std::atomic<uint64_t> count{0};
constinit std::atomic<bool> in_main{false};
constinit std::atomic<std::size_t> largest{0};

struct Refusal {
    bool armed = false;
    bool happened = false;
    uint64_t good_allocations = 0;
    std::size_t size = ANY_SIZE;
};
constinit thread_local Refusal refusal;

bool is_refused(std::size_t size) {
    if (!refusal.armed || (refusal.size != ANY_SIZE && refusal.size != size)) {
        return false;
    }
    if (refusal.good_allocations > 0) {
        --refusal.good_allocations;
        return false;
    }
    refusal.armed = false;
    refusal.happened = true;
    return true;
}

void* take(std::size_t size, std::size_t alignment) noexcept {
    count.fetch_add(1, std::memory_order_relaxed);
    if (!in_main.load(std::memory_order_relaxed)) {
        largest.store(std::max(largest.load(std::memory_order_relaxed), size), std::memory_order_relaxed);
    }
    if (is_refused(size)) {
        return nullptr;
    }
    if (alignment <= alignof(std::max_align_t)) {
        return std::malloc(std::max<std::size_t>(size, 1));
    }
    return std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
}

void* take_or_throw(std::size_t size, std::size_t alignment) {
    void* const block = take(size, alignment);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

} // namespace

uint64_t allocations() {
    return count.load(std::memory_order_relaxed);
}

std::size_t largest_allocation_before_main() {
    return largest.load(std::memory_order_relaxed);
}

void note_main() {
    in_main.store(true, std::memory_order_relaxed);
}

RefusedAllocation::RefusedAllocation(uint64_t good_allocations)
    : RefusedAllocation(good_allocations, ANY_SIZE) {
}

RefusedAllocation::RefusedAllocation(uint64_t good_allocations, std::size_t size) {
    refusal = {true, false, good_allocations, size};
}

RefusedAllocation::~RefusedAllocation() {
    refusal.armed = false;
}

bool RefusedAllocation::happened() {
    return refusal.happened;
}

} // namespace corvalin::test

using corvalin::test::take;
using corvalin::test::take_or_throw;

constexpr std::size_t PLAIN = alignof(std::max_align_t);

void* operator new(std::size_t size) {
    return take_or_throw(size, PLAIN);
}
void* operator new[](std::size_t size) {
    return take_or_throw(size, PLAIN);
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return take(size, PLAIN);
}
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return take(size, PLAIN);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return take_or_throw(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return take_or_throw(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t& /*tag*/) noexcept {
    return take(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t& /*tag*/) noexcept {
    return take(size, static_cast<std::size_t>(alignment));
}

void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete[](void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t /*size*/) noexcept {
    std::free(block);
}
void operator delete[](void* block, std::size_t /*size*/) noexcept {
    std::free(block);
}
void operator delete(void* block, const std::nothrow_t& /*tag*/) noexcept {
    std::free(block);
}
void operator delete[](void* block, const std::nothrow_t& /*tag*/) noexcept {
    std::free(block);
}
void operator delete(void* block, std::align_val_t /*alignment*/) noexcept {
    std::free(block);
}
void operator delete[](void* block, std::align_val_t /*alignment*/) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
    std::free(block);
}
void operator delete[](void* block, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
    std::free(block);
}
void operator delete(void* block, std::align_val_t /*alignment*/, const std::nothrow_t& /*tag*/) noexcept {
    std::free(block);
}
void operator delete[](void* block, std::align_val_t /*alignment*/, const std::nothrow_t& /*tag*/) noexcept {
    std::free(block);
}
