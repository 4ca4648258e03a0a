// media_sink: counts and checks the datagrams that arrive at one port of a node.
//
// Threads    one thread.
// Errors     none; what is wrong is counted.
#pragma once

#include "tools/tool_support/sequence_checker.h"
#include "tools/tool_support/session_schedule.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace corvalin::tools {

struct SinkCounts {
    uint64_t datagrams = 0; // all of them
    uint64_t bytes = 0;
    std::array<uint64_t, PACKET_KINDS> packets{}; // valid ones by PacketKind
    uint64_t invalid = 0;                         // no packet of the wire format
    uint64_t changed = 0;                         // packets with a byte that the sender did not make so
    SequenceCounts sequence;

    void add(const SinkCounts& other) noexcept;
    bool are_clean() const noexcept { return invalid == 0 && changed == 0 && sequence.are_clean(); }
    bool operator==(const SinkCounts&) const = default;
};

enum class SinkMode {
    discard, // datagrams and bytes only
    check,   // the form of each packet and the sequence of each session
    verify,  // every byte as well
};

class MediaSink {
public:
    explicit MediaSink(SinkMode mode) noexcept : m_mode(mode) {}

    /// `bytes` is aligned to 8, unless the mode is `discard`, which does not look at it. `size` is the datagram's
    /// true length, of which at least PACKET_MAX_BYTES are there.
    void on_datagram(const uint8_t* bytes, std::size_t size);

    const SinkCounts& counts() const noexcept { return m_counts; }

private:
    const SinkMode m_mode;
    SequenceChecker m_checker;
    SinkCounts m_counts;
};

} // namespace corvalin::tools
