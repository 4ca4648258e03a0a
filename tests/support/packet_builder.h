// packet_builder: media packets with named fields, as the bytes of a datagram.
//
//     start_packet().id(7).seq(10).call_id("abc").bytes()
//
// Every field is written by its offset on the wire and not through the records of
// corvalin_lib/media_packet.h, so that a test of those records does not compare them with themselves. What is
// not set is zero, but for the marker, the type, the uuid (DEFAULT_UUID) and the lengths, which follow the
// call id and the payload until they are set by hand. Bytes are tampered with last: a length or a byte out of
// place wins over the fields.
//
// Threads    as any plain value: one at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace corvalin::test {

using Bytes = std::vector<uint8_t>;
using Uuid = std::array<uint8_t, 16>;

constexpr Uuid DEFAULT_UUID = {0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17,
                               0x18, 0x19, 0x1a, 0x1b, 0x1c, 0x1d, 0x1e, 0x1f};
constexpr const char* DEFAULT_UUID_TEXT = "10111213-1415-1617-1819-1a1b1c1d1e1f";

/// Offsets on the wire.
namespace offset {
constexpr std::size_t MARKER = 0;
constexpr std::size_t TYPE = 4;
constexpr std::size_t VERSION = 5;
constexpr std::size_t SIDE = 6;
constexpr std::size_t FLAGS = 7;
constexpr std::size_t ID = 8;
constexpr std::size_t UUID = 16;
constexpr std::size_t SEQ = 32;
constexpr std::size_t MT = 40;
constexpr std::size_t TS = 48;
constexpr std::size_t SYNC_TS = 56;
constexpr std::size_t SYNC_MT = 64;
constexpr std::size_t RULE = 72;
constexpr std::size_t RESERVED = 80;
constexpr std::size_t CALL_ID_LENGTH = 86;
constexpr std::size_t CALL_ID = 88;
constexpr std::size_t M_FLG = 48;
constexpr std::size_t M_NUM = 50;
constexpr std::size_t M_OFF = 52;
constexpr std::size_t M_PAYLOAD = 56;
} // namespace offset

/// Little-endian number of `width` bytes. Throws std::out_of_range if it does not lie within `bytes`.
uint64_t number_at(const Bytes& bytes, std::size_t offset, std::size_t width);
void put_number(Bytes& bytes, std::size_t offset, std::size_t width, uint64_t number);

inline uint64_t id_of(const Bytes& packet) {
    return number_at(packet, offset::ID, 8);
}
inline uint64_t seq_of(const Bytes& packet) {
    return number_at(packet, offset::SEQ, 8);
}
/// The packet as a node should get it: the same bytes, but for the sequence number.
Bytes with_seq(Bytes packet, uint64_t seq);

/// What the three kinds have in common. `Kind` is the class that derives from it.
template <class Kind>
class PacketBuilder {
public:
    Kind& marker(uint32_t value) { return put(offset::MARKER, 4, value); }
    Kind& type(uint8_t value) { return put(offset::TYPE, 1, value); }
    Kind& version(uint8_t value) { return put(offset::VERSION, 1, value); }
    Kind& side(uint8_t value) { return put(offset::SIDE, 1, value); }
    Kind& flags(uint8_t value) { return put(offset::FLAGS, 1, value); }
    Kind& id(uint64_t value) { return put(offset::ID, 8, value); }
    Kind& uuid(const Uuid& value) { return put_bytes(offset::UUID, {value.begin(), value.end()}); }
    Kind& seq(uint64_t value) { return put(offset::SEQ, 8, value); }
    Kind& mt(uint64_t value) { return put(offset::MT, 8, value); }

    // Tampering, in the order of the calls.
    Kind& byte(std::size_t offset, uint8_t value) {
        m_tampers.push_back({offset, value});
        return self();
    }
    /// Cuts the datagram off, or fills it up with zeros.
    Kind& length(std::size_t bytes_count) {
        m_length = bytes_count;
        m_has_length = true;
        return self();
    }

    /// The datagram.
    Bytes bytes() const {
        Bytes packet = m_record;
        packet.insert(packet.end(), m_trailer.begin(), m_trailer.end());
        if (m_has_length) {
            packet.resize(m_length);
        }
        for (const auto& [offset, value] : m_tampers) {
            packet.at(offset) = value;
        }
        return packet;
    }

protected:
    PacketBuilder(uint8_t type, std::size_t record_bytes) : m_record(record_bytes) {
        marker(0x00FF00FF);
        this->type(type);
        uuid(DEFAULT_UUID);
    }

    Kind& put(std::size_t offset, std::size_t width, uint64_t number) {
        put_number(m_record, offset, width, number);
        return self();
    }
    Kind& put_bytes(std::size_t offset, const Bytes& value) {
        for (std::size_t index = 0; index < value.size(); ++index) {
            m_record.at(offset + index) = value[index];
        }
        return self();
    }
    Kind& self() { return static_cast<Kind&>(*this); }
    void set_trailer(Bytes trailer) { m_trailer = std::move(trailer); }

private:
    Bytes m_record;
    Bytes m_trailer;
    std::size_t m_length = 0;
    bool m_has_length = false;
    std::vector<std::pair<std::size_t, uint8_t>> m_tampers; // offset, value
};

class StartPacketBuilder : public PacketBuilder<StartPacketBuilder> {
public:
    StartPacketBuilder() : PacketBuilder(0x81, 88) {}

    StartPacketBuilder& ts(uint64_t value) { return put(offset::TS, 8, value); }
    StartPacketBuilder& sync_ts(uint64_t value) { return put(offset::SYNC_TS, 8, value); }
    StartPacketBuilder& sync_mt(uint64_t value) { return put(offset::SYNC_MT, 8, value); }
    StartPacketBuilder& rule(uint64_t value) { return put(offset::RULE, 8, value); }
    StartPacketBuilder& reserved(const std::array<uint8_t, 6>& value) {
        return put_bytes(offset::RESERVED, {value.begin(), value.end()});
    }
    /// The trailer, zero bytes and all. Sets the length field too: a wrong one is set behind this call.
    StartPacketBuilder& call_id(const std::string& value) {
        set_trailer({value.begin(), value.end()});
        return call_id_length(static_cast<uint16_t>(value.size()));
    }
    StartPacketBuilder& call_id_length(uint16_t value) { return put(offset::CALL_ID_LENGTH, 2, value); }
};

class DataPacketBuilder : public PacketBuilder<DataPacketBuilder> {
public:
    DataPacketBuilder() : PacketBuilder(0x83, 56) {}

    DataPacketBuilder& m_flg(uint16_t value) { return put(offset::M_FLG, 2, value); }
    DataPacketBuilder& m_off(uint32_t value) { return put(offset::M_OFF, 4, value); }
    /// Sets the number of 16-bit units too: a wrong one is set behind this call.
    DataPacketBuilder& payload(const Bytes& value) {
        set_trailer(value);
        return m_num(static_cast<uint16_t>(value.size() / 2));
    }
    /// A payload of `units` 16-bit units whose bytes tell their place, so that a shifted one is seen.
    DataPacketBuilder& payload_units(std::size_t units);
    DataPacketBuilder& m_num(uint16_t value) { return put(offset::M_NUM, 2, value); }
};

class TerminatePacketBuilder : public PacketBuilder<TerminatePacketBuilder> {
public:
    TerminatePacketBuilder() : PacketBuilder(0x82, 48) {}
};

inline StartPacketBuilder start_packet() {
    return {};
}
inline DataPacketBuilder data_packet() {
    return {};
}
inline TerminatePacketBuilder terminate_packet() {
    return {};
}

} // namespace corvalin::test
