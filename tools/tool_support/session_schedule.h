// session_schedule: which packet of which session comes next, for many sessions that run side by side.
//
// Up to `live` sessions run at a time, each through its start packet, its data packets and its terminate packet;
// when one is over, the next takes its place. Round robin gives each live session one packet in turn. Random
// order picks any of them, by the seed.
//
// Threads    one thread.
// Ownership  24 bytes for each live session.
#pragma once

#include "tools/tool_support/seeded_random.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace corvalin::tools {

enum class PacketKind : uint8_t { start, data, terminate };
constexpr std::size_t PACKET_KINDS = 3;

enum class SessionOrder { round_robin, random };

struct ScheduleSettings {
    static constexpr uint64_t UNLIMITED = UINT64_MAX;

    uint64_t sessions = 1;      // above 0
    uint64_t live = UNLIMITED;  // above 0
    uint64_t data_packets = 10; // of each session; UNLIMITED: until finish()
    bool with_start = true;
    bool with_terminate = true;
    uint64_t first_seq = 1; // of each session's first packet
    SessionOrder order = SessionOrder::round_robin;
    uint64_t seed = 0; // of the random order
};

struct ScheduledPacket {
    uint64_t session = 0; // 0 is the first
    uint64_t seq = 0;
    PacketKind kind = PacketKind::start;
};

class SessionSchedule {
public:
    explicit SessionSchedule(const ScheduleSettings& settings);

    /// The next packet. False if all sessions are over; `packet` is then left alone.
    bool next(ScheduledPacket& packet);
    /// Gives no start and data packets any more: sessions that have begun get their terminate packets.
    void finish() noexcept { m_finishing = true; }

private:
    struct Slot {
        uint64_t session = 0;
        uint64_t sent = 0; // packets
        bool over = false;
    };

    bool step(Slot& slot, ScheduledPacket& packet) const noexcept;
    bool refill(Slot& slot) noexcept;
    bool next_in_turn(ScheduledPacket& packet);
    bool next_at_random(ScheduledPacket& packet);

    const ScheduleSettings m_settings;
    SeededRandom m_random;
    std::vector<Slot> m_slots;
    uint64_t m_next_session = 0; // the first that has no slot yet
    bool m_finishing = false;
    // Round robin: slots below m_kept have had their turn and go on, those from m_cursor on are still to come.
    std::size_t m_kept = 0;
    std::size_t m_cursor = 0;
};

} // namespace corvalin::tools
