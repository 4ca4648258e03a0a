#include "tools/tool_support/relay_queue.h"

#include "tools/tool_support/steady_clock.h"

#include <algorithm>
#include <utility>

namespace corvalin::tools {

void RelayQueue::on_datagram(const uint8_t* bytes, std::size_t size, const ImpairmentDecision& decision,
                             uint64_t now_ns) {
    ++m_counts.received;
    if (decision.lost) {
        ++m_counts.lost;
        return;
    }
    m_counts.duplicated += decision.duplicated ? 1 : 0;
    if (decision.delay_us != 0) {
        ++m_counts.delayed;
        m_delayed.emplace(now_ns + decision.delay_us * NS_PER_US,
                          Delayed{Datagram(bytes, bytes + size), decision.duplicated});
        return;
    }
    if (decision.reordered) {
        ++m_counts.reordered;
        m_held.push_back(Held{Datagram(bytes, bytes + size), decision.duplicated, m_reorder_distance,
                              now_ns + m_reorder_limit_ns});
        return;
    }
    send(bytes, size, decision.duplicated);
    overtake();
}

void RelayQueue::send(const uint8_t* bytes, std::size_t size, bool twice) {
    for (int copy = 0; copy < (twice ? 2 : 1); ++copy) {
        m_forward(bytes, size);
        ++m_counts.forwarded;
    }
}

// One datagram has passed those that are held. All wait for the same number, so the oldest are ready first.
void RelayQueue::overtake() {
    for (Held& held : m_held) {
        --held.missing;
    }
    while (!m_held.empty() && m_held.front().missing == 0) {
        const Held held = std::move(m_held.front());
        m_held.pop_front();
        send(held.datagram.data(), held.datagram.size(), held.twice);
    }
}

void RelayQueue::release_due(uint64_t now_ns) {
    while (!m_held.empty() && m_held.front().limit_ns <= now_ns) {
        const Held held = std::move(m_held.front());
        m_held.pop_front();
        send(held.datagram.data(), held.datagram.size(), held.twice);
    }
    while (!m_delayed.empty() && m_delayed.begin()->first <= now_ns) {
        const Delayed delayed = std::move(m_delayed.begin()->second);
        m_delayed.erase(m_delayed.begin());
        send(delayed.datagram.data(), delayed.datagram.size(), delayed.twice);
    }
}

uint64_t RelayQueue::next_due_ns() const noexcept {
    const uint64_t held_ns = m_held.empty() ? UINT64_MAX : m_held.front().limit_ns;
    const uint64_t delayed_ns = m_delayed.empty() ? UINT64_MAX : m_delayed.begin()->first;
    return std::min(held_ns, delayed_ns);
}

void RelayQueue::release_all() {
    release_due(UINT64_MAX);
}

} // namespace corvalin::tools
