#include "tools/tool_support/sequence_checker.h"

#include "corvalin_lib/media_packet.h"

namespace corvalin::tools {

void SequenceCounts::add(const SequenceCounts& other) noexcept {
    sessions += other.sessions;
    ended_sessions += other.ended_sessions;
    gaps += other.gaps;
    missing += other.missing;
    repeats += other.repeats;
    after_end += other.after_end;
}

void SequenceChecker::on_packet(uint64_t id, uint8_t type, uint64_t seq) {
    const auto [entry, is_new] = m_sessions.try_emplace(id);
    Session& session = entry->second;
    const bool begins_anew = session.ended && type == media::PACKET_TYPE_START && seq == 1;
    if (is_new || begins_anew) {
        session = Session();
        ++m_counts.sessions;
    }
    follow(session, seq);
    if (type == media::PACKET_TYPE_TERMINATE && !session.ended) {
        session.ended = true;
        ++m_counts.ended_sessions;
    }
}

void SequenceChecker::follow(Session& session, uint64_t seq) noexcept {
    if (seq < session.next_seq) {
        ++m_counts.repeats;
        return;
    }
    if (session.ended) {
        ++m_counts.after_end;
    }
    if (seq > session.next_seq) {
        ++m_counts.gaps;
        m_counts.missing += seq - session.next_seq;
    }
    session.next_seq = seq + 1;
}

} // namespace corvalin::tools
