#include "tests/support/packet_builder.h"

namespace corvalin::test {

uint64_t number_at(const Bytes& bytes, std::size_t offset, std::size_t width) {
    uint64_t number = 0;
    for (std::size_t index = width; index-- > 0;) {
        number = number << 8 | bytes.at(offset + index);
    }
    return number;
}

void put_number(Bytes& bytes, std::size_t offset, std::size_t width, uint64_t number) {
    for (std::size_t index = 0; index < width; ++index) {
        bytes.at(offset + index) = static_cast<uint8_t>(number >> (8 * index));
    }
}

Bytes with_seq(Bytes packet, uint64_t seq) {
    put_number(packet, offset::SEQ, 8, seq);
    return packet;
}

DataPacketBuilder& DataPacketBuilder::payload_units(std::size_t units) {
    Bytes value(units * 2);
    for (std::size_t index = 0; index < value.size(); ++index) {
        value[index] = static_cast<uint8_t>(index % 251 + 1); // never zero, and no power of two as period
    }
    return payload(value);
}

} // namespace corvalin::test
