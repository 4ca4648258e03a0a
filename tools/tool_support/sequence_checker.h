// sequence_checker: follows the sequence numbers of sessions as one receiver sees them. Each session must bring
// 1, 2, 3, ... without a gap or a repeat, the last of them on its terminate packet.
//
// Threads    one thread.
// Errors     none; a session costs memory for as long as the checker lives, so that late repeats are seen.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>

namespace corvalin::tools {

struct SequenceCounts {
    uint64_t sessions = 0;       // that were seen
    uint64_t ended_sessions = 0; // of them, those with a terminate packet
    uint64_t gaps = 0;           // places where numbers are missing
    uint64_t missing = 0;        // numbers that are missing at these places, also those that come late
    uint64_t repeats = 0;        // packets with a number that was passed already, repeated or late
    uint64_t after_end = 0;      // packets behind the terminate packet of their session that are no repeats

    bool are_clean() const noexcept { return gaps == 0 && repeats == 0 && after_end == 0; }
    void add(const SequenceCounts& other) noexcept;
    bool operator==(const SequenceCounts&) const = default;
};

class SequenceChecker {
public:
    /// Takes the next packet of session `id`. A start packet with number 1 after a terminate packet begins a new
    /// session under the same id.
    void on_packet(uint64_t id, uint8_t type, uint64_t seq);

    const SequenceCounts& counts() const noexcept { return m_counts; }

private:
    struct Session {
        uint64_t next_seq = 1;
        bool ended = false;
    };

    void follow(Session& session, uint64_t seq) noexcept;

    SequenceCounts m_counts;
    std::unordered_map<uint64_t, Session> m_sessions;
};

} // namespace corvalin::tools
