#include "tools/tool_support/impairment.h"

namespace corvalin::tools {

ImpairmentDecision Impairment::next() noexcept {
    ImpairmentDecision decision;
    decision.lost = m_random.chance(m_settings.loss_percent);
    decision.duplicated = m_random.chance(m_settings.duplicate_percent) && !decision.lost;
    decision.reordered = m_random.chance(m_settings.reorder_percent) && !decision.lost;
    const bool delayed = m_random.chance(m_settings.delay_percent) && !decision.lost;
    const uint64_t delay_us = m_random.between(m_settings.delay_min_us, m_settings.delay_max_us);
    decision.delay_us = delayed ? delay_us : 0;
    return decision;
}

} // namespace corvalin::tools
