// udp_diag: asks the kernel about UDP sockets of the calling thread's network namespace, and makes one fail.
//
// Threads    one thread at a time.
// Errors     std::system_error.
#pragma once

#include <cstdint>

namespace corvalin::test {

class UdpDiag {
public:
    UdpDiag();
    ~UdpDiag();
    UdpDiag(const UdpDiag&) = delete;
    UdpDiag& operator=(const UdpDiag&) = delete;

    /// Bytes of memory that datagrams take in the receive queue of the socket on 0.0.0.0:`port`.
    uint32_t queued_bytes(uint16_t port);
    /// Makes the socket on 0.0.0.0:`port` fail as a lost connection does: its owner's recv reports
    /// ECONNABORTED. What `ss -K` does, without its package. Needs CAP_NET_ADMIN in the namespace.
    void destroy(uint16_t port);

private:
    void send_request(uint16_t type, uint16_t flags, uint16_t port);

    int m_socket = -1;
};

} // namespace corvalin::test
