// router_fixture: a test with one router, its nodes and a sender.
#pragma once

#include "tests/support/packet_builder.h"
#include "tests/support/system/router_process.h"
#include "tests/support/system/statistic_report.h"
#include "tests/support/system/udp.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace corvalin::test {

// Values of the byte `flags`.
constexpr uint8_t TO_NOBODY = 0;
constexpr uint8_t TO_WRITER = 0x80;
constexpr uint8_t TO_MEDIA = 0x40;
constexpr uint8_t TO_BOTH = 0xC0;

class RouterTest : public ::testing::Test {
protected:
    /// Starts the router with this content of router.conf and these arguments, and waits until it receives.
    void start(const std::string& configuration, const std::vector<std::string>& arguments = {});
    /// Starts the router with so many writer and media nodes, and further options.
    void start_with_nodes(std::size_t writers, std::size_t medias, const std::string& configuration = "");

    RouterProcess& router() { return *m_router; }
    SyslogSocket& syslog() { return m_place.syslog(); }
    UdpNode& writer(std::size_t index = 0) { return m_writers.at(index); }
    UdpNode& media(std::size_t index = 0) { return m_medias.at(index); }

    void send(const Bytes& datagram) { m_sender->send(datagram); }
    /// Sends a start packet with this id and these flags, and nothing else of interest.
    void send_start(uint64_t id, uint8_t flags) { send(start_packet().id(id).seq(1).flags(flags).bytes()); }

    /// Waits for this text in a record of this priority and this router. False, and the test has failed, if it
    /// does not come.
    bool wait_for_trace(int priority, const std::string& text);
    std::size_t trace_count(int priority, const std::string& text);
    /// Waits until a report has these counters. The port that a report shows is the configured one, here 0.
    void expect_counters(const Counters& expected) { expect_report(syslog(), 0, expected); }

    // In this order: the router goes before what it talks to.
    RouterPlace m_place;
    std::vector<UdpNode> m_writers;
    std::vector<UdpNode> m_medias;
    std::optional<RouterProcess> m_router;
    std::optional<UdpSender> m_sender;
};

} // namespace corvalin::test
