// media_packet_reader: the hand-over of packets from the receiving thread to the reader thread.
//
// Threads    read_from: the main thread, the ring's only producer. start, stop: the owner's thread.
//            Everything that is private or begins with on_: the reader thread.
// Ownership  the listener and the counters are borrowed and outlive the reader. A packet belongs to the ring
//            and the frames of the two threads, and is back in the pool when the listener has returned.
// Errors     a packet that fails is counted and forgotten; nothing on this path logs it.
#pragma once

#include "corvalin_lib/counter.h"
#include "corvalin_lib/media_packet.h"
#include "corvalin_lib/media_packet_buffer.h"
#include "corvalin_lib/queue_reader.h"
#include "corvalin_lib/reference_countable.h"

#include <cstddef>
#include <cstdint>

namespace corvalin::media {

// Zero at process start. Each counter names its writing thread; those of different threads share no cache
// line.
struct PacketReaderStatistic : QueueIdleReaderStatistic {
    // Main thread.
    alignas(128) Counter dropped_min_length; // datagrams shorter than a header
    Counter dropped_max_length;              // datagrams longer than a packet buffer
    Counter dropped_failed_allocation;       // the pool had no free buffer
    // Reader thread.
    alignas(128) Counter rejected_bad_marker;
    Counter rejected_version;
    Counter rejected_corrupted_size; // of a known type, but not of the length that its fields say
    Counter rejected_unknown_type;
    Counter start_packets; // valid packets, by type
    Counter term_packets;
    Counter data_packets;
};

/// Takes the valid packets. All calls come on the reader thread. A packet lies in the pooled buffer, is valid
/// during the call only, and may be changed in place.
class PacketReaderListener {
public:
    virtual void on_packet(StartPacket& packet) = 0;
    virtual void on_packet(TerminatePacket& packet) = 0;
    virtual void on_packet(DataPacket& packet) = 0;
    /// Comes in every round of the reader's loop, ahead of the packet if there is one.
    virtual void on_packet_try() = 0;
    /// The ring is empty. Returns true if housekeeping removed anything.
    virtual bool on_packet_idle() = 0;

protected:
    ~PacketReaderListener() = default;
};

/// What a listener may be besides: it hears of the packets that still wait in the ring, so that it can fetch what they
/// will need into the caches meanwhile. Reader thread.
class PacketLookahead {
public:
    /// How far behind the packet in hand the farthest is that is told.
    static constexpr std::size_t PACKETS_AHEAD = 5;

    /// Comes ahead of a packet that is handled while others wait behind it: with one of those or, until the farthest is
    /// reached, with two, one after the other. Each is told once at most, in their order. Null if none has come into sight.
    /// Nothing of `packet` has been validated yet, and it may be that it is never handled: nothing that can be observed may
    /// come of it. It is valid during the call only.
    virtual void on_packet_ahead(const PacketHeader* packet) = 0;

protected:
    ~PacketLookahead() = default;
};

class PacketReader : public QueueIdleReader<rc_ptr<PacketBuffer>, 100'000, 1'000'000'000> {
public:
    /// Both are borrowed and outlive the reader. A listener that is a PacketLookahead too is told of packets ahead.
    PacketReader(PacketReaderListener& listener, PacketReaderStatistic& statistic);

    /// Copies one datagram into a pooled buffer and hands it to the reader thread.
    void read_from(const void* data, unsigned long size);

    void run() override;
    void on_queue_read(rc_ptr<PacketBuffer> packet) override;
    bool on_queue_idle() override;
    void on_queue_try() override;
    /// Ends and joins the reader thread, which takes up to a second when it sleeps. Packets in the ring are
    /// dropped. Returns 0, or the error number of the join.
    int stop() override;

private:
    void look_ahead();
    void catch_up_ahead(uint64_t fetchable);
    void fetch_header_of(uint64_t place);
    void tell_of(uint64_t place);
    void notify(StartPacket& packet);
    void notify(TerminatePacket& packet);
    void notify(DataPacket& packet);
    template <class Packet>
    void notify_if_whole(PacketBuffer& buffer);

    // The constructor took no other kind of block.
    PacketReaderStatistic& statistic() const noexcept {
        return static_cast<PacketReaderStatistic&>(QueueIdleReader::statistic());
    }

    PacketReaderListener* const m_listener; // borrowed
    PacketLookahead* const m_lookahead;     // the same object; null if it is none
    // Of those that wait, counted from the next one on; reader thread only.
    uint64_t m_fetched = 0; // packets whose header is being fetched
    uint64_t m_told = 0;    // packets of which m_lookahead has been told: no more than those
};

} // namespace corvalin::media
