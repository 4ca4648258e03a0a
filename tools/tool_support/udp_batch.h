// udp_batch: UDP sockets of the tools, and many datagrams with one system call.
//
// Threads    each object: one thread.
// Ownership  a socket closes its descriptor; batches borrow the descriptor and own their buffers.
// Errors     std::system_error that names the call.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace corvalin::tools {

class UdpSocket {
public:
    UdpSocket();
    ~UdpSocket();
    UdpSocket(UdpSocket&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    UdpSocket& operator=(UdpSocket&&) = delete;

    int fd() const noexcept { return m_fd; }
    /// Port 0 takes a port of the kernel's choice.
    void bind_to(const sockaddr_in& address);
    void connect_to(const sockaddr_in& address);
    uint16_t port() const;

    /// Asks for a receive buffer of this size, beyond the machine's limit where the process may, and returns
    /// what it got.
    uint64_t set_receive_buffer_bytes(uint64_t bytes);
    /// Datagrams that the kernel has dropped for want of room in this socket's buffer.
    uint64_t kernel_drops() const;

private:
    int m_fd; // owned
};

/// Datagrams to the peer of a connected socket.
class SendBatch {
public:
    /// The largest datagram.
    static constexpr std::size_t SLOT_BYTES = 2048;

    /// `fd` is borrowed. `max_segments` above 1 lets neighbours of one length share a send, which the kernel cuts apart
    /// again (UDP_SEGMENT, udp(7)): they arrive together, as from a network card that hands over many at a time.
    SendBatch(int fd, std::size_t capacity, std::size_t max_segments = 1);

    /// Where the next datagram is to be written, aligned to 8, SLOT_BYTES long. Sends what is waiting if no slot is
    /// free.
    uint8_t* slot();
    /// Takes the datagram in the slot.
    void commit(std::size_t size);
    /// Takes the datagram that was committed last once more.
    void commit_again();
    /// Sends all that is waiting.
    void flush();

    /// Sends that the peer's machine refused, as nobody has the port open. The datagram is lost.
    uint64_t refused() const noexcept { return m_refused; }

    /// The kernel's limit of datagrams in one send.
    static constexpr std::size_t SEGMENTS_MAX = 64;

private:
    struct alignas(cmsghdr) SegmentSize {
        unsigned char bytes[CMSG_SPACE(sizeof(uint16_t))];
    };

    std::size_t fill_messages();

    std::unique_ptr<uint64_t[]> m_bytes; // words, for the alignment
    std::vector<iovec> m_vectors;        // one for each datagram
    std::vector<mmsghdr> m_messages;     // one for each send
    std::vector<SegmentSize> m_segment_sizes;
    const int m_fd; // borrowed
    const std::size_t m_max_segments;
    std::size_t m_count = 0; // datagrams that wait
    uint64_t m_refused = 0;
};

/// Datagrams that wait at a socket.
class ReceiveBatch {
public:
    /// A longer datagram is cut, and its true length reported.
    static constexpr std::size_t SLOT_BYTES = 2048;

    /// `keep_bytes` false gives lengths only and copies nothing.
    ReceiveBatch(std::size_t capacity, bool keep_bytes);

    /// Takes what is there without waiting. Returns the number of datagrams; fewer than the capacity means that the
    /// socket was empty.
    std::size_t receive(int fd);

    std::size_t capacity() const noexcept { return m_messages.size(); }
    /// Aligned to 8.
    const uint8_t* bytes(std::size_t index) const noexcept {
        return reinterpret_cast<const uint8_t*>(m_bytes.get()) + index * SLOT_BYTES;
    }
    std::size_t size(std::size_t index) const noexcept { return m_messages[index].msg_len; }

private:
    std::unique_ptr<uint64_t[]> m_bytes;
    std::vector<iovec> m_vectors;
    std::vector<mmsghdr> m_messages;
};

/// Reads "PORT" (of 127.0.0.1), "ADDRESS:PORT" or "NAME:PORT". False if the text is none, or the port is 0.
bool parse_endpoint(const std::string& text, sockaddr_in& address);

/// "127.0.0.1:5000".
std::string endpoint_text(const sockaddr_in& address);

} // namespace corvalin::tools
