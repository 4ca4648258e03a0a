#include "tools/tool_support/media_stream.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace corvalin::tools {
namespace {

using media::DataPacket;
using media::PacketHeader;
using media::StartPacket;
using media::TerminatePacket;

constexpr uint64_t US_PER_MS = 1000;
constexpr std::size_t WORD_BYTES = sizeof(uint64_t);
constexpr std::size_t CALL_ID_DIGITS = 20; // of the largest id

// A packet that is made or checked, padded to whole words.
constexpr std::size_t SCRATCH_BYTES = (media::PACKET_MAX_BYTES + WORD_BYTES - 1) / WORD_BYTES * WORD_BYTES;

uint64_t load_word(const uint8_t* bytes) noexcept {
    uint64_t word;
    std::memcpy(&word, bytes, sizeof(word));
    return word;
}

std::size_t padded(std::size_t size) noexcept {
    return (size + WORD_BYTES - 1) / WORD_BYTES * WORD_BYTES;
}

void write_header(const StreamSettings& settings, const StreamPacket& packet, uint8_t type,
                  PacketHeader& header) noexcept {
    header.marker = media::PACKET_MARKER;
    header.type = type;
    header.version = media::PACKET_VERSION;
    header.side = settings.side;
    header.flags = settings.flags;
    header.id = packet.id;
    const uint64_t uuid[] = {uuid_word(packet.id, 0), uuid_word(packet.id, 1)};
    std::memcpy(header.uuid, uuid, sizeof(header.uuid));
    header.seq = 0; // for the check value; the caller sets it last
    header.mt = packet.mt_us;
}

bool is_uuid_intact(const PacketHeader& header) noexcept {
    const uint64_t uuid[] = {uuid_word(header.id, 0), uuid_word(header.id, 1)};
    return std::memcmp(header.uuid, uuid, sizeof(header.uuid)) == 0;
}

void store_check(StartPacket& packet, uint64_t check) noexcept {
    std::memcpy(packet.reserved, &check, sizeof(packet.reserved)); // little-endian: the low six bytes
}

void write_payload(uint64_t id, uint32_t number, uint8_t* payload, std::size_t size) noexcept {
    std::size_t index = 0;
    for (; (index + 1) * WORD_BYTES <= size; ++index) {
        const uint64_t word = payload_word(id, number, index);
        std::memcpy(payload + index * WORD_BYTES, &word, WORD_BYTES);
    }
    const uint64_t word = payload_word(id, number, index);
    std::memcpy(payload + index * WORD_BYTES, &word, size % WORD_BYTES);
}

bool is_payload_intact(uint64_t id, uint32_t number, const uint8_t* payload, std::size_t size) noexcept {
    std::size_t index = 0;
    for (; (index + 1) * WORD_BYTES <= size; ++index) {
        if (load_word(payload + index * WORD_BYTES) != payload_word(id, number, index)) {
            return false;
        }
    }
    const uint64_t word = payload_word(id, number, index);
    return std::memcmp(payload + index * WORD_BYTES, &word, size % WORD_BYTES) == 0;
}

// The call id must end with the id in decimal, after a prefix that only the check value covers.
bool is_call_id_intact(const StartPacket& packet) noexcept {
    char digits[CALL_ID_DIGITS];
    const char* const end = std::to_chars(digits, digits + sizeof(digits), packet.id).ptr;
    const auto length = static_cast<std::size_t>(end - digits);
    const char* const call_id = reinterpret_cast<const char*>(&packet) + sizeof(packet);
    return packet.call_id_length >= length &&
           std::memcmp(call_id + packet.call_id_length - length, digits, length) == 0;
}

bool is_start_intact(const uint8_t* bytes, std::size_t size) noexcept {
    alignas(WORD_BYTES) uint8_t scratch[SCRATCH_BYTES];
    std::memcpy(scratch, bytes, size);
    std::memset(scratch + size, 0, padded(size) - size);
    auto& packet = media::view_packet<StartPacket>(scratch);
    uint8_t found[sizeof(packet.reserved)];
    std::memcpy(found, packet.reserved, sizeof(found));
    packet.seq = 0;
    store_check(packet, 0);
    const uint64_t check = check_value(scratch, padded(size));
    return is_uuid_intact(packet) && packet.ts == packet.mt && packet.sync_ts == packet.mt &&
           packet.sync_mt == packet.mt && packet.rule == start_rule(packet.id) && is_call_id_intact(packet) &&
           std::memcmp(found, &check, sizeof(found)) == 0;
}

bool is_data_intact(const uint8_t* bytes, std::size_t size) noexcept {
    alignas(WORD_BYTES) uint8_t scratch[sizeof(DataPacket)];
    std::memcpy(scratch, bytes, sizeof(scratch));
    auto& packet = media::view_packet<DataPacket>(scratch);
    const uint16_t found = packet.m_flg;
    packet.seq = 0;
    packet.m_flg = 0;
    return is_uuid_intact(packet) && static_cast<uint16_t>(check_value(scratch, sizeof(scratch))) == found &&
           is_payload_intact(packet.id, packet.m_off, bytes + sizeof(packet), size - sizeof(packet));
}

bool is_terminate_intact(const uint8_t* bytes) noexcept {
    alignas(WORD_BYTES) uint8_t scratch[sizeof(TerminatePacket)];
    std::memcpy(scratch, bytes, sizeof(scratch));
    auto& packet = media::view_packet<TerminatePacket>(scratch);
    const uint64_t found = packet.mt % US_PER_MS;
    packet.seq = 0;
    packet.mt -= found;
    return is_uuid_intact(packet) && check_value(scratch, sizeof(scratch)) % US_PER_MS == found;
}

// `bytes` are only read through the record.
template <class Packet>
const Packet& view(const uint8_t* bytes) noexcept {
    return media::view_packet<Packet>(const_cast<uint8_t*>(bytes));
}

} // namespace

uint64_t check_value(const uint8_t* bytes, std::size_t size) noexcept {
    uint64_t value = size;
    for (std::size_t offset = 0; offset < size; offset += WORD_BYTES) {
        value = mix_bits(value ^ load_word(bytes + offset));
    }
    return value;
}

std::size_t write_start(const StreamSettings& settings, const StreamPacket& stream_packet,
                        uint8_t* bytes) noexcept {
    auto& packet = media::view_packet<StartPacket>(bytes);
    write_header(settings, stream_packet, media::PACKET_TYPE_START, packet);
    packet.ts = packet.mt;
    packet.sync_ts = packet.mt;
    packet.sync_mt = packet.mt;
    packet.rule = start_rule(packet.id);
    store_check(packet, 0);
    char* const call_id = reinterpret_cast<char*>(bytes) + sizeof(packet);
    settings.call_id_prefix.copy(call_id, settings.call_id_prefix.size());
    char* const digits = call_id + settings.call_id_prefix.size();
    const char* const end = std::to_chars(digits, digits + CALL_ID_DIGITS, packet.id).ptr;
    packet.call_id_length = static_cast<uint16_t>(end - call_id);
    const std::size_t size = packet.wire_bytes();
    std::memset(bytes + size, 0, padded(size) - size); // stays within PACKET_MAX_BYTES, a multiple of 8
    store_check(packet, check_value(bytes, padded(size)));
    packet.seq = stream_packet.seq;
    return size;
}

std::size_t write_data(const StreamSettings& settings, const StreamPacket& stream_packet,
                       uint8_t* bytes) noexcept {
    auto& packet = media::view_packet<DataPacket>(bytes);
    write_header(settings, stream_packet, media::PACKET_TYPE_DATA, packet);
    packet.m_flg = 0;
    packet.m_num = static_cast<uint16_t>(settings.payload_bytes / 2);
    packet.m_off = static_cast<uint32_t>(stream_packet.seq);
    packet.m_flg = static_cast<uint16_t>(check_value(bytes, sizeof(packet)));
    write_payload(packet.id, packet.m_off, bytes + sizeof(packet), settings.payload_bytes);
    packet.seq = stream_packet.seq;
    return packet.wire_bytes();
}

std::size_t write_terminate(const StreamSettings& settings, const StreamPacket& stream_packet,
                            uint8_t* bytes) noexcept {
    auto& packet = media::view_packet<TerminatePacket>(bytes);
    write_header(settings, stream_packet, media::PACKET_TYPE_TERMINATE, packet);
    packet.mt = (packet.mt / US_PER_MS + 1) * US_PER_MS; // not before the data that went ahead of it
    packet.mt += check_value(bytes, sizeof(packet)) % US_PER_MS;
    packet.seq = stream_packet.seq;
    return packet.wire_bytes();
}

PacketFault find_fault(const uint8_t* bytes, std::size_t size) noexcept {
    if (size < media::PACKET_MIN_BYTES) {
        return PacketFault::too_short;
    }
    if (size > media::PACKET_MAX_BYTES) {
        return PacketFault::too_long;
    }
    const auto& header = view<PacketHeader>(bytes);
    if (header.marker != media::PACKET_MARKER) {
        return PacketFault::bad_marker;
    }
    if (header.version != media::PACKET_VERSION) {
        return PacketFault::bad_version;
    }
    bool right_size = false;
    if (header.type == media::PACKET_TYPE_TERMINATE) {
        right_size = size == sizeof(TerminatePacket);
    } else if (header.type == media::PACKET_TYPE_DATA) {
        right_size = size >= sizeof(DataPacket) && size == view<DataPacket>(bytes).wire_bytes();
    } else if (header.type == media::PACKET_TYPE_START) {
        right_size = size >= sizeof(StartPacket) && size == view<StartPacket>(bytes).wire_bytes();
    } else {
        return PacketFault::unknown_type;
    }
    return right_size ? PacketFault::none : PacketFault::corrupted_size;
}

bool is_content_intact(const uint8_t* bytes, std::size_t size) noexcept {
    switch (view<PacketHeader>(bytes).type) {
    case media::PACKET_TYPE_START:
        return is_start_intact(bytes, size);
    case media::PACKET_TYPE_DATA:
        return is_data_intact(bytes, size);
    default:
        return is_terminate_intact(bytes);
    }
}

} // namespace corvalin::tools
