// seeded_random: random numbers that are the same for the same seed on every machine and compiler.
//
// Threads    one thread per object.
// Errors     random_seed throws std::system_error if the kernel has no random numbers.
#pragma once

#include <cstdint>

namespace corvalin::tools {

/// Spreads the bits of a number over all 64 (the finaliser of the splitmix64 generator).
constexpr uint64_t mix_bits(uint64_t number) noexcept {
    number += 0x9E3779B97F4A7C15;
    number = (number ^ (number >> 30)) * 0xBF58476D1CE4E5B9;
    number = (number ^ (number >> 27)) * 0x94D049BB133111EB;
    return number ^ (number >> 31);
}

class SeededRandom {
public:
    explicit SeededRandom(uint64_t seed) noexcept : m_state(seed) {}

    uint64_t next() noexcept {
        const uint64_t number = mix_bits(m_state);
        m_state += 0x9E3779B97F4A7C15;
        return number;
    }
    /// A number below `limit`. Requires: `limit` is above 0. The bias is `limit` / 2^64.
    uint64_t below(uint64_t limit) noexcept { return next() % limit; }
    uint64_t between(uint64_t first, uint64_t last) noexcept { return first + below(last - first + 1); }
    /// True with the probability `percent` / 100. Always draws exactly one number, so that what comes later does
    /// not depend on the percentage.
    bool chance(double percent) noexcept {
        return static_cast<double>(next() >> 11) * 0x1.0p-53 * 100 < percent;
    }

private:
    uint64_t m_state;
};

/// A seed that nobody can foresee, for runs that were not given one.
uint64_t random_seed();

} // namespace corvalin::tools
