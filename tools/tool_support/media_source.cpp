#include "tools/tool_support/media_source.h"

namespace corvalin::tools {
namespace {

constexpr std::size_t BATCH_DATAGRAMS = 64;

// The two series of random numbers must not run side by side.
constexpr uint64_t GARBAGE_SEED = 0x67617262616765;

} // namespace

TrafficCount SourceCounts::total() const noexcept {
    TrafficCount total;
    const auto add = [&total](const TrafficCount& count) {
        total.datagrams += count.datagrams;
        total.bytes += count.bytes;
    };
    for (const TrafficCount& count : packets) {
        add(count);
    }
    for (const TrafficCount& count : garbage) {
        add(count);
    }
    return total;
}

MediaSource::MediaSource(const SourceSettings& settings)
    : m_settings(settings), m_schedule(settings.schedule), m_impairment(settings.impairment, settings.seed),
      m_garbage_random(mix_bits(settings.seed ^ GARBAGE_SEED)) {
    m_sockets.reserve(settings.sockets);
    m_batches.reserve(settings.sockets);
    for (std::size_t index = 0; index < settings.sockets; ++index) {
        m_sockets.emplace_back().connect_to(settings.target);
        m_batches.emplace_back(m_sockets.back().fd(), BATCH_DATAGRAMS,
                               settings.segmentation_offload ? SendBatch::SEGMENTS_MAX : 1);
    }
}

uint64_t MediaSource::refused() const noexcept {
    uint64_t refused = 0;
    for (const SendBatch& batch : m_batches) {
        refused += batch.refused();
    }
    return refused;
}

uint64_t MediaSource::send(uint64_t count, uint64_t mt_us) {
    uint64_t taken = 0;
    ScheduledPacket packet;
    while (taken < count && m_schedule.next(packet)) {
        handle(packet, mt_us);
        ++taken;
    }
    if (taken < count) {
        send_all_held();
    }
    for (SendBatch& batch : m_batches) {
        batch.flush();
    }
    return taken;
}

void MediaSource::handle(const ScheduledPacket& packet, uint64_t mt_us) {
    // Drawn for each packet, whatever becomes of it: what happens to one depends on no other.
    const bool with_garbage = m_garbage_random.chance(m_settings.garbage_percent);
    ImpairmentDecision decision = m_impairment.next();
    if (m_settings.spare_edges && packet.kind != PacketKind::data) {
        decision = ImpairmentDecision();
        send_held(packet.session); // behind the terminate packet it would have no session any more
    }
    if (decision.lost) {
        ++m_counts.lost;
    } else if (!decision.reordered || !hold_back(packet, decision.duplicated, mt_us)) {
        send_packet(packet, decision.duplicated, mt_us);
        if (send_held(packet.session)) {
            ++m_counts.reordered;
        }
    }
    if (with_garbage) {
        send_garbage(packet.session);
    }
}

// Keeps the packet until the next of its session is sent. False if there can be no next, or if one is held
// already.
bool MediaSource::hold_back(const ScheduledPacket& packet, bool twice, uint64_t mt_us) {
    return packet.kind != PacketKind::terminate &&
           m_held.try_emplace(packet.session, HeldPacket{packet, twice, mt_us}).second;
}

bool MediaSource::send_held(uint64_t session) {
    if (m_held.empty()) {
        return false;
    }
    const auto held = m_held.find(session);
    if (held == m_held.end()) {
        return false;
    }
    send_packet(held->second.packet, held->second.twice, held->second.mt_us);
    m_held.erase(held);
    return true;
}

void MediaSource::send_all_held() {
    while (!m_held.empty()) {
        send_held(m_held.begin()->first);
    }
}

void MediaSource::send_packet(const ScheduledPacket& packet, bool twice, uint64_t mt_us) {
    const StreamPacket stream_packet{m_settings.id_base + packet.session, packet.seq, mt_us};
    SendBatch& batch = batch_of(packet.session);
    uint8_t* const bytes = batch.slot();
    std::size_t size = 0;
    switch (packet.kind) {
    case PacketKind::start:
        size = write_start(m_settings.stream, stream_packet, bytes);
        break;
    case PacketKind::data:
        size = write_data(m_settings.stream, stream_packet, bytes);
        break;
    case PacketKind::terminate:
        size = write_terminate(m_settings.stream, stream_packet, bytes);
        break;
    }
    TrafficCount& count = m_counts.packets[static_cast<std::size_t>(packet.kind)];
    batch.commit(size);
    count.add(size);
    if (twice) {
        batch.commit_again();
        count.add(size);
        ++m_counts.duplicated;
    }
}

void MediaSource::send_garbage(uint64_t session) {
    const auto kind = static_cast<GarbageKind>(m_garbage_random.below(GARBAGE_KINDS));
    SendBatch& batch = batch_of(session);
    const std::size_t size = write_garbage(kind, m_garbage_random, batch.slot());
    batch.commit(size);
    m_counts.garbage[static_cast<std::size_t>(kind)].add(size);
}

} // namespace corvalin::tools
