#include "tools/tool_support/media_sink.h"

#include "tools/tool_support/media_stream.h"

#include "corvalin_lib/media_packet.h"

namespace corvalin::tools {
namespace {

PacketKind kind_of(uint8_t type) noexcept {
    switch (type) {
    case media::PACKET_TYPE_START:
        return PacketKind::start;
    case media::PACKET_TYPE_DATA:
        return PacketKind::data;
    default:
        return PacketKind::terminate;
    }
}

} // namespace

void SinkCounts::add(const SinkCounts& other) noexcept {
    datagrams += other.datagrams;
    bytes += other.bytes;
    for (std::size_t kind = 0; kind < PACKET_KINDS; ++kind) {
        packets[kind] += other.packets[kind];
    }
    invalid += other.invalid;
    changed += other.changed;
    sequence.add(other.sequence);
}

void MediaSink::on_datagram(const uint8_t* bytes, std::size_t size) {
    ++m_counts.datagrams;
    m_counts.bytes += size;
    if (m_mode == SinkMode::discard) {
        return;
    }
    if (find_fault(bytes, size) != PacketFault::none) {
        ++m_counts.invalid;
        return;
    }
    const auto& header = *reinterpret_cast<const media::PacketHeader*>(bytes);
    ++m_counts.packets[static_cast<std::size_t>(kind_of(header.type))];
    if (m_mode == SinkMode::verify && !is_content_intact(bytes, size)) {
        ++m_counts.changed;
    }
    m_checker.on_packet(header.id, header.type, header.seq);
    m_counts.sequence = m_checker.counts();
}

} // namespace corvalin::tools
