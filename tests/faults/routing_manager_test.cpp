#include "router/routing_manager.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "corvalin_lib/log.h"
#include "tests/faults/faults.h"
#include "tests/support/captured_log.h"
#include "tests/support/heap/counted_heap.h"
#include "tests/support/local_address.h"
#include "tests/support/packet_builder.h"
#include "tests/support/system_error_matcher.h"

namespace {

using namespace corvalin;
using namespace corvalin::test;
using router::RoutingManager;
using ::testing::ElementsAre;

constexpr uint8_t BOTH = 0xc0;

/// Refuses an allocation from the moment on that the line of the assignment has been written: what comes next is the
/// session itself.
class RefusalBehindAssignment {
public:
    explicit RefusalBehindAssignment(uint64_t granted) : m_granted(granted) {
        m_found_write = log::Logger::m_instance.m_write;
        m_found_context = log::Logger::m_instance.m_context;
        log::Logger::m_instance.m_write = &RefusalBehindAssignment::write;
        log::Logger::m_instance.m_context = this;
    }
    ~RefusalBehindAssignment() {
        log::Logger::m_instance.m_write = m_found_write;
        log::Logger::m_instance.m_context = m_found_context;
    }
    RefusalBehindAssignment(const RefusalBehindAssignment&) = delete;
    RefusalBehindAssignment& operator=(const RefusalBehindAssignment&) = delete;

    bool has_happened() const { return m_refused && RefusedAllocation::happened(); }

private:
    static void write(void* context, const char* file, int line, const log::Message& message) {
        auto& self = *static_cast<RefusalBehindAssignment*>(context);
        const log::LoggerImpl::Write found = self.m_found_write;
        found(self.m_found_context, file, line, message);
        if (message.text().find("assigned hosts:") != std::string::npos) {
            self.m_refused.emplace(self.m_granted);
        }
    }

    const uint64_t m_granted;
    log::LoggerImpl::Write m_found_write = nullptr;
    void* m_found_context = nullptr;
    std::optional<RefusedAllocation> m_refused;
};

class RoutingManagerFaultTest : public ::testing::Test {
protected:
    RoutingManagerFaultTest() {
        if (!m_socket.open(0, 0) || !m_node.open(0, INADDR_LOOPBACK)) {
            throw std::runtime_error("no socket");
        }
        m_port = local_port(m_node);
        m_manager.set_writer_hosts({node("127.0.0.1"), node("127.0.0.2")});
        m_manager.set_media_hosts({node("127.0.0.1"), node("127.0.0.3")});
    }

    net::HostAddr node(const char* host) const { return net::make_host_addr(host, m_port); }
    std::string hosts_text(const char* writer, const char* media_node) const {
        return std::string("ROUTING_MANAGER: ") + DEFAULT_UUID_TEXT + ": assigned hosts: " + writer + ":" +
               std::to_string(m_port) + " " + media_node + ":" + std::to_string(m_port);
    }

    template <class Packet>
    Packet& packet(const Bytes& bytes) {
        m_datagram.fill(0);
        std::copy(bytes.begin(), bytes.end(), m_datagram.begin());
        return media::view_packet<Packet>(m_datagram.data());
    }
    media::StartPacket& start(uint64_t id, const std::string& call_id = "") {
        return packet<media::StartPacket>(start_packet().id(id).flags(BOTH).seq(1).call_id(call_id).bytes());
    }
    bool has_datagram() {
        std::array<uint8_t, 2048> buffer{};
        return recv(m_node.descriptor(), buffer.data(), buffer.size(), MSG_DONTWAIT) >= 0;
    }

    alignas(8) std::array<uint8_t, media::PACKET_MAX_BYTES> m_datagram{};
    media::SessionManagerStatistic m_statistic;
    net::Socket m_socket;
    net::Socket m_node;
    uint16_t m_port = 0;
    RoutingManager m_manager{&m_socket, &m_statistic};
};

// The session itself, and its call id where a string cannot hold that within itself.
constexpr std::array<uint64_t, 2> ALLOCATIONS_OF_A_SESSION = {0, 1};
const std::string long_call_id(100, 'c');

TEST_F(RoutingManagerFaultTest, create_session_answers_0_when_the_heap_refuses_the_session) {
    for (const uint64_t granted : ALLOCATIONS_OF_A_SESSION) {
        SCOPED_TRACE(granted);
        unsigned long result = 1;
        media::Session* session = nullptr;
        bool has_happened = false;
        {
            const RefusalBehindAssignment refusal(granted);
            session = m_manager.create_session(start(1, long_call_id), result);
            has_happened = refusal.has_happened();
        }
        ASSERT_TRUE(has_happened);
        EXPECT_EQ(session, nullptr);
        EXPECT_EQ(result, 0u);
    }
}

TEST_F(RoutingManagerFaultTest, a_session_that_the_heap_refuses_is_counted_and_has_moved_the_rotation) {
    for (const uint64_t granted : ALLOCATIONS_OF_A_SESSION) {
        SCOPED_TRACE(granted);
        const CapturedLog log;
        {
            const RefusalBehindAssignment refusal(granted);
            m_manager.on_packet(start(1, long_call_id));
            ASSERT_TRUE(refusal.has_happened());
        }
        EXPECT_THAT(log.records(),
                    ElementsAre("SYSTEM routing_manager: " + hosts_text("127.0.0.1", "127.0.0.1"),
                                std::string("ERROR media_session_manager: SESSION_MANAGER: Session ") +
                                    DEFAULT_UUID_TEXT + " allocation failed"));
        EXPECT_EQ(m_statistic.allocation_errors.value(), granted + 1);
        EXPECT_EQ(m_statistic.zombie_number.value(), 0u);
        EXPECT_EQ(m_statistic.session_number.value(), 0u);
        EXPECT_FALSE(has_datagram());

        // The nodes of the next session are the next ones in turn; this brings the rotation back to its begin.
        const CapturedLog next_log;
        m_manager.on_packet(start(100 + granted));
        EXPECT_THAT(next_log.texts(), ElementsAre(hosts_text("127.0.0.2", "127.0.0.3")));
        m_manager.on_packet(
            packet<media::TerminatePacket>(terminate_packet().id(100 + granted).seq(2).bytes()));
        while (has_datagram()) {
        }
    }
}

// A line of the log that the heap cuts short is no failure, so some of the refusals leave a session.
TEST_F(RoutingManagerFaultTest, a_heap_that_is_exhausted_anywhere_in_create_session_is_never_an_exception) {
    // Longer than what a string holds within itself, so that the copies of the hosts allocate.
    m_manager.set_writer_hosts({net::make_host_addr("writer.node.with.a.long.name", m_port)});
    m_manager.set_media_hosts({net::make_host_addr("media.node.with.a.long.name", m_port)});
    auto& packet = start(1, long_call_id);
    uint64_t granted = 0;
    uint64_t failed = 0;
    for (bool has_happened = true; has_happened; ++granted) {
        SCOPED_TRACE(granted);
        unsigned long result = 1;
        rc_ptr<media::Session> session;
        {
            const RefusedAllocation refused(granted);
            session = m_manager.create_session(packet, result);
            has_happened = RefusedAllocation::happened();
        }
        EXPECT_EQ(result, session ? 1u : 0u);
        if (session) {
            EXPECT_EQ(dynamic_cast<router::RoutingSession&>(*session).m_hosts.size(), 2u);
        } else {
            ++failed;
        }
    }
    EXPECT_GE(failed, 6u); // two names, two entries of the list, the session and its call id
}

TEST_F(RoutingManagerFaultTest, create_session_does_not_catch_a_deadlock_of_the_lock) {
    unsigned long result = 1;
    const CapturedLog log;
    const LockScript script({EDEADLK});
    EXPECT_THAT([&] { m_manager.create_session(start(1), result); }, throws_system_error(EDEADLK));
    EXPECT_EQ(result, 1u);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(RoutingManagerFaultTest,
       the_lock_of_the_writers_is_given_back_before_that_of_the_media_nodes_is_taken) {
    unsigned long result = 1;
    std::vector<LockScript::Event> events;
    rc_ptr<media::Session> session;
    {
        const LockScript script;
        session = m_manager.create_session(start(1), result);
        events = script.events();
    }
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[0].call, "read");
    EXPECT_EQ(events[1].call, "unlock");
    EXPECT_EQ(events[1].lock, events[0].lock);
    EXPECT_EQ(events[2].call, "read");
    EXPECT_NE(events[2].lock, events[0].lock);
    EXPECT_EQ(events[3].call, "unlock");
    EXPECT_EQ(events[3].lock, events[2].lock);
}

TEST_F(RoutingManagerFaultTest, forwarding_takes_no_lock_and_allocates_nothing) {
    m_manager.on_packet(start(1));
    for (const auto& [description, seq] :
         {std::pair{"first data packet", 2}, std::pair{"second data packet", 3}}) {
        SCOPED_TRACE(description);
        auto& data = packet<media::DataPacket>(
            data_packet().id(1).seq(static_cast<uint64_t>(seq)).payload_units(100).bytes());
        const LockScript script;
        const uint64_t allocations_before = allocations();
        m_manager.on_packet(data);
        const uint64_t allocations_behind = allocations();
        EXPECT_EQ(allocations_behind, allocations_before);
        EXPECT_EQ(script.text(), "");
    }
    auto& terminate = packet<media::TerminatePacket>(terminate_packet().id(1).seq(4).bytes());
    const LockScript script;
    const uint64_t allocations_before = allocations();
    m_manager.on_packet(terminate);
    EXPECT_EQ(allocations(), allocations_before);
    EXPECT_EQ(script.text(), "");
}

} // namespace
