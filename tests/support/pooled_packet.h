// pooled_packet: a datagram in a buffer of the packet pool, as the reader thread meets it.
//
// Threads    takes from the pool, so only the thread that allocates there may call it.
#pragma once

#include "corvalin_lib/media_packet_buffer.h"
#include "corvalin_lib/reference_countable.h"

#include "tests/support/packet_builder.h"

namespace corvalin::test {

/// The caller has checked that the datagram fits.
inline rc_ptr<media::PacketBuffer> pooled(const Bytes& datagram) {
    rc_ptr<media::PacketBuffer> buffer(media::PacketBuffer::allocator.allocate());
    buffer->append(datagram.data(), datagram.size());
    return buffer;
}

/// The datagram back again.
inline Bytes bytes_of(const media::PacketBuffer& buffer) {
    return {buffer.data, buffer.data + buffer.size};
}

} // namespace corvalin::test
