// media_packet: the wire format of media packets, one packet per UDP datagram.
//
// All integers are little-endian and are read and written in machine order, so the machine must be
// little-endian. The records are views of the bytes of a datagram and never own them. `view_packet` is the
// one place where bytes turn into a record.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>

namespace corvalin::media {

static_assert(std::endian::native == std::endian::little, "packets are read and written in machine order");

constexpr uint32_t PACKET_MARKER = 0x00FF00FF; // the bytes FF 00 FF 00
constexpr uint8_t PACKET_VERSION = 0;

constexpr uint8_t PACKET_TYPE_START = 0x81;
constexpr uint8_t PACKET_TYPE_TERMINATE = 0x82;
constexpr uint8_t PACKET_TYPE_DATA = 0x83;

/// Flag of a start packet: the session wants a writer node.
constexpr uint8_t PACKET_FLAG_WRITER = 0x80;
/// Flag of a start packet: the session wants a media node, and the field `rule` has a meaning.
constexpr uint8_t PACKET_FLAG_MEDIA = 0x40;

constexpr std::size_t PACKET_MIN_BYTES = 48;
/// A packet must fit into a packet buffer: 1376 bytes leave room for the headers of any tunnel below 1500.
constexpr std::size_t PACKET_MAX_BYTES = 1376;

// The three packet records derive from the header, which makes them no standard-layout types; the compilers
// of Linux lay them out all the same as the assertions below demand, and offsetof is right for them.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

/// The first 48 bytes of every packet.
struct PacketHeader {
    uint32_t marker;
    uint8_t type;
    uint8_t version;
    uint8_t side;  // 0 inbound, any other value outbound
    uint8_t flags; // PACKET_FLAG_*; acted on in start packets only, forwarded unread in all others
    uint64_t id;   // session key, opaque
    uint8_t uuid[16];
    uint64_t seq; // one series per session across all packet types; rewritten when forwarded
    uint64_t mt;  // media time in microseconds
};

static_assert(sizeof(PacketHeader) == 48);
static_assert(offsetof(PacketHeader, marker) == 0);
static_assert(offsetof(PacketHeader, type) == 4);
static_assert(offsetof(PacketHeader, version) == 5);
static_assert(offsetof(PacketHeader, side) == 6);
static_assert(offsetof(PacketHeader, flags) == 7);
static_assert(offsetof(PacketHeader, id) == 8);
static_assert(offsetof(PacketHeader, uuid) == 16);
static_assert(offsetof(PacketHeader, seq) == 32);
static_assert(offsetof(PacketHeader, mt) == 40);

/// Ends a session. A header and nothing else.
struct TerminatePacket : PacketHeader {
    /// Bytes on the wire.
    std::size_t wire_bytes() const noexcept { return sizeof(TerminatePacket); }
};

static_assert(sizeof(TerminatePacket) == 48);

/// Begins a session. `call_id_length` bytes of call id follow the record on the wire.
struct StartPacket : PacketHeader {
    uint64_t ts;
    uint64_t sync_ts;
    uint64_t sync_mt;
    uint64_t rule; // meaningful with PACKET_FLAG_MEDIA only
    uint8_t reserved[6];
    uint16_t call_id_length;

    std::size_t wire_bytes() const noexcept { return sizeof(StartPacket) + call_id_length; }
    /// The call id up to its first zero byte. It ends with the packet buffer at the latest, so the packet
    /// must lie at the start of PACKET_MAX_BYTES readable bytes, zero behind the datagram.
    std::string call_id() const;
};

static_assert(sizeof(StartPacket) == 88);
static_assert(offsetof(StartPacket, ts) == 48);
static_assert(offsetof(StartPacket, sync_ts) == 56);
static_assert(offsetof(StartPacket, sync_mt) == 64);
static_assert(offsetof(StartPacket, rule) == 72);
static_assert(offsetof(StartPacket, reserved) == 80);
static_assert(offsetof(StartPacket, call_id_length) == 86);

/// Carries media. `m_num` 16-bit units of payload follow the record on the wire.
struct DataPacket : PacketHeader {
    uint16_t m_flg;
    uint16_t m_num;
    uint32_t m_off;

    std::size_t wire_bytes() const noexcept { return sizeof(DataPacket) + std::size_t{m_num} * 2; }
};

static_assert(sizeof(DataPacket) == 56);
static_assert(offsetof(DataPacket, m_flg) == 48);
static_assert(offsetof(DataPacket, m_num) == 50);
static_assert(offsetof(DataPacket, m_off) == 52);

#pragma GCC diagnostic pop

constexpr std::size_t CALL_ID_MAX_BYTES = PACKET_MAX_BYTES - sizeof(StartPacket);
static_assert(CALL_ID_MAX_BYTES == 1288);

/// Streams the 16 bytes of an identifier as log lines show it: `stream << UuidText{packet.uuid}`.
struct UuidText {
    const uint8_t* bytes; // borrowed
};
std::ostream& operator<<(std::ostream& stream, UuidText uuid);

/// Views the bytes of a datagram as a packet record, in place. `bytes` must be aligned to 8 and hold
/// sizeof(Packet) readable bytes; the record lives as long as the bytes do.
template <class Packet>
Packet& view_packet(uint8_t* bytes) noexcept {
    return *reinterpret_cast<Packet*>(bytes);
}

} // namespace corvalin::media
