// utils_siphash: SipHash of one 64-bit number, a hash whose collisions cannot be chosen without its key.
//
// Source     J.-P. Aumasson, D. J. Bernstein: "SipHash: a fast short-input PRF" (INDOCRYPT 2012). The number
//            is hashed as a message of 8 bytes in little-endian order.
#pragma once

#include <bit>
#include <cstdint>
#include <initializer_list>

namespace corvalin::utils {

struct SipHashKey {
    uint64_t low;
    uint64_t high;
};

/// `Compression` rounds for each word and `Finalization` rounds at the end.
template <int Compression, int Finalization>
constexpr uint64_t siphash(const SipHashKey& key, uint64_t number) noexcept {
    uint64_t v0 = key.low ^ 0x736f6d6570736575;
    uint64_t v1 = key.high ^ 0x646f72616e646f6d;
    uint64_t v2 = key.low ^ 0x6c7967656e657261;
    uint64_t v3 = key.high ^ 0x7465646279746573;
    const auto rounds = [&](int count) {
        for (int round = 0; round < count; ++round) {
            v0 += v1;
            v1 = std::rotl(v1, 13) ^ v0;
            v0 = std::rotl(v0, 32);
            v2 += v3;
            v3 = std::rotl(v3, 16) ^ v2;
            v0 += v3;
            v3 = std::rotl(v3, 21) ^ v0;
            v2 += v1;
            v1 = std::rotl(v1, 17) ^ v2;
            v2 = std::rotl(v2, 32);
        }
    };
    constexpr uint64_t LENGTH_BLOCK = uint64_t{8} << 56; // no bytes are left over, only the message's length
    for (const uint64_t word : {number, LENGTH_BLOCK}) {
        v3 ^= word;
        rounds(Compression);
        v0 ^= word;
    }
    v2 ^= 0xff;
    rounds(Finalization);
    return v0 ^ v1 ^ v2 ^ v3;
}

} // namespace corvalin::utils
