#include "tools/tool_support/session_schedule.h"

#include <algorithm>

namespace corvalin::tools {

SessionSchedule::SessionSchedule(const ScheduleSettings& settings)
    : m_settings(settings), m_random(settings.seed), m_slots(std::min(settings.sessions, settings.live)) {
    for (Slot& slot : m_slots) {
        slot.session = m_next_session++;
    }
}

bool SessionSchedule::next(ScheduledPacket& packet) {
    return m_settings.order == SessionOrder::random ? next_at_random(packet) : next_in_turn(packet);
}

// The next packet of the slot's session, if it has one left.
bool SessionSchedule::step(Slot& slot, ScheduledPacket& packet) const noexcept {
    const uint64_t starts = m_settings.with_start ? 1 : 0;
    const bool wants_terminate = m_settings.with_terminate && (slot.sent > 0 || !m_finishing);
    PacketKind kind;
    if (slot.over) {
        return false;
    }
    if (slot.sent < starts && !m_finishing) {
        kind = PacketKind::start;
    } else if (slot.sent - starts < m_settings.data_packets && !m_finishing) {
        kind = PacketKind::data;
    } else if (wants_terminate) {
        kind = PacketKind::terminate;
        slot.over = true;
    } else {
        return false;
    }
    packet = {slot.session, m_settings.first_seq + slot.sent, kind};
    ++slot.sent;
    return true;
}

// Puts the next session into the slot of one that is over.
bool SessionSchedule::refill(Slot& slot) noexcept {
    if (m_finishing || m_next_session == m_settings.sessions) {
        return false;
    }
    slot = Slot();
    slot.session = m_next_session++;
    return true;
}

bool SessionSchedule::next_in_turn(ScheduledPacket& packet) {
    while (true) {
        if (m_cursor == m_slots.size()) {
            m_slots.resize(m_kept);
            m_kept = 0;
            m_cursor = 0;
            if (m_slots.empty()) {
                return false;
            }
        }
        Slot slot = m_slots[m_cursor++];
        bool has_packet = step(slot, packet);
        if (!has_packet && refill(slot)) {
            has_packet = step(slot, packet);
        }
        if (has_packet) {
            m_slots[m_kept++] = slot;
            return true;
        }
    }
}

bool SessionSchedule::next_at_random(ScheduledPacket& packet) {
    while (!m_slots.empty()) {
        Slot& slot = m_slots[m_random.below(m_slots.size())];
        if (step(slot, packet) || (refill(slot) && step(slot, packet))) {
            return true;
        }
        slot = m_slots.back();
        m_slots.pop_back();
    }
    return false;
}

} // namespace corvalin::tools
