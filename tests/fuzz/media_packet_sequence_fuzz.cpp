// media_packet_sequence_fuzz: the media pipeline from read_from to sendto, on any sequence of datagrams.
//
// The input is cut into commands: datagrams (raw bytes, or packets that are shaped like real ones and damaged
// a little), rounds of the reader, steps of the clock, new node lists, sends that fail, a heap that is
// exhausted. They go to a real media::PacketReader with a real router::RoutingManager behind it, on one
// thread: the reader's thread is never started, and a round of its loop is a plain call.
//
// The oracle is PacketModel, which is told the same commands: every counter, every session of the table and
// its place in the list, and every line, hook and datagram that leaves must be as it says. Above the model
// stands the law that needs none: datagrams in are the two length drops, failed allocations, dropped elements
// and passed elements; and passed elements are, once the ring is empty, the four rejections and the three
// types.
//
// The commands are in `Sequence::step`. tests/fuzz/make_packet_seeds.py writes the corpus.
#include "corvalin_lib/log.h"
#include "corvalin_lib/media_packet_buffer.h"
#include "corvalin_lib/media_packet_reader.h"
#include "corvalin_lib/media_session_manager.h"
#include "corvalin_lib/net_socket.h"
#include "router/routing_manager.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/fuzz/log_recorder.h"
#include "tests/fuzz/packet_model.h"
#include "tests/fuzz/process_edge.h"

#include <algorithm>
#include <array>
#include <list>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

namespace {

using namespace corvalin;
using fuzz::PacketModel;
using fuzz::planted;
using fuzz::record_event;
using fuzz::require;
using fuzz::require_equal;

fuzz::Reach reach({
    "elements",
    "passed_elements",
    "dropped_elements",
    "empty_hits",
    "idle_hits",
    "dropped_min_length",
    "dropped_max_length",
    "dropped_failed_allocation",
    "rejected_bad_marker",
    "rejected_version",
    "rejected_corrupted_size",
    "rejected_unknown_type",
    "start_packets",
    "term_packets",
    "data_packets",
    "session_number",
    "zombie_number",
    "existing_index_errors",
    "allocation_errors",
    "unknown_index_errors",
    "lost_packets",
    "sequence_breaks",
    "audit_calls",
    "audit_executions",
    "activity that wraps",
    "audit ahead of a packet",
    "call id of the greatest length",
    "call id with a zero byte",
    "data for a zombie",
    "end of a zombie",
    "send in parts",
    "send that is refused",
    "session refused",
    "session with two nodes",
    "timeout of a live session",
    "timeout of a zombie",
    "zombie that could not be built",
});

constexpr uint64_t CLOCK_START_US =
    1'000'000'000'000; // far enough from 0 for activities that lie in the past
constexpr uint64_t CLOCK_END_US = uint64_t{1} << 62;

// What the world does to the manager beside sending packets.
int64_t clock_us = 0;
bool is_heap_exhausted = false;
bool is_session_refused = false;
bool is_auditing = false;

// A session is stamped while it is built, so a clock that throws is a heap that is exhausted just then. The
// audit reads the clock as well, and has no such excuse.
int64_t read_clock() {
    if (is_heap_exhausted && !is_auditing) {
        is_heap_exhausted = false;
        throw std::bad_alloc();
    }
    return clock_us;
}

// Tells of the hooks, and shows the table.
class RecordingManager : public router::RoutingManager {
public:
    using RoutingManager::RoutingManager;

    media::Session* create_session(const media::StartPacket& packet, unsigned long& result) override {
        require_equal("result on entry", 1U, result);
        if (is_session_refused) {
            is_session_refused = false;
            return nullptr;
        }
        return RoutingManager::create_session(packet, result);
    }
    void on_session_created(rc_ptr<media::Session> session, media::StartPacket& packet) override {
        require(m_index.find(packet.id) != nullptr, "a new session is in the table when its hook runs");
        record_hook("created", *session, packet);
        RoutingManager::on_session_created(session, packet);
        record_event("sent as " + std::to_string(packet.seq));
    }
    void on_session_media(rc_ptr<media::Session> session, media::DataPacket& packet) override {
        require(session.get() == m_sessions.back().get(), "an active session is the last of the list");
        record_hook("media", *session, packet);
        RoutingManager::on_session_media(session, packet);
        record_event("sent as " + std::to_string(packet.seq));
    }
    void on_session_terminated(rc_ptr<media::Session> session, media::TerminatePacket& packet) override {
        require_removed(*session);
        record_hook("terminated", *session, packet);
        RoutingManager::on_session_terminated(session, packet);
        record_event("sent as " + std::to_string(packet.seq));
    }
    void on_session_timedout(rc_ptr<media::Session> session) override {
        require_removed(*session);
        record_event("timed out " + std::to_string(session->m_id));
        RoutingManager::on_session_timedout(session);
    }
    bool audit() override {
        is_auditing = true;
        const bool removed_any = RoutingManager::audit();
        is_auditing = false;
        return removed_any;
    }

    // The list and the index hold the same sessions, and these are the model's, in its order.
    void require_table(const PacketModel& model) {
        require_equal("size of the index", model.sessions().size(), m_index.size());
        require_equal("size of the list", model.sessions().size(), m_sessions.size());
        auto node = m_sessions.begin();
        for (const uint64_t id : model.ids()) {
            const media::Session& session = **node;
            require_equal("session at this place of the list", id, session.m_id);
            require(session.m_node == node, "a session knows its place in the list");
            const rc_ptr<media::Session>* const entry = m_index.find(id);
            require(entry != nullptr && entry->get() == &session, "list and index hold the same session");
            require_equal("owners of a session at rest", 2, session.reference_count());
            require_session(model.sessions().at(id), session);
            ++node;
        }
    }

private:
    static void record_hook(const char* hook, const media::Session& session,
                            const media::PacketHeader& packet) {
        require_equal("session of a hook", packet.id, session.m_id);
        require(!session.m_zombie, "zombies have no hooks");
        record_event(hook + (" " + std::to_string(packet.id)) + " with " + std::to_string(packet.seq));
    }

    void require_removed(const media::Session& session) {
        require(session.m_node == m_sessions.end() && m_index.find(session.m_id) == nullptr,
                "an ended session has left the table when its hook runs");
    }

    static void require_session(const PacketModel::Session& expected, const media::Session& session) {
        require(std::equal(expected.uuid.begin(), expected.uuid.end(), session.m_uuid,
                           [](char one, uint8_t other) { return static_cast<uint8_t>(one) == other; }),
                "uuid of a session");
        require_equal("m_ts", expected.ts, session.m_ts);
        require_equal("m_start_mt", expected.start_mt, session.m_start_mt);
        require_equal("m_created_us", expected.created_us, static_cast<uint64_t>(session.m_created_us));
        require_equal("m_seq", expected.seq, session.m_seq);
        require_equal("m_call_id", expected.call_id, session.m_call_id);
        require_equal("m_last_activity_us", expected.last_activity_us, session.m_last_activity_us);
        require_equal("m_zombie", expected.is_zombie, session.m_zombie);
        const auto* const routed = dynamic_cast<const router::RoutingSession*>(&session);
        require_equal("zombies are never routed", expected.is_zombie, routed == nullptr);
        if (routed != nullptr) {
            require_equal("m_sequence", expected.sent, routed->m_sequence);
            require(std::equal(expected.nodes.begin(), expected.nodes.end(), routed->m_hosts.begin(),
                               routed->m_hosts.end(),
                               [](const fuzz::Node& node, const net::HostAddr& host) {
                                   return node.host == host.host && node.port == host.port;
                               }),
                    "nodes of a session");
        }
    }
};

// A reader outlives many managers: to build its ring anew for each input would take most of the time.
class Relay : public media::PacketReaderListener {
public:
    void on_packet(media::StartPacket& packet) override { m_target->on_packet(packet); }
    void on_packet(media::TerminatePacket& packet) override { m_target->on_packet(packet); }
    void on_packet(media::DataPacket& packet) override { m_target->on_packet(packet); }
    void on_packet_try() override { m_target->on_packet_try(); }
    bool on_packet_idle() override { return m_target->on_packet_idle(); }

    media::SessionManager* m_target = nullptr; // borrowed
};

struct Pipeline {
    Relay relay;
    media::PacketReaderStatistic statistic;
    media::PacketReader reader{relay, statistic};
};

constexpr std::array<std::pair<const char*, Counter media::PacketReaderStatistic::*>, 15> READER_COUNTERS = {{
    {"elements", &media::PacketReaderStatistic::elements},
    {"passed_elements", &media::PacketReaderStatistic::passed_elements},
    {"dropped_elements", &media::PacketReaderStatistic::dropped_elements},
    {"empty_hits", &media::PacketReaderStatistic::empty_hits},
    {"idle_hits", &media::PacketReaderStatistic::idle_hits},
    {"dropped_min_length", &media::PacketReaderStatistic::dropped_min_length},
    {"dropped_max_length", &media::PacketReaderStatistic::dropped_max_length},
    {"dropped_failed_allocation", &media::PacketReaderStatistic::dropped_failed_allocation},
    {"rejected_bad_marker", &media::PacketReaderStatistic::rejected_bad_marker},
    {"rejected_version", &media::PacketReaderStatistic::rejected_version},
    {"rejected_corrupted_size", &media::PacketReaderStatistic::rejected_corrupted_size},
    {"rejected_unknown_type", &media::PacketReaderStatistic::rejected_unknown_type},
    {"start_packets", &media::PacketReaderStatistic::start_packets},
    {"term_packets", &media::PacketReaderStatistic::term_packets},
    {"data_packets", &media::PacketReaderStatistic::data_packets},
}};

constexpr std::array<std::pair<const char*, Counter media::SessionManagerStatistic::*>, 9> SESSION_COUNTERS =
    {{
        {"session_number", &media::SessionManagerStatistic::session_number},
        {"zombie_number", &media::SessionManagerStatistic::zombie_number},
        {"existing_index_errors", &media::SessionManagerStatistic::existing_index_errors},
        {"allocation_errors", &media::SessionManagerStatistic::allocation_errors},
        {"unknown_index_errors", &media::SessionManagerStatistic::unknown_index_errors},
        {"lost_packets", &media::SessionManagerStatistic::lost_packets},
        {"sequence_breaks", &media::SessionManagerStatistic::sequence_breaks},
        {"audit_calls", &media::SessionManagerStatistic::audit_calls},
        {"audit_executions", &media::SessionManagerStatistic::audit_executions},
    }};

// Different bytes for every packet, none of them zero: a byte that moved is seen, and a call id ends where it
// should.
class Pattern {
public:
    void fill(std::string& bytes, std::size_t from) {
        for (std::size_t index = from; index < bytes.size(); ++index) {
            m_state = m_state * 6364136223846793005U + 1442695040888963407U;
            bytes[index] = static_cast<char>(m_state >> 56 | 1);
        }
    }

private:
    uint64_t m_state = 1;
};

void put(std::string& bytes, std::size_t offset, std::size_t width, uint64_t number) {
    for (std::size_t index = 0; index < width; ++index) {
        bytes[offset + index] = static_cast<char>(number >> (8 * index));
    }
}

// What a sender of one session has in mind.
struct Sender {
    uint64_t id;
    uint64_t seq = 0;
    uint64_t mt = 1'000'000'000;
};

class Sequence {
public:
    Sequence(const uint8_t* data, std::size_t size)
        : m_source(data, size), m_is_long(m_source.skip("LONG\n")),
          m_own_pipeline(m_is_long ? std::make_unique<Pipeline>() : nullptr),
          m_pipeline(m_is_long ? *m_own_pipeline : shared_pipeline()),
          m_manager(&m_socket, &m_session_statistic, &read_clock), m_model(CLOCK_START_US, reach) {
        m_pipeline.relay.m_target = &m_manager;
        for (const auto& [name, counter] : READER_COUNTERS) {
            (m_pipeline.statistic.*counter).set(0);
        }
        clock_us = CLOCK_START_US;
        is_heap_exhausted = false;
        is_session_refused = false;
        fuzz::scripted_sends().clear();
        fuzz::take_recorded_events();
        fuzz::install_log_recorder();
        log::Logger::m_instance.m_level = log::Level::INFO;
    }

    void run() {
        while (!m_source.empty()) {
            step();
            compare();
        }
        if (!m_is_long) { // the ring is the next input's too; the other one goes with what is in it
            drain();
        }
        compare();
        compare_conservation();
    }

private:
    static Pipeline& shared_pipeline() {
        static Pipeline pipeline;
        return pipeline;
    }

    void step() {
        const auto command = static_cast<unsigned>(m_source.take<uint8_t>()) % 12;
        switch (command) {
        case 0:
        case 1:
        case 2:
            return feed_shaped();
        case 3:
            return feed(m_source.take_block(m_source.take<uint16_t>() % 2048));
        case 4:
            return run_rounds(std::size_t{m_source.take<uint8_t>()} % 16 + 1);
        case 5:
            return drain();
        case 6:
            return step_clock();
        case 7:
            return run_idle();
        case 8:
            return set_nodes();
        case 9:
            return script_sends();
        case 10:
            return change_world();
        default:
            return flood();
        }
    }

    // A packet that is right unless it is damaged: kind, flags, and steps of seq and mt from the last one of
    // its session.
    void feed_shaped() {
        const auto shape = m_source.take<uint8_t>();
        const auto flags = m_source.take<uint8_t>();
        Sender& sender = m_senders[(shape >> 2) % m_senders.size()];
        constexpr uint64_t MT_STEP_US = 10'000'000;
        if ((shape & 0x40) != 0) {
            sender.seq = m_source.take<uint64_t>();
            sender.mt = m_source.take<uint64_t>();
        } else {
            sender.seq += static_cast<uint64_t>(m_source.take<int8_t>());
            sender.mt += static_cast<uint64_t>(m_source.take<int8_t>()) * MT_STEP_US;
        }
        constexpr uint8_t KINDS[] = {0x81, 0x83, 0x82, 0x83};
        std::string packet = packet_of(KINDS[shape % 4], flags, sender);
        if ((shape & 0x20) != 0) {
            damage(packet);
        }
        feed(packet);
        if ((shape & 0x80) != 0) {
            drain();
        }
    }

    std::string packet_of(uint8_t type, uint8_t flags, const Sender& sender) {
        std::string packet;
        if (type == 0x81) {
            const std::size_t length = take_length(1288);
            packet.resize(88 + length);
            m_pattern.fill(packet, 0);
            put(packet, 86, 2, length);
        } else if (type == 0x83) {
            const std::size_t units = take_length(660);
            packet.resize(56 + 2 * units);
            m_pattern.fill(packet, 0);
            put(packet, 50, 2, units);
        } else {
            packet.resize(48);
            m_pattern.fill(packet, 0);
        }
        put(packet, 0, 4, 0x00FF00FF);
        put(packet, 4, 1, type);
        put(packet, 5, 1, 0);
        put(packet, 6, 1, flags % 2); // side
        put(packet, 7, 1, flags);
        put(packet, 8, 8, sender.id);
        put(packet, 32, 8, sender.seq);
        put(packet, 40, 8, sender.mt);
        return packet;
    }

    // Mostly short; the greatest that passes, its neighbours, and some in between.
    std::size_t take_length(std::size_t greatest) {
        const std::size_t code = m_source.take<uint8_t>();
        if (code < 0xF0) {
            return code;
        }
        return code < 0xF4 ? greatest + code - 0xF1 : greatest * (code - 0xF3) / 13;
    }

    void damage(std::string& packet) {
        const auto kind = m_source.take<uint8_t>() % 8U;
        const auto value = m_source.take<uint16_t>();
        const auto low = static_cast<uint8_t>(value);
        const std::size_t length_offset = static_cast<uint8_t>(packet[4]) == 0x81 ? 86 : 50;
        switch (kind) {
        case 0: // marker
            packet[low % 4] = static_cast<char>(packet[low % 4] ^ (value >> 8));
            break;
        case 1:
            put(packet, 5, 1, low); // version
            put(packet, 4, 1, value >> 8 == 0 ? static_cast<uint8_t>(packet[4]) : value >> 8);
            break;
        case 2:
            put(packet, 4, 1, low); // type
            break;
        case 3:
            if (packet.size() >= length_offset + 2) {
                put(packet, length_offset, 2, value);
            }
            break;
        case 4:
            packet.resize(value % (packet.size() + 1)); // cut off
            break;
        case 5:
            packet.resize(packet.size() + value % 1500, '\x55');
            break;
        case 6: // any byte
            packet[value % packet.size()] = static_cast<char>(packet[value % packet.size()] ^ 0x80);
            break;
        default: // a zero byte within the trailer
            packet[packet.size() - 1 - value % (packet.size() - 47)] = '\0';
            break;
        }
    }

    void feed(const std::string& datagram) {
        // A block of exactly this size, so that a read behind the end is seen.
        const auto exact = std::make_unique<uint8_t[]>(datagram.size());
        std::copy(datagram.begin(), datagram.end(), exact.get());
        m_pipeline.reader.read_from(exact.get(), datagram.size());
        m_model.read_from(datagram);
        ++m_fed;
        m_last_datagram = datagram;
    }

    void run_rounds(std::size_t most) {
        for (std::size_t count = 0; count < most && m_model.ring_size() > 0; ++count) {
            run_round();
        }
    }

    void drain() {
        // To compare everything after each of a hundred thousand rounds would take minutes.
        constexpr std::size_t FEW = 256;
        while (m_model.ring_size() > 0) {
            run_round();
            if (m_model.ring_size() < FEW) {
                compare_counters();
            }
        }
        compare_conservation();
    }

    void run_round() {
        // Its thread is not running, so the loop ends after its first round.
        m_pipeline.reader.QueueIdleReader::run();
        m_model.round();
        compare_events();
    }

    void run_idle() {
        if (m_model.ring_size() > 0) {
            return run_rounds(1);
        }
        if (m_model.idle_round_finds_work()) {
            return run_round();
        }
        // The same hooks by hand: the round would go to sleep for a second.
        m_pipeline.reader.on_queue_try();
        require(!m_pipeline.reader.on_queue_idle(), "an idle reader without work goes to sleep");
        m_pipeline.reader.on_queue_read({});
        m_model.idle_without_work();
    }

    void step_clock() {
        constexpr std::array<uint64_t, 4> STEPS_US = {1, 1'000'000, 299'999'999, 300'000'000};
        const auto kind = m_source.take<uint8_t>();
        uint64_t step_us = 0;
        if ((kind & 0x80) != 0) { // to the very moment when the front expires, or next to it
            const uint64_t moment = m_model.front_expiry_us() + kind % 3 - 1;
            step_us = moment > m_model.now_us() ? moment - m_model.now_us() : 0;
        } else if ((kind & 0x40) != 0) {
            step_us = m_source.take<uint32_t>();
        } else {
            step_us = STEPS_US[kind % STEPS_US.size()];
        }
        if (step_us < CLOCK_END_US - m_model.now_us()) {
            clock_us += static_cast<int64_t>(step_us);
            m_model.advance_clock(step_us);
        }
    }

    void set_nodes() {
        const auto choice = m_source.take<uint8_t>();
        const bool writers = (choice & 0x80) != 0;
        std::vector<fuzz::Node> nodes;
        std::list<net::HostAddr> hosts;
        for (unsigned index = 0; index < choice % 5U; ++index) {
            const std::string host = "127." + std::to_string(writers ? 1 : 2) + ".0." + std::to_string(index);
            const auto port = static_cast<uint16_t>(4000 + 256 * choice + index);
            nodes.push_back({host, port});
            hosts.push_back(net::make_host_addr(host, port));
        }
        if (writers) {
            m_manager.set_writer_hosts(hosts);
        } else {
            m_manager.set_media_hosts(hosts);
        }
        m_model.set_nodes(writers, nodes);
    }

    void script_sends() {
        const auto choice = m_source.take<uint8_t>();
        for (unsigned bit = 0; bit < 8; bit += 2) {
            const auto result = static_cast<fuzz::SendResult>((choice >> bit) % 4 % 3);
            fuzz::scripted_sends().push_back(result);
            m_model.script_send(result);
        }
    }

    void change_world() {
        const auto choice = m_source.take<uint8_t>();
        if (choice % 8 == 6) {
            is_heap_exhausted = true;
            m_model.exhaust_heap();
        } else if (choice % 8 == 7) {
            is_session_refused = true;
            m_model.refuse_session();
        } else {
            log::Logger::m_instance.m_level = static_cast<log::Level>(choice % 8);
            m_model.set_threshold(choice % 8);
        }
    }

    // Only in inputs that ask for it, since they are slow: many datagrams, or a pool that others use up.
    void flood() {
        const auto choice = m_source.take<uint8_t>();
        const std::size_t count = m_source.take<uint16_t>() * std::size_t{4};
        if (!m_is_long) {
            return;
        }
        if (choice == 0) {
            while (m_model.free_buffers() > 0) {
                m_taken_buffers.emplace_back(media::PacketBuffer::allocator.allocate());
                m_model.take_buffers(1);
            }
        } else if (choice == 1) {
            m_model.give_back_buffers(m_taken_buffers.size());
            m_taken_buffers.clear();
        } else { // the last datagram again and again, for the same session or for one after another
            std::string datagram = m_last_datagram;
            constexpr std::size_t MOST = 300'000;
            for (std::size_t index = 0; index < count && m_fed < MOST; ++index) {
                if (choice == 3 && datagram.size() >= 48) {
                    put(datagram, 8, 8, index << 32);
                }
                feed(datagram);
            }
        }
    }

    void compare() {
        compare_events();
        compare_counters();
        constexpr std::size_t FEW = 64;
        if (m_model.sessions().size() < FEW || m_source.empty()) {
            m_manager.require_table(m_model);
        }
    }

    void compare_events() { fuzz::require_same_events(m_model.take_events(), fuzz::take_recorded_events()); }

    void compare_counters() {
        for (const auto& [name, counter] : READER_COUNTERS) {
            require_equal(name, m_model.counter(name), (m_pipeline.statistic.*counter).value());
        }
        for (const auto& [name, counter] : SESSION_COUNTERS) {
            require_equal(name, m_model.counter(name), (m_session_statistic.*counter).value());
        }
    }

    // By the counters of the pipeline alone.
    void compare_conservation() {
        const media::PacketReaderStatistic& statistic = m_pipeline.statistic;
        require_equal("datagrams that reached read_from", m_fed + (planted("conservation") ? 1 : 0),
                      statistic.dropped_min_length.value() + statistic.dropped_max_length.value() +
                          statistic.dropped_failed_allocation.value() + statistic.dropped_elements.value() +
                          statistic.passed_elements.value());
        require_equal("packets that passed the ring", statistic.passed_elements.value() - m_model.ring_size(),
                      statistic.rejected_bad_marker.value() + statistic.rejected_version.value() +
                          statistic.rejected_corrupted_size.value() +
                          statistic.rejected_unknown_type.value() + statistic.start_packets.value() +
                          statistic.term_packets.value() + statistic.data_packets.value());
    }

    fuzz::ByteSource m_source;
    const bool m_is_long;
    const std::unique_ptr<Pipeline> m_own_pipeline;
    Pipeline& m_pipeline;
    net::Socket m_socket; // never opened: sends end at the edge of this process
    media::SessionManagerStatistic m_session_statistic;
    RecordingManager m_manager;
    PacketModel m_model;
    uint64_t m_fed = 0;
    std::string m_last_datagram;
    std::vector<rc_ptr<media::PacketBuffer>> m_taken_buffers;
    Pattern m_pattern;
    // Ids that a table may be weak for: small ones, powers of two, equal low words.
    std::array<Sender, 8> m_senders = {Sender{0},
                                       Sender{1},
                                       Sender{2},
                                       Sender{UINT64_MAX},
                                       Sender{uint64_t{1} << 63},
                                       Sender{uint64_t{1} << 32},
                                       Sender{(uint64_t{1} << 32) + 1},
                                       Sender{0x0123456789ABCDEF}};
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Sequence(data, size).run();
    return 0;
}
