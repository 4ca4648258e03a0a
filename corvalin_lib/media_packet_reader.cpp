#include "corvalin_lib/media_packet_reader.h"

#include "corvalin_lib/log.h"
#include "corvalin_lib/prefetch.h"

#include <algorithm>
#include <utility>

namespace corvalin::media {

namespace {

constexpr const char* SOURCE = "media_packet_reader";

[[gnu::cold, gnu::noinline]] void trace(const DataPacket& packet) {
    log::Syslog::write(SOURCE, __LINE__, log::LocalLevel::local_level_media,
                       log::TraceMessage()
                           << "DATA  | mt: " << packet.mt << ", uuid: " << UuidText{packet.uuid} << ", seq: "
                           << packet.seq << ", side: " << unsigned{packet.side} << ", m_flg: " << packet.m_flg
                           << ", m_num: " << packet.m_num << ", m_off: " << packet.m_off);
}

} // namespace

PacketReader::PacketReader(PacketReaderListener& listener, PacketReaderStatistic& statistic)
    : QueueIdleReader(statistic), m_listener(&listener),
      m_lookahead(dynamic_cast<PacketLookahead*>(&listener)) {
}

[[gnu::hot]] void PacketReader::read_from(const void* data, unsigned long size) {
    if (size < PACKET_MIN_BYTES) {
        statistic().dropped_min_length.add(1);
        return;
    }
    if (size > PACKET_MAX_BYTES) {
        statistic().dropped_max_length.add(1);
        return;
    }
    try {
        rc_ptr<PacketBuffer> buffer(PacketBuffer::allocator.allocate());
        buffer->append(data, size);
        push(std::move(buffer));
        PacketBuffer::allocator.prefetch_next(); // while its datagram is still on the way
    } catch (const PacketBuffer::BadAlloc&) {
        statistic().dropped_failed_allocation.add(1);
    }
}

void PacketReader::run() {
    log::write(SOURCE, __LINE__,
               log::SystemMessage() << "PACKETS_READER: thread [" << current_thread_id() << "] started");
    QueueIdleReader::run();
}

int PacketReader::stop() {
    if (!is_running()) {
        return 0;
    }
    const int error = QueueIdleReader::stop();
    // The reader is gone by now: the id in these lines is that of the caller.
    if (error == 0) {
        log::write(SOURCE, __LINE__,
                   log::SystemMessage() << "PACKETS_READER: thread [" << current_thread_id() << "] stopped");
    } else {
        log::write(SOURCE, __LINE__,
                   log::WarningMessage() << "PACKETS_READER: thread [" << current_thread_id()
                                         << "] stopped with error (" << error << ")");
    }
    return error;
}

[[gnu::hot]] bool PacketReader::on_queue_idle() {
    return m_listener->on_packet_idle();
}

[[gnu::hot]] void PacketReader::on_queue_try() {
    m_listener->on_packet_try();
}

[[gnu::hot]] void PacketReader::on_queue_read(rc_ptr<PacketBuffer> packet) {
    if (!packet) {
        return; // the wait has run out
    }
    look_ahead();
    const PacketHeader& header = view_packet<PacketHeader>(packet->data);
    if (header.marker != PACKET_MARKER) {
        statistic().rejected_bad_marker.add(1);
        return;
    }
    if (header.version != PACKET_VERSION) {
        statistic().rejected_version.add(1);
        return;
    }
    switch (header.type) {
    case PACKET_TYPE_DATA:
        return notify_if_whole<DataPacket>(*packet);
    case PACKET_TYPE_START:
        return notify_if_whole<StartPacket>(*packet);
    case PACKET_TYPE_TERMINATE:
        return notify_if_whole<TerminatePacket>(*packet);
    default:
        statistic().rejected_unknown_type.add(1);
    }
}

// Each packet is handled between two system calls that leave little in the caches, and the packets themselves come from
// another processor. What waits in the ring is known, though: it is fetched while the packets ahead of it are sent. With
// each packet that is handled, the header of one that waits is fetched, and the listener is told of one whose header was
// fetched before; of two, until the lead is there.
[[gnu::hot]] void PacketReader::look_ahead() {
    constexpr uint64_t LEAD = PacketLookahead::PACKETS_AHEAD + 1;
    const uint64_t waiting = m_queue.size();
    if (m_fetched == LEAD && m_told == LEAD - 1 && waiting >= LEAD) [[likely]] {
        // Within a burst both move on by one, as does the ring.
        tell_of(LEAD - 2);
        fetch_header_of(LEAD - 1);
    } else {
        catch_up_ahead(std::min(waiting, LEAD));
    }
}

// After a wait, and as long as fewer packets wait than the lead is. `fetchable`: how many of them are not too far away.
[[gnu::hot]] void PacketReader::catch_up_ahead(uint64_t fetchable) {
    if (m_lookahead == nullptr || fetchable == 0) {
        m_fetched = 0;
        m_told = 0;
        return;
    }
    // The packet in hand was the first of them.
    m_fetched -= m_fetched != 0 ? 1 : 0;
    m_told -= m_told != 0 ? 1 : 0;
    const uint64_t tellable = m_fetched;
    for (int step = 0; step < 2; ++step) {
        if (m_told < tellable) {
            tell_of(m_told++);
        } else if (step == 0) {
            m_lookahead->on_packet_ahead(nullptr);
        }
        if (m_fetched < fetchable) {
            fetch_header_of(m_fetched++);
        }
    }
}

// `place`, here and below: as for Queue::peek, behind the packet in hand.
inline void PacketReader::fetch_header_of(uint64_t place) {
    const PacketBuffer& packet = *m_queue.peek(place);
    prefetch(&packet, sizeof(ReferenceCountable) + sizeof(PacketHeader));
    prefetch(&packet.size, sizeof(packet.size));
}

inline void PacketReader::tell_of(uint64_t place) {
    PacketBuffer& packet = *m_queue.peek(place);
    prefetch(packet.data, packet.size);
    m_lookahead->on_packet_ahead(&view_packet<const PacketHeader>(packet.data));
}

// A datagram that ended before the fields of its type has zeros there, from the pool, and fails the
// comparison.
template <class Packet>
void PacketReader::notify_if_whole(PacketBuffer& buffer) {
    Packet& packet = view_packet<Packet>(buffer.data);
    if (packet.wire_bytes() != buffer.size) {
        statistic().rejected_corrupted_size.add(1);
        return;
    }
    notify(packet);
}

void PacketReader::notify(StartPacket& packet) {
    statistic().start_packets.add(1);
    const bool wants_writer = (packet.flags & PACKET_FLAG_WRITER) != 0;
    const bool wants_media = (packet.flags & PACKET_FLAG_MEDIA) != 0;
    log::SystemMessage line;
    line << "START | mt: " << packet.mt << ", v: " << unsigned{packet.version}
         << ", f: " << (wants_writer ? "w" : "-") << (wants_media ? "a" : "-")
         << ", uuid: " << UuidText{packet.uuid} << ", ts: " << packet.ts << ", seq: " << packet.seq
         << ", leg: " << (packet.side == 0 ? "inbound" : "outbound") << ", call id: " << packet.call_id()
         << ", id: " << packet.id << ", sync ts: " << packet.sync_ts << ", sync mt: " << packet.sync_mt;
    if (wants_media) {
        line << ", rule: " << packet.rule;
    }
    log::Syslog::write(SOURCE, __LINE__, log::LocalLevel::local_level_packet, line);
    m_listener->on_packet(packet);
}

void PacketReader::notify(TerminatePacket& packet) {
    statistic().term_packets.add(1);
    log::Syslog::write(SOURCE, __LINE__, log::LocalLevel::local_level_packet,
                       log::SystemMessage() << "TERM  | mt: " << packet.mt << ", uuid: "
                                            << UuidText{packet.uuid} << ", seq: " << packet.seq);
    m_listener->on_packet(packet);
}

[[gnu::hot]] void PacketReader::notify(DataPacket& packet) {
    statistic().data_packets.add(1);
    if (log::passes(log::Level::TRACE)) [[unlikely]] {
        trace(packet);
    }
    m_listener->on_packet(packet);
}

} // namespace corvalin::media
