#include "bench/counted_new.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace corvalin::bench {

namespace {

std::atomic<uint64_t> calls{0};
std::atomic<int64_t> bytes{0};

// In front of each chunk of the system's heap.
constexpr std::size_t CHUNK_HEADER_BYTES = 8;

int64_t chunk_bytes(void* memory) noexcept {
    return static_cast<int64_t>(malloc_usable_size(memory) + CHUNK_HEADER_BYTES);
}

void* counted(void* memory) {
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    calls.fetch_add(1, std::memory_order_relaxed);
    bytes.fetch_add(chunk_bytes(memory), std::memory_order_relaxed);
    return memory;
}

void release(void* memory) noexcept {
    if (memory != nullptr) {
        bytes.fetch_sub(chunk_bytes(memory), std::memory_order_relaxed);
        std::free(memory);
    }
}

} // namespace

uint64_t new_calls() noexcept {
    return calls.load(std::memory_order_relaxed);
}

int64_t bytes_in_use() noexcept {
    return bytes.load(std::memory_order_relaxed);
}

} // namespace corvalin::bench

// The forms that are not here (arrays, nothrow) call these.
void* operator new(std::size_t size) {
    return corvalin::bench::counted(std::malloc(size));
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return corvalin::bench::counted(std::aligned_alloc(static_cast<std::size_t>(alignment), size));
}
void operator delete(void* memory) noexcept {
    corvalin::bench::release(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    corvalin::bench::release(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
    corvalin::bench::release(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    corvalin::bench::release(memory);
}
