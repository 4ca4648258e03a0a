#include "corvalin_lib/media_packet_buffer.h"

#include "corvalin_lib/never_destroyed.h"

namespace corvalin::media {

namespace {

NeverDestroyed<PacketBuffer::Allocator> packet_pool;

} // namespace

constinit PacketBuffer::Allocator& PacketBuffer::allocator = packet_pool.object;

const char* PacketBuffer::BadAlloc::what() const noexcept {
    return "Cannot allocate memory for PacketBuffer";
}

} // namespace corvalin::media
