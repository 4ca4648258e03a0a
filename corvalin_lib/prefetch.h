// prefetch: asks the processor to fetch memory into its caches while other work goes on.
//
// Threads    any thread. An address is never looked at: it may be a wrong one, and nothing is changed by it.
//
// GCC takes a function that does nothing but prefetch for one without an effect, and removes the calls of it. The empty
// assembly says that there is one.
#pragma once

#include <cstddef>

namespace corvalin {

constexpr std::size_t CACHE_LINE_BYTES = 64;

/// The lines of `bytes` bytes from `begin` on.
inline void prefetch(const void* begin, std::size_t bytes) noexcept {
    asm volatile("");
    const char* const first = static_cast<const char*>(begin);
    for (std::size_t offset = 0; offset < bytes; offset += CACHE_LINE_BYTES) {
        __builtin_prefetch(first + offset);
    }
}

} // namespace corvalin
