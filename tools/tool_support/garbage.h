// garbage: datagrams that a router must refuse, each for exactly one reason.
//
// Threads    any thread; the random numbers are the caller's.
#pragma once

#include "tools/tool_support/seeded_random.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace corvalin::tools {

enum class GarbageKind : uint8_t {
    too_short,
    too_long,
    bad_marker,
    bad_version,
    unknown_type,
    corrupted_size
};

constexpr std::size_t GARBAGE_KINDS = 6;
constexpr std::array<const char*, GARBAGE_KINDS> GARBAGE_NAMES = {
    "too_short", "too_long", "bad_marker", "bad_version", "unknown_type", "corrupted_size"};
constexpr std::size_t GARBAGE_MAX_BYTES = 2048;

/// Writes a datagram of random content to `bytes`, which is aligned to 8 and holds GARBAGE_MAX_BYTES, and returns
/// its length, which is never 0. What a kind does not spoil is valid, so the datagram gets as far as it can.
std::size_t write_garbage(GarbageKind kind, SeededRandom& random, uint8_t* bytes) noexcept;

} // namespace corvalin::tools
