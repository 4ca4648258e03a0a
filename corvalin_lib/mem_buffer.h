// mem_buffer: a byte buffer of fixed capacity.
//
// Threads    as any plain record: one at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace corvalin::mem {

template <std::size_t Capacity>
struct Buffer {
    /// Appends `bytes`. The caller has checked that they fit.
    void append(const void* bytes, std::size_t bytes_count) noexcept {
        std::memcpy(data + size, bytes, bytes_count);
        size += bytes_count;
    }

    uint8_t data[Capacity]{};
    uint64_t size = 0; // bytes in use
};

} // namespace corvalin::mem
