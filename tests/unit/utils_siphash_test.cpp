#include "corvalin_lib/utils_siphash.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>

namespace {

using corvalin::utils::siphash;
using corvalin::utils::SipHashKey;

// Key 00 01 .. 0f and message 00 01 .. 07, each as little-endian numbers.
constexpr SipHashKey PAPER_KEY = {0x0706050403020100, 0x0f0e0d0c0b0a0908};
constexpr uint64_t PAPER_MESSAGE = 0x0706050403020100;

// Entry 8 of the authors' table of test vectors for SipHash-2-4: bytes 62 24 93 9a 79 f5 f5 93.
TEST(UtilsSiphashTest, two_and_four_rounds_give_the_published_vector_of_eight_bytes) {
    EXPECT_EQ((siphash<2, 4>(PAPER_KEY, PAPER_MESSAGE)), 0x93f5f5799a932462u);
}

// From a separate calculation in Python of byte strings of any length, which gives the value of the paper's
// appendix for 2-4 and 15 bytes (a129ca6149be45e5) as well.
TEST(UtilsSiphashTest, one_and_three_rounds_differ_from_two_and_four) {
    EXPECT_EQ((siphash<1, 3>(PAPER_KEY, PAPER_MESSAGE)), 0x369095118d299a8eu);
}

// CPython 3.11 hashes byte strings with SipHash-1-3. The values are hash() of the 8 bytes of the number in
// little-endian order, run with PYTHONHASHSEED 0 (key of zeros), 1 and 12345 (keys as CPython's generator
// x = x * 214013 + 2531011 expands the seed, one byte from bits 16 to 23 of each step).
TEST(UtilsSiphashTest, one_and_three_rounds_give_the_values_of_another_implementation) {
    struct Case {
        SipHashKey key;
        uint64_t number;
        uint64_t hash;
    };
    constexpr SipHashKey SEED_0 = {0, 0};
    constexpr SipHashKey SEED_1 = {0xaed66ce184be2329, 0xebe9bbf1f1499052};
    constexpr SipHashKey SEED_12345 = {0x25556dc46dc3dca0, 0xfc3ee4dbd06f6c90};
    constexpr std::array<Case, 12> CASES = {{
        {SEED_0, 0x0706050403020100, 0xead411e67ebe2eea},
        {SEED_0, 0x0000000000000000, 0xbd60acb658c79e45},
        {SEED_0, 0xffffffffffffffff, 0x2f205be2fec8e38d},
        {SEED_0, 0x0123456789abcdef, 0x8662046e52264db8},
        {SEED_1, 0x0706050403020100, 0xc0b5739e7e28dd01},
        {SEED_1, 0x0000000000000000, 0x97622c04ecfbdc7c},
        {SEED_1, 0xffffffffffffffff, 0x6291480906012fdb},
        {SEED_1, 0x0123456789abcdef, 0x2f17ae0c011be1da},
        {SEED_12345, 0x0706050403020100, 0x354edb093928c942},
        {SEED_12345, 0x0000000000000000, 0xe0c00e9ccd5b4660},
        {SEED_12345, 0xffffffffffffffff, 0x21dcad60d2bdba3f},
        {SEED_12345, 0x0123456789abcdef, 0x16a7fe794d966280},
    }};
    for (const Case& row : CASES) {
        EXPECT_EQ((siphash<1, 3>(row.key, row.number)), row.hash)
            << std::hex << row.key.low << " " << row.key.high << " " << row.number;
    }
}

TEST(UtilsSiphashTest, each_half_of_the_key_and_each_bit_of_the_number_changes_the_hash) {
    const uint64_t hash = siphash<1, 3>(PAPER_KEY, PAPER_MESSAGE);
    for (int bit = 0; bit < 64; ++bit) {
        const uint64_t flip = uint64_t{1} << bit;
        EXPECT_NE((siphash<1, 3>({PAPER_KEY.low ^ flip, PAPER_KEY.high}, PAPER_MESSAGE)), hash) << bit;
        EXPECT_NE((siphash<1, 3>({PAPER_KEY.low, PAPER_KEY.high ^ flip}, PAPER_MESSAGE)), hash) << bit;
        EXPECT_NE((siphash<1, 3>(PAPER_KEY, PAPER_MESSAGE ^ flip)), hash) << bit;
    }
}

} // namespace
