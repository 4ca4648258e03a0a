// media_source: makes the datagrams of a schedule of sessions, with injected faults, and sends them.
//
// Threads    one thread.
// Ownership  owns its sockets and everything else.
// Errors     std::system_error from the sockets.
#pragma once

#include "tools/tool_support/garbage.h"
#include "tools/tool_support/impairment.h"
#include "tools/tool_support/media_stream.h"
#include "tools/tool_support/session_schedule.h"
#include "tools/tool_support/udp_batch.h"

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

namespace corvalin::tools {

struct SourceSettings {
    sockaddr_in target{};
    std::size_t sockets = 1;           // above 0; each session keeps to one of them
    bool segmentation_offload = false; // neighbours of one length leave and arrive together
    uint64_t id_base = 1;              // id of the first session
    StreamSettings stream;
    ScheduleSettings schedule;
    // Injected faults. A delay means nothing here.
    ImpairmentSettings impairment;
    double garbage_percent = 0;
    bool spare_edges = false; // no loss, duplicate or reordering of start and terminate packets
    uint64_t seed = 0;        // of the faults
};

struct TrafficCount {
    uint64_t datagrams = 0;
    uint64_t bytes = 0;

    void add(std::size_t size) noexcept {
        ++datagrams;
        bytes += size;
    }
};

struct SourceCounts {
    std::array<TrafficCount, PACKET_KINDS> packets;  // sent, by PacketKind, duplicates included
    std::array<TrafficCount, GARBAGE_KINDS> garbage; // sent, by GarbageKind
    uint64_t lost = 0;                               // made and not sent
    uint64_t duplicated = 0;                         // sent twice
    uint64_t reordered = 0;                          // overtaken by the next packet of their session

    TrafficCount total() const noexcept;
};

class MediaSource {
public:
    explicit MediaSource(const SourceSettings& settings);

    /// Makes up to `count` packets of the schedule and what is injected besides, with the time `mt_us`, and sends
    /// them. Returns how many packets were taken from the schedule; fewer than `count` means that it is over.
    uint64_t send(uint64_t count, uint64_t mt_us);
    /// Lets the sessions end: from here on only terminate packets are left.
    void finish() noexcept { m_schedule.finish(); }

    const SourceCounts& counts() const noexcept { return m_counts; }
    /// Sends that the target's machine refused, as nobody had the port open.
    uint64_t refused() const noexcept;

private:
    struct HeldPacket {
        ScheduledPacket packet;
        bool twice;
        uint64_t mt_us;
    };

    SendBatch& batch_of(uint64_t session) noexcept { return m_batches[session % m_batches.size()]; }
    void handle(const ScheduledPacket& packet, uint64_t mt_us);
    bool hold_back(const ScheduledPacket& packet, bool twice, uint64_t mt_us);
    bool send_held(uint64_t session);
    void send_all_held();
    void send_packet(const ScheduledPacket& packet, bool twice, uint64_t mt_us);
    void send_garbage(uint64_t session);

    const SourceSettings m_settings;
    SessionSchedule m_schedule;
    Impairment m_impairment;
    SeededRandom m_garbage_random;
    std::vector<UdpSocket> m_sockets;
    std::vector<SendBatch> m_batches;
    std::unordered_map<uint64_t, HeldPacket> m_held; // by session: overtaken by the session's next packet
    SourceCounts m_counts;
};

} // namespace corvalin::tools
