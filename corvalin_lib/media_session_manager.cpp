#include "corvalin_lib/media_session_manager.h"

#include "corvalin_lib/log.h"
#include "corvalin_lib/prefetch.h"

#include <ctime>
#include <iterator>
#include <new>
#include <utility>

namespace corvalin::media {

namespace {

constexpr const char* SOURCE = "media_session_manager";

// Session tracing has a facility of its own, and goes to syslog from the foreground too.
void trace_session(int line, const log::Message& message) {
    log::Syslog::write(SOURCE, line, log::LocalLevel::local_level_packet, message);
}

} // namespace

// What std::chrono::steady_clock reads, but without the call into another library on the way: ahead of each wait of the
// reader nothing of it is in the caches.
[[gnu::hot]] int64_t steady_clock_us() {
    constexpr int64_t US_PER_S = 1'000'000;
    constexpr int64_t NS_PER_US = 1'000;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * US_PER_S + now.tv_nsec / NS_PER_US;
}

SessionManager::SessionManager(SessionManagerStatistic* statistic, SteadyClock clock)
    : StatisticContainer<SessionManagerStatistic>(statistic), m_clock(clock) {
}

SessionManager::~SessionManager() {
    m_sessions.clear();
    m_index.clear();
}

void SessionManager::on_packet(StartPacket& packet) {
    if (m_index.find(packet.id) != nullptr) {
        statistic().existing_index_errors.add(1);
        log::write(SOURCE, __LINE__,
                   log::WarningMessage()
                       << "SESSION_MANAGER: Session " << UuidText{packet.uuid} << " already exists");
        return;
    }
    unsigned long result = 1;
    const rc_ptr<Session> session(create_session(packet, result));
    if (!session && result == 0) {
        statistic().allocation_errors.add(1);
        log::write(SOURCE, __LINE__,
                   log::ErrorMessage()
                       << "SESSION_MANAGER: Session " << UuidText{packet.uuid} << " allocation failed");
        return;
    }
    if (!session) {
        setup_zombie(packet);
        return;
    }
    enter(session);
    on_session_created(session, packet);
}

// True if `seq` is ahead of all that the session has accepted. The numbers between them are lost; a late
// packet that fills the gap after all counts once more, as a break.
inline bool SessionManager::follow_sequence(const Session& session, uint64_t seq) {
    if (seq <= session.m_seq) {
        statistic().sequence_breaks.add(1);
        return false;
    }
    statistic().lost_packets.add(seq - session.m_seq - 1);
    return true;
}

[[gnu::hot]] void SessionManager::on_packet(DataPacket& packet) {
    rc_ptr<Session>* const entry = m_index.find(packet.id);
    if (entry == nullptr) [[unlikely]] {
        return on_unknown_session(packet);
    }
    if (!*entry) [[unlikely]] {
        return report_null_session(packet);
    }
    // For the hook, but ahead of the move: the locked instruction of the copy would wait until the move has written to the
    // session's neighbours, which are seldom in the caches.
    rc_ptr<Session> held = *entry;
    Session& session = *held;
    if (!session.m_zombie) {
        if (!follow_sequence(session, packet.seq)) {
            return;
        }
        session.m_seq = packet.seq;
    }
    // The media time that has passed since the session began, projected onto the local clock. All unsigned: a
    // media time far before the start wraps, and is stored as it is.
    session.m_last_activity_us = static_cast<uint64_t>(session.m_created_us) - session.m_start_mt + packet.mt;
    // To the back without an allocation: the node itself moves, and m_node stays right.
    m_sessions.splice(m_sessions.end(), m_sessions, session.m_node);
    prefetch_front();
    if (session.m_zombie) {
        return;
    }
    on_session_media(std::move(held), packet);
}

[[gnu::cold]] void SessionManager::on_unknown_session(const DataPacket& packet) {
    statistic().unknown_index_errors.add(1);
    trace_session(__LINE__, log::WarningMessage()
                                << "DATA  | mt: " << packet.mt << ", uuid: " << UuidText{packet.uuid}
                                << ", seq: " << packet.seq << ", side: " << unsigned{packet.side}
                                << " | unknown session");
    setup_zombie(packet);
}

[[gnu::cold]] void SessionManager::report_null_session(const DataPacket& packet) {
    log::write(SOURCE, __LINE__,
               log::ErrorMessage() << "SESSION_MANAGER: Memory corruption may be happened: session "
                                   << UuidText{packet.uuid} << " is null but must exist");
}

void SessionManager::on_packet(TerminatePacket& packet) {
    rc_ptr<Session>* const entry = m_index.find(packet.id);
    if (entry == nullptr) {
        statistic().unknown_index_errors.add(1);
        trace_session(__LINE__, log::WarningMessage()
                                    << "TERM  | mt: " << packet.mt << ", uuid: " << UuidText{packet.uuid}
                                    << ", seq: " << packet.seq << " | unknown session");
        return;
    }
    if (!*entry) {
        log::write(SOURCE, __LINE__,
                   log::ErrorMessage() << "SESSION_MANAGER: Memory corruption might have happened: session "
                                       << UuidText{packet.uuid} << " is null but must exist");
        return;
    }
    const rc_ptr<Session> session = *entry;
    remove(session);
    store_session_number();
    if (session->m_zombie) {
        return;
    }
    // The session ends whatever the number says.
    follow_sequence(*session, packet.seq);
    on_session_terminated(session, packet);
}

[[gnu::hot]] void SessionManager::on_packet_try() {
    if (m_index.size() > AUDIT_THRESHOLD) {
        audit_and_count();
    }
}

[[gnu::hot]] bool SessionManager::on_packet_idle() {
    return audit_and_count();
}

// What a data packet needs hangs together by pointers: with each packet that is handled, those behind it come one pointer
// closer, and each step finds in the caches what the one before has fetched.
[[gnu::hot]] void SessionManager::on_packet_ahead(const PacketHeader* packet) {
    static_assert(PACKETS_AHEAD == FETCH_NEIGHBOURS + 1, "a step for each");
    m_ahead = {nullptr, m_ahead[0], m_ahead[1], m_ahead[2], m_ahead[3]};
    if (packet != nullptr) {
        m_ahead[FETCH_SHARD] = &m_index.lookup_of(packet->id);
        m_index.prefetch_shard(*m_ahead[FETCH_SHARD]);
    }
    if (m_ahead[FETCH_SLOT] != nullptr) {
        m_index.prefetch_slot(*m_ahead[FETCH_SLOT]);
    }
    if (m_ahead[FETCH_SESSION] != nullptr) {
        m_index.entry_of(*m_ahead[FETCH_SESSION]);
    }
    if (const Session* const session = session_ahead(FETCH_SESSION)) {
        prefetch(session, sizeof(Session) + CACHE_LINE_BYTES); // the fields of a derived class too
    }
    if (const Session* const session = session_ahead(FETCH_NODE)) {
        prefetch(&*session->m_node, sizeof(*session->m_node));
    }
    if (const Session* const session = session_ahead(FETCH_NEIGHBOURS)) {
        prefetch_neighbours(session->m_node);
    }
}

// A node that moves to the back writes to those on both sides of it.
[[gnu::hot]] void SessionManager::prefetch_neighbours(SessionList::iterator node) {
    if (node != m_sessions.begin()) {
        prefetch(&*std::prev(node), sizeof(*node));
    }
    if (std::next(node) != m_sessions.end()) {
        prefetch(&*std::next(node), sizeof(*node));
    }
}

// The audit looks at the front in the next quiet moment. Where senders keep their pace, it is the next to have a packet too.
inline void SessionManager::prefetch_front() {
    if (const Session* const session = m_sessions.front().get()) {
        prefetch(&session->m_last_activity_us, sizeof(session->m_last_activity_us));
    }
}

Session* SessionManager::create_session(const StartPacket& packet, unsigned long& result) {
    try {
        return new Session(packet, now_us());
    } catch (...) {
        result = 0;
        return nullptr;
    }
}

void SessionManager::on_session_created(rc_ptr<Session> /*session*/, StartPacket& /*packet*/) {
}
void SessionManager::on_session_media(rc_ptr<Session> /*session*/, DataPacket& /*packet*/) {
}
void SessionManager::on_session_terminated(rc_ptr<Session> /*session*/, TerminatePacket& /*packet*/) {
}
void SessionManager::on_session_timedout(rc_ptr<Session> /*session*/) {
}

[[gnu::hot]] bool SessionManager::audit() {
    const auto now = static_cast<uint64_t>(now_us());
    int removed = 0;
    // Looks no further than the first live session, since the list is in order of activity.
    while (removed < AUDIT_BUDGET && !m_sessions.empty() &&
           m_sessions.front()->m_last_activity_us + SESSION_TIMEOUT_US <= now) {
        remove_expired_front(now);
        ++removed;
    }
    store_session_number();
    return removed > 0;
}

[[gnu::cold]] void SessionManager::remove_expired_front(uint64_t now) {
    const rc_ptr<Session> session = m_sessions.front();
    remove(session);
    if (!session->m_zombie) {
        on_session_timedout(session);
    }
    trace_session(__LINE__, log::WarningMessage()
                                << "SESSION_MANAGER: Timeout for session " << UuidText{session->m_uuid}
                                << ": " << session->m_last_activity_us << " " << now);
}

[[gnu::hot]] bool SessionManager::audit_and_count() {
    statistic().audit_calls.add(1);
    const bool removed_any = audit();
    if (removed_any) {
        statistic().audit_executions.add(1);
    }
    return removed_any;
}

void SessionManager::setup_zombie(const PacketHeader& header) {
    rc_ptr<Session> zombie;
    try {
        zombie = Session::make_zombie(header, now_us());
    } catch (const std::bad_alloc&) {
        statistic().allocation_errors.add(1);
        log::write(SOURCE, __LINE__,
                   log::ErrorMessage() << "SESSION_MANAGER: Zombie session " << UuidText{header.uuid}
                                       << " allocation failed");
        return;
    }
    statistic().zombie_number.add(1);
    enter(zombie);
}

void SessionManager::enter(const rc_ptr<Session>& session) {
    session->m_node = m_sessions.insert(m_sessions.end(), session);
    m_index.insert(session->m_id, session);
    store_session_number();
}

// The caller holds the session: it may lose its last owner in the table here.
void SessionManager::remove(const rc_ptr<Session>& session) {
    m_sessions.erase(session->m_node);
    session->m_node = m_sessions.end();
    m_index.erase(session->m_id);
}

} // namespace corvalin::media
