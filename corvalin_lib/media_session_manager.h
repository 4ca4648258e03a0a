// media_session_manager: the table of live sessions.
//
// Threads    every function on the reader thread: all are entered from media::PacketReader. Construction and
//            destruction while no reader runs.
// Ownership  the table owns its sessions. The counters are borrowed.
// Errors     a packet that fits no session is counted and logged, once for each packet or id. What the heap
//            refuses in create_session and setup_zombie is counted and logged; an insertion that fails ends
//            the process.
//
// Invariant  m_sessions and m_index hold the same sessions whenever no function of this class runs.
//
// A session without any activity for 300 seconds is removed by the audit, which has no thread and no timer:
// it runs in the quiet moments of the reader, and also ahead of each packet while the table is large. A data
// packet of an unknown session leaves a zombie in the table: it forwards nothing, takes up all further
// packets of its id in silence, and ages like any other session.
#pragma once

#include "corvalin_lib/counter.h"
#include "corvalin_lib/media_packet.h"
#include "corvalin_lib/media_packet_reader.h"
#include "corvalin_lib/media_session.h"
#include "corvalin_lib/media_session_index.h"
#include "corvalin_lib/reference_countable.h"
#include "corvalin_lib/statistic_container.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace corvalin::media {

/// Zero at process start. Written by the reader thread.
struct SessionManagerStatistic {
    alignas(128) Counter session_number; // gauge: entries of the table, zombies included
    Counter zombie_number;               // zombies ever made: a total, in spite of its place beside the gauge
    Counter existing_index_errors;       // start packets for an id in the table
    Counter allocation_errors;           // sessions and zombies that could not be built
    Counter unknown_index_errors;        // data and terminate packets for an id that is not in the table
    Counter lost_packets;                // the sum of all forward gaps in the sequence numbers
    Counter sequence_breaks;             // data and terminate packets at or below the highest sequence number
    Counter audit_calls;
    Counter audit_executions; // audits that removed a session
};

/// Microseconds on a clock that never goes back.
using SteadyClock = int64_t (*)();
int64_t steady_clock_us();

class SessionManager : public PacketReaderListener,
                       public StatisticContainer<SessionManagerStatistic>,
                       public PacketLookahead {
public:
    static constexpr uint64_t SESSION_TIMEOUT_US = 300'000'000;
    static constexpr int AUDIT_BUDGET = 10; // the most sessions that one audit removes
    static constexpr uint64_t AUDIT_THRESHOLD =
        10'000; // entries above which every round of the reader audits

    /// `statistic` is borrowed; null makes a block of its own.
    explicit SessionManager(SessionManagerStatistic* statistic, SteadyClock clock = &steady_clock_us);

    void on_packet(StartPacket& packet) override;
    void on_packet(TerminatePacket& packet) override;
    void on_packet(DataPacket& packet) override;
    void on_packet_try() override;
    bool on_packet_idle() override;

    /// No hook is called for the sessions that are left.
    ~SessionManager() override;

    /// Builds a session of the right class with a count of 0, for the caller to adopt. Null with `result` set
    /// to 0: the heap is exhausted. Null with `result` as it was: the session is refused, and a zombie takes
    /// its place.
    virtual Session* create_session(const StartPacket& packet, unsigned long& result);

    // Hooks. They may change the packet in place, and must not block for long: the ring fills meanwhile.
    /// The session has just been entered in the table.
    virtual void on_session_created(rc_ptr<Session> session, StartPacket& packet);
    /// A data packet in sequence.
    virtual void on_session_media(rc_ptr<Session> session, DataPacket& packet);
    /// The session has just been removed from the table.
    virtual void on_session_terminated(rc_ptr<Session> session, TerminatePacket& packet);
    /// The audit has just removed the session.
    virtual void on_session_timedout(rc_ptr<Session> session);

    /// Removes expired sessions, up to its budget. Returns true if it removed any.
    virtual bool audit();

    void on_packet_ahead(const PacketHeader* packet) override;

protected:
    int64_t now_us() const { return m_clock(); }

    /// Builds a zombie and enters it in the table.
    void setup_zombie(const PacketHeader& header);

    /// What on_packet_ahead does for a packet that it has been told: one step in that call, the next one in the call after
    /// it, and so on.
    enum StepAhead : std::size_t { FETCH_SHARD, FETCH_SLOT, FETCH_SESSION, FETCH_NODE, FETCH_NEIGHBOURS };

    /// The session of the packet whose turn it is for `step`; null if it is not known.
    const Session* session_ahead(StepAhead step) const noexcept {
        const SessionIndex::Lookup* const lookup = m_ahead[step];
        return lookup == nullptr || lookup->entry == nullptr ? nullptr : lookup->entry->get();
    }

    SessionList m_sessions;
    SessionIndex m_index;

private:
    void on_unknown_session(const DataPacket& packet);
    void report_null_session(const DataPacket& packet);
    void enter(const rc_ptr<Session>& session);
    void remove(const rc_ptr<Session>& session);
    bool audit_and_count();
    void remove_expired_front(uint64_t now);
    void prefetch_front();
    void prefetch_neighbours(SessionList::iterator node);
    bool follow_sequence(const Session& session, uint64_t seq);
    void store_session_number() { statistic().session_number.set(m_index.size()); }

    const SteadyClock m_clock;
    // Of the packets that were told last, by StepAhead; null where none was.
    std::array<SessionIndex::Lookup*, PACKETS_AHEAD> m_ahead{};
};

} // namespace corvalin::media
