#include "tools/tool_support/garbage.h"

#include "corvalin_lib/media_packet.h"

#include <cstring>

namespace corvalin::tools {
namespace {

using media::DataPacket;
using media::PacketHeader;
using media::StartPacket;

void fill(SeededRandom& random, uint8_t* bytes, std::size_t size) noexcept {
    for (std::size_t offset = 0; offset < size; offset += sizeof(uint64_t)) {
        const uint64_t word = random.next();
        std::memcpy(bytes + offset, &word, sizeof(word));
    }
}

// A valid data packet of random content. Returns its length.
std::size_t write_valid_data(SeededRandom& random, uint8_t* bytes) noexcept {
    auto& packet = media::view_packet<DataPacket>(bytes);
    packet.marker = media::PACKET_MARKER;
    packet.version = media::PACKET_VERSION;
    packet.type = media::PACKET_TYPE_DATA;
    packet.m_num = static_cast<uint16_t>(random.between(0, (media::PACKET_MAX_BYTES - sizeof(packet)) / 2));
    return packet.wire_bytes();
}

// A known type with a length that it cannot have.
std::size_t corrupt_size(SeededRandom& random, uint8_t* bytes) noexcept {
    const std::size_t size = random.between(media::PACKET_MIN_BYTES, media::PACKET_MAX_BYTES);
    auto& header = media::view_packet<PacketHeader>(bytes);
    switch (random.below(3)) {
    case 0:
        header.type = media::PACKET_TYPE_TERMINATE;
        return size == media::PACKET_MIN_BYTES ? size + 1 : size;
    case 1: {
        header.type = media::PACKET_TYPE_DATA;
        auto& packet = media::view_packet<DataPacket>(bytes);
        packet.m_num = static_cast<uint16_t>(random.next());
        packet.m_num ^= static_cast<uint16_t>(packet.wire_bytes() == size);
        return size;
    }
    default: {
        header.type = media::PACKET_TYPE_START;
        auto& packet = media::view_packet<StartPacket>(bytes);
        packet.call_id_length = static_cast<uint16_t>(random.next());
        packet.call_id_length ^= static_cast<uint16_t>(packet.wire_bytes() == size);
        return size;
    }
    }
}

bool is_known_type(uint8_t type) noexcept {
    return type == media::PACKET_TYPE_START || type == media::PACKET_TYPE_TERMINATE ||
           type == media::PACKET_TYPE_DATA;
}

} // namespace

std::size_t write_garbage(GarbageKind kind, SeededRandom& random, uint8_t* bytes) noexcept {
    fill(random, bytes, GARBAGE_MAX_BYTES);
    const std::size_t size = write_valid_data(random, bytes);
    auto& header = media::view_packet<PacketHeader>(bytes);
    switch (kind) {
    case GarbageKind::too_short:
        return random.between(1, media::PACKET_MIN_BYTES -
                                     1); // an empty datagram looks like an interrupted read
    case GarbageKind::too_long:
        return random.between(media::PACKET_MAX_BYTES + 1, GARBAGE_MAX_BYTES);
    case GarbageKind::bad_marker:
        header.marker ^= static_cast<uint32_t>(random.between(1, UINT32_MAX));
        return size;
    case GarbageKind::bad_version:
        header.version = static_cast<uint8_t>(random.between(1, UINT8_MAX));
        return size;
    case GarbageKind::unknown_type:
        while (is_known_type(header.type)) {
            header.type = static_cast<uint8_t>(random.next());
        }
        return size;
    case GarbageKind::corrupted_size:
        return corrupt_size(random, bytes);
    }
    return size;
}

} // namespace corvalin::tools
