// media_stream: the packets of made-up sessions, whose every byte a receiver can verify.
//
// All but `seq` follows from the session's id, the packet's number in its session and a few settings, or is
// covered by a check value that travels in the packet itself, since a router rewrites `seq` and knows nothing
// of the settings:
//
//     all     uuid             uuid_word(id, 0) and uuid_word(id, 1), little-endian
//             mt               the sender's steady clock in microseconds
//     start   ts, sync_ts,     mt
//             sync_mt
//             rule             start_rule(id)
//             call_id          a prefix and the id in decimal
//             reserved         the low 48 bits of the check value of the whole packet
//     data    m_off            the low 32 bits of the `seq` that the sender gave
//             m_flg            the low 16 bits of the check value of the first 56 bytes
//             m_payload        payload_word(id, m_off, i) for i = 0, 1, ..., little-endian, cut at the length
//     terminate  mt            the next millisecond, and on top of it the check value of the packet modulo 1000
//
// The check value is check_value() over the bytes with `seq` and the field of the check value itself as zero;
// for a terminate packet, `mt` is the full millisecond.
//
// Threads    any thread; nothing here keeps state.
// Errors     none; the caller sees to it that sizes are in range.
#pragma once

#include "corvalin_lib/media_packet.h"
#include "tools/tool_support/seeded_random.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace corvalin::tools {

constexpr uint64_t uuid_word(uint64_t id, unsigned int index) noexcept {
    return mix_bits(mix_bits(id) + index);
}
constexpr uint64_t start_rule(uint64_t id) noexcept {
    return mix_bits(id + 0x72756C65);
}
constexpr uint64_t payload_word(uint64_t id, uint32_t number, std::size_t index) noexcept {
    return mix_bits((mix_bits(id) ^ number) + index);
}
/// Over `size` bytes, a multiple of 8, as little-endian words.
uint64_t check_value(const uint8_t* bytes, std::size_t size) noexcept;

/// What the packets of all sessions have in common.
struct StreamSettings {
    uint8_t flags = media::PACKET_FLAG_WRITER | media::PACKET_FLAG_MEDIA;
    uint8_t side = 0;
    std::size_t payload_bytes = 320; // even, at most PAYLOAD_MAX_BYTES
    std::string call_id_prefix = "call-";
};

constexpr std::size_t PAYLOAD_MAX_BYTES = media::PACKET_MAX_BYTES - sizeof(media::DataPacket);
/// What leaves room for the 20 digits of any id.
constexpr std::size_t CALL_ID_PREFIX_MAX_BYTES = media::CALL_ID_MAX_BYTES - 20;

/// One packet to be made.
struct StreamPacket {
    uint64_t id = 0;
    uint64_t seq = 0;
    uint64_t mt_us = 0;
};

// Each writes one packet to `bytes`, which is aligned to 8 and holds PACKET_MAX_BYTES, and returns its length.
std::size_t write_start(const StreamSettings& settings, const StreamPacket& packet, uint8_t* bytes) noexcept;
std::size_t write_data(const StreamSettings& settings, const StreamPacket& packet, uint8_t* bytes) noexcept;
std::size_t write_terminate(const StreamSettings& settings, const StreamPacket& packet,
                            uint8_t* bytes) noexcept;

/// Why a datagram is no valid packet, in the order in which the router looks.
enum class PacketFault { none, too_short, too_long, bad_marker, bad_version, unknown_type, corrupted_size };

/// Whether the datagram is a packet of the wire format. `bytes` is aligned to 8.
PacketFault find_fault(const uint8_t* bytes, std::size_t size) noexcept;

/// True if all bytes but `seq` are as the functions above made them. Requires: find_fault found none.
bool is_content_intact(const uint8_t* bytes, std::size_t size) noexcept;

} // namespace corvalin::tools
