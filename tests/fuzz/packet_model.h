// packet_model: what the media pipeline has to do with a sequence of datagrams, told a second time.
//
// The model is slow and plain on purpose: maps, strings and fields read by their offset, and nothing of the
// code under test. It keeps every counter, the table in order of activity, and everything that leaves the
// pipeline as one list of events: log lines, trace lines, hooks and datagrams, in their order.
//
// Threads    one.
// Ownership  plain values.
#pragma once

#include "tests/fuzz/fuzz_support.h"
#include "tests/fuzz/log_recorder.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace corvalin::fuzz {

enum class SendResult : uint8_t {
    whole,
    half,    // the system takes a part of it
    refused, // ECONNREFUSED
};

struct Node {
    std::string host; // dotted
    uint16_t port;
};

class PacketModel {
public:
    static constexpr std::size_t POOL_BUFFERS = 150'000;
    static constexpr std::size_t RING_SLOTS = 100'000;

    struct Session {
        std::string uuid; // 16 bytes
        uint64_t start_mt;
        uint64_t created_us;
        uint64_t ts;
        std::string call_id;
        bool is_zombie;
        uint64_t seq;
        uint64_t last_activity_us;
        uint64_t place; // rises with each activity: the smallest one is the front of the list
        uint64_t sent;  // number of packets forwarded
        std::vector<Node> nodes;
    };

    PacketModel(uint64_t now_us, Reach& reach);

    // What happens to the pipeline from outside.
    void read_from(const std::string& datagram);
    void advance_clock(uint64_t microseconds) { m_now_us += microseconds; }
    void set_threshold(int level) { m_threshold = level; }
    void set_nodes(bool writers, std::vector<Node> nodes);
    void script_send(SendResult result) { m_sends.push_back(result); }
    void exhaust_heap() { m_is_heap_exhausted = true; } // the next session or zombie cannot be built
    void refuse_session() { m_is_session_refused = true; }
    void take_buffers(std::size_t count) { m_free_buffers -= count; } // by somebody else
    void give_back_buffers(std::size_t count) { m_free_buffers += count; }

    /// One round of the reader's loop. With an empty ring it must find work, or the reader would sleep.
    void round();
    bool idle_round_finds_work() const;
    /// What an idle round does to the table when there is nothing to do.
    void idle_without_work();

    // What must be seen.
    const std::map<std::string, uint64_t, std::less<>>& counters() const { return m_counters; }
    uint64_t counter(std::string_view name) const { return m_counters.find(name)->second; }
    Events take_events();
    const std::map<uint64_t, Session>& sessions() const { return m_sessions; }
    /// Ids in order of activity.
    std::vector<uint64_t> ids() const;
    uint64_t now_us() const { return m_now_us; }
    std::size_t ring_size() const { return m_ring.size(); }
    std::size_t free_buffers() const { return m_free_buffers; }
    /// When the front of the list expires, 0 with an empty table.
    uint64_t front_expiry_us() const;

private:
    struct Balancer {
        std::vector<Node> nodes;
        std::size_t cursor = 0;
    };

    void count(std::string_view name, uint64_t amount = 1);
    void set_gauge(std::string_view name, uint64_t value);
    void store_session_number() { set_gauge("session_number", m_sessions.size()); }
    void log(int level, const std::string& text);
    void trace(int facility, int level, const std::string& text);

    void on_packet(const std::string& packet);
    void on_start(const std::string& packet);
    void on_data(const std::string& packet);
    void on_terminate(const std::string& packet);
    void trace_start(const std::string& packet);
    bool audit();
    bool audit_and_count();
    std::size_t expired_at_front(std::size_t most) const;
    void set_up_zombie(const std::string& packet);
    void enter(const std::string& packet, const Session& session);
    void remove(uint64_t id);
    bool follow_sequence(const Session& session, uint64_t seq);
    void pick(Balancer& balancer, std::vector<Node>& nodes);
    void forward(const char* hook, uint64_t id, Session& session, const std::string& packet);
    void send(const Node& node, const std::string& packet);

    Reach& m_reach;
    std::map<std::string, uint64_t, std::less<>> m_counters;
    Events m_events;
    uint64_t m_now_us;
    int m_threshold = 3;
    std::size_t m_free_buffers = POOL_BUFFERS;
    std::deque<std::string> m_ring;
    std::map<uint64_t, Session> m_sessions;
    std::map<uint64_t, uint64_t> m_places; // place to id
    uint64_t m_next_place = 0;
    Balancer m_writers;
    Balancer m_media;
    std::deque<SendResult> m_sends;
    bool m_is_heap_exhausted = false;
    bool m_is_session_refused = false;
};

} // namespace corvalin::fuzz
