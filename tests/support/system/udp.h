// udp: nodes that receive what the router forwards, and senders of media packets, on 127.0.0.1 and in whichever
// network namespace the calling thread is.
//
// Threads    each object: one thread at a time.
// Errors     constructors and sends throw std::system_error.
#pragma once

#include "tests/support/packet_builder.h"
#include "tools/tool_support/udp_batch.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace corvalin::test {

/// A socket on a port of the kernel's choice, with the largest receive buffer that the machine allows.
class UdpNode {
public:
    UdpNode();
    ~UdpNode();
    UdpNode(UdpNode&& other) noexcept;
    UdpNode& operator=(UdpNode&&) = delete;

    uint16_t port() const { return m_port; }
    /// "127.0.0.1:<port>", as node lists name it.
    std::string address() const;

    /// The next datagram; nothing if none came within the limit.
    std::optional<Bytes> receive(std::chrono::milliseconds limit = std::chrono::seconds(30));
    /// True if a datagram lies here unread.
    bool has_datagram() const;

private:
    int m_socket = -1;
    uint16_t m_port = 0;
};

/// The nodes' addresses as one list: "127.0.0.1:1,127.0.0.1:2".
std::string node_list(const std::vector<UdpNode>& nodes);

class UdpSender {
public:
    /// Sends to 127.0.0.1:`port`.
    explicit UdpSender(uint16_t port);
    ~UdpSender();
    UdpSender(const UdpSender&) = delete;
    UdpSender& operator=(const UdpSender&) = delete;

    void send(const Bytes& datagram);
    /// Sends all, as few system calls as may be. Neighbours of one size cost least, as they share a send. A datagram that
    /// the receiver has no room for is lost.
    void send_all(const std::vector<Bytes>& datagrams);

private:
    int m_socket = -1;
    std::optional<tools::SendBatch> m_batch; // from the first send_all on
};

} // namespace corvalin::test
