// media_session: one live session, that is one call leg.
//
// Threads    the reader thread only. The count is atomic by the nature of rc_ptr, not because sessions are
//            shared.
// Ownership  held by rc_ptr: one in the list of sessions, one in the index, more while a hook runs.
#pragma once

#include "corvalin_lib/media_packet.h"
#include "corvalin_lib/reference_countable.h"

#include <cstdint>
#include <list>
#include <string>

namespace corvalin::media {

class Session;

/// In order of activity, the one that has been silent for longest in front.
using SessionList = std::list<rc_ptr<Session>>;

class Session : public ReferenceCountable {
public:
    /// A live session, from its start packet. `now_us` is the time on the steady clock.
    Session(const StartPacket& packet, int64_t now_us)
        : Session(static_cast<const PacketHeader&>(packet), now_us, packet.ts, packet.call_id(), false) {}

    /// A zombie, from the packet that nobody knew where to put.
    static Session* make_zombie(const PacketHeader& header, int64_t now_us) {
        return new Session(header, now_us, 0, {}, true);
    }

    uint8_t m_uuid[16];           // shown in log lines, never compared
    uint64_t m_id;                // key of the index
    uint64_t m_ts;                // start time stamp as the sender gave it; 0 in a zombie
    uint64_t m_start_mt;          // media time of the packet that created the session
    int64_t m_created_us;         // steady clock
    uint64_t m_seq;               // highest sequence number accepted so far
    std::string m_call_id;        // empty in a zombie
    uint64_t m_last_activity_us;  // on the scale of the steady clock, but moved on by the sender's media time
    SessionList::iterator m_node; // where this session stands in the list; the list's end once it is removed
    bool m_zombie;

private:
    Session(const PacketHeader& header, int64_t now_us, uint64_t ts, std::string call_id, bool zombie);
};

} // namespace corvalin::media
