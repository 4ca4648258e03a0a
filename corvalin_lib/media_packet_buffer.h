// media_packet_buffer: the pooled memory that carries one datagram through the process.
//
// Threads    allocator.allocate: the main thread only. The buffer itself: whoever holds it, one thread at a
//            time.
// Ownership  held by rc_ptr. The last one to let go gives the buffer back to the pool; the heap is never
//            touched.
// Errors     allocate throws PacketBuffer::BadAlloc when all buffers are in use.
#pragma once

#include "corvalin_lib/media_packet.h"
#include "corvalin_lib/mem_buffer.h"
#include "corvalin_lib/mem_object_allocator.h"
#include "corvalin_lib/reference_countable.h"

#include <new>

namespace corvalin::media {

class PacketBuffer : public ReferenceCountable, public mem::Buffer<PACKET_MAX_BYTES> {
public:
    class BadAlloc : public std::bad_alloc {
    public:
        const char* what() const noexcept override;
    };

    [[gnu::hot]] ~PacketBuffer() override;

    /// 50000 more than the ring of the packet reader holds, so that a full ring does not exhaust the pool.
    using Allocator = mem::ObjectAllocator<PacketBuffer, 150'000>;

    /// Built before main and never destroyed: the reader thread still uses it while the process exits.
    static Allocator& allocator;

    // The pool builds a buffer in place. There is no other way to make one.
    static void* operator new(std::size_t) = delete;
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    // Runs after the destructor: the buffer is the pool's from here on.
    static void operator delete(void* buffer) noexcept { Allocator::give_back(buffer); }
    static void operator delete(void*, void*) noexcept {} // matches the placement form, which cannot throw
};

inline PacketBuffer::~PacketBuffer() = default;

static_assert(sizeof(PacketBuffer) == 1400);

} // namespace corvalin::media
