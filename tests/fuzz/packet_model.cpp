#include "tests/fuzz/packet_model.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace corvalin::fuzz {

namespace {

constexpr uint64_t SESSION_TIMEOUT_US = 300'000'000;
constexpr std::size_t AUDIT_BUDGET = 10;
constexpr std::size_t AUDIT_THRESHOLD = 10'000;

constexpr int SYSTEM = 0;
constexpr int ERROR = 1;
constexpr int WARNING = 2;
constexpr int DEBUG = 4;
constexpr int TRACE = 5;

constexpr int LOCAL1 = 17 << 3;
constexpr int LOCAL7 = 23 << 3;

// Little-endian; what lies behind the end of the datagram is zero.
uint64_t field(const std::string& packet, std::size_t offset, std::size_t width) {
    uint64_t number = 0;
    for (std::size_t index = 0; index < width && offset + index < packet.size(); ++index) {
        number |= uint64_t{static_cast<uint8_t>(packet[offset + index])} << (8 * index);
    }
    return number;
}

uint64_t id_of(const std::string& packet) {
    return field(packet, 8, 8);
}
std::string uuid_of(const std::string& packet) {
    return packet.substr(16, 16);
}
uint64_t seq_of(const std::string& packet) {
    return field(packet, 32, 8);
}
uint64_t mt_of(const std::string& packet) {
    return field(packet, 40, 8);
}

std::string call_id_of(const std::string& packet) {
    const std::string trailer = packet.substr(88);
    return trailer.substr(0, trailer.find('\0'));
}

std::string uuid_text(const std::string& uuid) {
    std::string text;
    for (std::size_t index = 0; index < uuid.size(); ++index) {
        if (index >= 4 && index <= 10 && index % 2 == 0) {
            text += "-";
        }
        const auto byte = static_cast<uint8_t>(uuid[index]);
        text += "0123456789abcdef"[byte / 16];
        text += "0123456789abcdef"[byte % 16];
    }
    return text;
}

std::string text_of(uint64_t number) {
    return std::to_string(number);
}

// "mt: 1, uuid: 2, seq: 3", in this order in the lines of data and terminate packets.
std::string packet_text(const std::string& packet) {
    return "mt: " + text_of(mt_of(packet)) + ", uuid: " + uuid_text(uuid_of(packet)) +
           ", seq: " + text_of(seq_of(packet));
}

} // namespace

PacketModel::PacketModel(uint64_t now_us, Reach& reach)
    : m_reach(reach), m_counters({{"elements", 0},
                                  {"passed_elements", 0},
                                  {"dropped_elements", 0},
                                  {"empty_hits", 0},
                                  {"idle_hits", 0},
                                  {"dropped_min_length", 0},
                                  {"dropped_max_length", 0},
                                  {"dropped_failed_allocation", 0},
                                  {"rejected_bad_marker", 0},
                                  {"rejected_version", 0},
                                  {"rejected_corrupted_size", 0},
                                  {"rejected_unknown_type", 0},
                                  {"start_packets", 0},
                                  {"term_packets", 0},
                                  {"data_packets", 0},
                                  {"session_number", 0},
                                  {"zombie_number", 0},
                                  {"existing_index_errors", 0},
                                  {"allocation_errors", 0},
                                  {"unknown_index_errors", 0},
                                  {"lost_packets", 0},
                                  {"sequence_breaks", 0},
                                  {"audit_calls", 0},
                                  {"audit_executions", 0}}),
      m_now_us(now_us) {
}

void PacketModel::count(std::string_view name, uint64_t amount) {
    m_counters.find(name)->second += amount + (planted(name) ? 1 : 0);
    if (amount > 0) {
        m_reach.mark(name);
    }
}

void PacketModel::set_gauge(std::string_view name, uint64_t value) {
    m_counters.find(name)->second = value + (planted(name) ? 1 : 0);
    if (value > 0) {
        m_reach.mark(name);
    }
}

// The sink of the logger takes every line; the threshold is its own business.
void PacketModel::log(int level, const std::string& text) {
    m_events.push_back("log " + text_of(static_cast<uint64_t>(level)) + " " + text);
}

void PacketModel::trace(int facility, int level, const std::string& text) {
    constexpr const char* NAMES[] = {"SYSTEM ", "ERROR  ", "WARNING", "INFO   ", "DEBUG  ", "TRACE  "};
    constexpr int SEVERITIES[] = {5, 3, 4, 6, 7, 7};
    if (level > m_threshold) {
        return;
    }
    const int priority = facility | SEVERITIES[level];
    m_events.push_back("syslog " + text_of(static_cast<uint64_t>(priority)) + " " + NAMES[level] + " | " +
                       text + "\n");
}

Events PacketModel::take_events() {
    return std::exchange(m_events, {});
}

std::vector<uint64_t> PacketModel::ids() const {
    std::vector<uint64_t> ids;
    for (const auto& [place, id] : m_places) {
        ids.push_back(id);
    }
    return ids;
}

uint64_t PacketModel::front_expiry_us() const {
    if (m_places.empty()) {
        return 0;
    }
    return m_sessions.at(m_places.begin()->second).last_activity_us + SESSION_TIMEOUT_US;
}

void PacketModel::set_nodes(bool writers, std::vector<Node> nodes) {
    if (m_threshold >= DEBUG) {
        std::string text = "HOST_BALANCER: received nodes:";
        for (const Node& node : nodes) {
            text += " " + node.host + ":" + text_of(node.port);
        }
        log(DEBUG, text);
    }
    (writers ? m_writers : m_media).nodes = std::move(nodes);
}

void PacketModel::read_from(const std::string& datagram) {
    if (datagram.size() < 48) {
        count("dropped_min_length");
    } else if (datagram.size() > 1376) {
        count("dropped_max_length");
    } else if (m_free_buffers == 0) {
        count("dropped_failed_allocation");
    } else if (m_ring.size() == RING_SLOTS) {
        count("dropped_elements");
    } else {
        count("passed_elements");
        --m_free_buffers;
        m_ring.push_back(datagram);
    }
}

void PacketModel::round() {
    if (m_sessions.size() > AUDIT_THRESHOLD) {
        m_reach.mark("audit ahead of a packet");
        audit_and_count();
    }
    if (m_ring.empty()) {
        count("empty_hits");
        require(audit_and_count(), "the model sent its reader to sleep");
        count("idle_hits");
    } else {
        const std::string packet = std::move(m_ring.front());
        m_ring.pop_front();
        on_packet(packet);
        ++m_free_buffers;
    }
    set_gauge("elements", m_ring.size());
}

// In a round with a large table the audit runs twice, and the first one may leave nothing to the second.
bool PacketModel::idle_round_finds_work() const {
    const std::size_t needed = m_sessions.size() > AUDIT_THRESHOLD ? AUDIT_BUDGET + 1 : 1;
    return expired_at_front(needed) == needed;
}

void PacketModel::idle_without_work() {
    if (m_sessions.size() > AUDIT_THRESHOLD) {
        audit_and_count();
    }
    require(!audit_and_count(), "the model found work in an idle round");
}

std::size_t PacketModel::expired_at_front(std::size_t most) const {
    std::size_t expired = 0;
    for (const auto& [place, id] : m_places) {
        if (expired == most || m_sessions.at(id).last_activity_us + SESSION_TIMEOUT_US > m_now_us) {
            break;
        }
        ++expired;
    }
    return expired;
}

bool PacketModel::audit() {
    const std::size_t expired = expired_at_front(AUDIT_BUDGET);
    for (std::size_t index = 0; index < expired; ++index) {
        const uint64_t id = m_places.begin()->second;
        const Session session = m_sessions.at(id);
        remove(id);
        if (!session.is_zombie) {
            m_events.push_back("timed out " + text_of(id));
        }
        m_reach.mark(session.is_zombie ? "timeout of a zombie" : "timeout of a live session");
        trace(LOCAL1, WARNING,
              "SESSION_MANAGER: Timeout for session " + uuid_text(session.uuid) + ": " +
                  text_of(session.last_activity_us) + " " + text_of(m_now_us));
    }
    store_session_number();
    return expired > 0;
}

bool PacketModel::audit_and_count() {
    count("audit_calls");
    const bool removed_any = audit();
    if (removed_any) {
        count("audit_executions");
    }
    return removed_any;
}

void PacketModel::on_packet(const std::string& packet) {
    const uint64_t type = field(packet, 4, 1);
    const bool is_known_type = type == 0x81 || type == 0x82 || type == 0x83;
    const std::size_t length = type == 0x81   ? 88 + field(packet, 86, 2)
                               : type == 0x83 ? 56 + 2 * field(packet, 50, 2)
                                              : 48;
    if (packet.substr(0, 4) != std::string("\xFF\x00\xFF\x00", 4)) {
        count("rejected_bad_marker");
    } else if (field(packet, 5, 1) != 0) {
        count("rejected_version");
    } else if (!is_known_type) {
        count("rejected_unknown_type");
    } else if (packet.size() != length) {
        count("rejected_corrupted_size");
    } else if (type == 0x81) {
        count("start_packets");
        trace_start(packet);
        on_start(packet);
    } else if (type == 0x83) {
        count("data_packets");
        trace(LOCAL7, TRACE,
              "DATA  | " + packet_text(packet) + ", side: " + text_of(field(packet, 6, 1)) +
                  ", m_flg: " + text_of(field(packet, 48, 2)) + ", m_num: " + text_of(field(packet, 50, 2)) +
                  ", m_off: " + text_of(field(packet, 52, 4)));
        on_data(packet);
    } else {
        count("term_packets");
        trace(LOCAL1, SYSTEM, "TERM  | " + packet_text(packet));
        on_terminate(packet);
    }
}

void PacketModel::trace_start(const std::string& packet) {
    const uint64_t flags = field(packet, 7, 1);
    const bool wants_writer = flags >= 0x80;
    const bool wants_media = flags % 0x80 >= 0x40;
    std::string line = "START | mt: " + text_of(mt_of(packet)) + ", v: 0, f: ";
    line += wants_writer ? "w" : "-";
    line += wants_media ? "a" : "-";
    line += ", uuid: " + uuid_text(uuid_of(packet)) + ", ts: " + text_of(field(packet, 48, 8)) +
            ", seq: " + text_of(seq_of(packet)) +
            ", leg: " + (field(packet, 6, 1) == 0 ? "inbound" : "outbound") +
            ", call id: " + call_id_of(packet) + ", id: " + text_of(id_of(packet)) +
            ", sync ts: " + text_of(field(packet, 56, 8)) + ", sync mt: " + text_of(field(packet, 64, 8));
    if (wants_media) {
        line += ", rule: " + text_of(field(packet, 72, 8));
    }
    if (call_id_of(packet).size() == 1288) {
        m_reach.mark("call id of the greatest length");
    }
    if (call_id_of(packet).size() < field(packet, 86, 2)) {
        m_reach.mark("call id with a zero byte");
    }
    trace(LOCAL1, SYSTEM, line);
}

void PacketModel::on_start(const std::string& packet) {
    const uint64_t id = id_of(packet);
    const std::string uuid = uuid_text(uuid_of(packet));
    if (m_sessions.contains(id)) {
        count("existing_index_errors");
        log(WARNING, "SESSION_MANAGER: Session " + uuid + " already exists");
        return;
    }
    if (std::exchange(m_is_session_refused, false)) {
        m_reach.mark("session refused");
        set_up_zombie(packet);
        return;
    }
    std::vector<Node> nodes;
    const uint64_t flags = field(packet, 7, 1);
    if (flags >= 0x80) {
        pick(m_writers, nodes);
    }
    if (flags % 0x80 >= 0x40) {
        pick(m_media, nodes);
    }
    std::string line = "ROUTING_MANAGER: " + uuid + ": assigned hosts:";
    for (const Node& node : nodes) {
        line += " " + node.host + ":" + text_of(node.port);
    }
    log(SYSTEM, nodes.empty() ? line + " -" : line);
    if (std::exchange(m_is_heap_exhausted, false)) {
        count("allocation_errors");
        log(ERROR, "SESSION_MANAGER: Session " + uuid + " allocation failed");
        return;
    }
    if (nodes.size() == 2) {
        m_reach.mark("session with two nodes");
    }
    enter(packet, {uuid_of(packet), mt_of(packet), m_now_us, field(packet, 48, 8), call_id_of(packet), false,
                   seq_of(packet), m_now_us, 0, 0, nodes});
    forward("created", id, m_sessions.at(id), packet);
}

void PacketModel::on_data(const std::string& packet) {
    const uint64_t id = id_of(packet);
    if (!m_sessions.contains(id)) {
        count("unknown_index_errors");
        trace(LOCAL1, WARNING,
              "DATA  | " + packet_text(packet) + ", side: " + text_of(field(packet, 6, 1)) +
                  " | unknown session");
        set_up_zombie(packet);
        return;
    }
    Session& session = m_sessions.at(id);
    if (!session.is_zombie) {
        if (!follow_sequence(session, seq_of(packet))) {
            return;
        }
        session.seq = seq_of(packet);
    }
    session.last_activity_us = session.created_us - session.start_mt + mt_of(packet);
    if (session.start_mt > mt_of(packet) + session.created_us) {
        m_reach.mark("activity that wraps");
    }
    if (!planted("order")) {
        m_places.erase(session.place);
        session.place = m_next_place++;
        m_places.emplace(session.place, id);
    }
    if (session.is_zombie) {
        m_reach.mark("data for a zombie");
        return;
    }
    forward("media", id, session, packet);
}

void PacketModel::on_terminate(const std::string& packet) {
    const uint64_t id = id_of(packet);
    if (!m_sessions.contains(id)) {
        count("unknown_index_errors");
        trace(LOCAL1, WARNING, "TERM  | " + packet_text(packet) + " | unknown session");
        return;
    }
    Session session = m_sessions.at(id);
    remove(id);
    store_session_number();
    if (session.is_zombie) {
        m_reach.mark("end of a zombie");
        return;
    }
    follow_sequence(session, seq_of(packet));
    forward("terminated", id, session, packet);
}

void PacketModel::set_up_zombie(const std::string& packet) {
    if (std::exchange(m_is_heap_exhausted, false)) {
        m_reach.mark("zombie that could not be built");
        count("allocation_errors");
        log(ERROR, "SESSION_MANAGER: Zombie session " + uuid_text(uuid_of(packet)) + " allocation failed");
        return;
    }
    count("zombie_number");
    enter(packet,
          {uuid_of(packet), mt_of(packet), m_now_us, 0, "", true, seq_of(packet), m_now_us, 0, 0, {}});
}

void PacketModel::enter(const std::string& packet, const Session& session) {
    Session& entered = m_sessions.emplace(id_of(packet), session).first->second;
    entered.place = m_next_place++;
    m_places.emplace(entered.place, id_of(packet));
    store_session_number();
}

void PacketModel::remove(uint64_t id) {
    m_places.erase(m_sessions.at(id).place);
    m_sessions.erase(id);
}

bool PacketModel::follow_sequence(const Session& session, uint64_t seq) {
    if (seq <= session.seq) {
        count("sequence_breaks");
        return false;
    }
    count("lost_packets", seq - session.seq - 1);
    return true;
}

void PacketModel::pick(Balancer& balancer, std::vector<Node>& nodes) {
    if (balancer.nodes.empty()) {
        return;
    }
    if (balancer.cursor >= balancer.nodes.size()) {
        balancer.cursor = 0;
    }
    nodes.push_back(balancer.nodes[balancer.cursor]);
    ++balancer.cursor;
}

void PacketModel::forward(const char* hook, uint64_t id, Session& session, const std::string& packet) {
    m_events.push_back(hook + (" " + text_of(id)) + " with " + text_of(seq_of(packet)));
    session.sent += planted("outgoing_seq") ? 2 : 1;
    std::string forwarded = packet;
    for (std::size_t index = 0; index < 8; ++index) {
        forwarded[32 + index] = static_cast<char>(session.sent >> (8 * index));
    }
    if (planted("forwarded_bytes")) {
        forwarded.back() = static_cast<char>(forwarded.back() ^ 1);
    }
    for (const Node& node : session.nodes) {
        send(node, forwarded);
    }
    m_events.push_back("sent as " + text_of(session.sent));
}

void PacketModel::send(const Node& node, const std::string& packet) {
    std::string left = packet;
    while (!left.empty()) {
        SendResult result = SendResult::whole;
        if (!m_sends.empty()) {
            result = m_sends.front();
            m_sends.pop_front();
        }
        m_events.push_back("send " + node.host + ":" + text_of(node.port) + " " + left);
        if (result == SendResult::refused) {
            m_reach.mark("send that is refused");
            log(ERROR, "SOCKET[-1]: failed to send a data (" + text_of(packet.size()) +
                           ": <address>), error (111): Connection refused");
            return;
        }
        if (result == SendResult::half && left.size() > 1) {
            m_reach.mark("send in parts");
            left.erase(0, left.size() / 2);
        } else {
            left.clear();
        }
    }
}

} // namespace corvalin::fuzz
