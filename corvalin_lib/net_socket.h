// net_socket: the UDP socket through which packets enter and leave.
//
// Threads    open, close: while no other thread uses the socket. read: one thread. send: one thread; the
//            class has no lock, and the system call needs none.
// Ownership  owns its descriptor and its receive buffer.
// Errors     logged with the descriptor and errno, and told by a false result; but a read that fails ends the
//            process: a receive socket that fails is not retried.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace corvalin::net {

class Socket {
public:
    /// Room for any UDP datagram whole, so that the true length of an oversized one is seen.
    struct Buffer {
        static constexpr std::size_t CAPACITY = 65536;

        uint8_t data[CAPACITY];
        uint64_t size; // bytes of the last datagram
    };

    Socket() noexcept = default;
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    virtual ~Socket();

    /// Opens and binds; `port` and `address` are in machine order. Returns true at once if there is a
    /// descriptor already. After a failed bind the descriptor stays, so that a second call returns true
    /// without having bound anything. No socket option is set: the buffers have the system's default sizes.
    bool open(int port, unsigned int address);

    /// Receives one datagram and blocks without a limit. Returns its length, cut to `size`; 0 for an
    /// interrupted call and for an empty datagram alike. Any other failure ends the process with status 255.
    unsigned long read(unsigned char* buffer, unsigned long size);
    /// Receives into `read_buffer`, which must be there.
    Buffer& read();

    /// Sends all of `data` to `address`. True at once, without a system call, if there is nothing to send.
    bool send(const sockaddr_in& address, const char* data, unsigned long size);

    /// May be called at any time; a closed socket can be opened anew.
    void close();

    int descriptor() const noexcept { return m_fd; }

    std::unique_ptr<Buffer> read_buffer; // null in a socket that only sends

private:
    unsigned long on_failed_read();
    void report_failed_send(const char* data, unsigned long size);

    int32_t m_fd = -1;
};

} // namespace corvalin::net
