// impairment: what happens to each datagram on a bad network, decided by a seed.
//
// Every decision draws the same number of random numbers, so the n-th decision depends on the seed and on n
// alone, whatever the probabilities before it led to.
//
// Threads    one thread.
#pragma once

#include "tools/tool_support/seeded_random.h"

#include <cstdint>

namespace corvalin::tools {

struct ImpairmentSettings {
    double loss_percent = 0;
    double duplicate_percent = 0;
    double reorder_percent = 0;
    double delay_percent = 0;
    uint64_t delay_min_us = 0;
    uint64_t delay_max_us = 0; // not below delay_min_us
};

struct ImpairmentDecision {
    bool lost = false; // then nothing else is true
    bool duplicated = false;
    bool reordered = false;
    uint64_t delay_us = 0;
};

class Impairment {
public:
    Impairment(const ImpairmentSettings& settings, uint64_t seed) noexcept
        : m_settings(settings), m_random(seed) {}

    ImpairmentDecision next() noexcept;

private:
    const ImpairmentSettings m_settings;
    SeededRandom m_random;
};

} // namespace corvalin::tools
