#include "tools/tool_support/udp_batch.h"

#include <arpa/inet.h>
#include <linux/sock_diag.h>
#include <netdb.h>
#include <netinet/udp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "corvalin_lib/utils_str.h"

namespace corvalin::tools {
namespace {

constexpr std::size_t SEND_MAX_BYTES = 65507; // what an IPv4 packet holds beside the headers of IP and UDP

[[noreturn]] void fail(const std::string& step) {
    throw std::system_error(errno, std::generic_category(), step);
}

const sockaddr* generic(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

bool resolve(const std::string& host, in_addr& address) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) {
        return false;
    }
    address = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr;
    freeaddrinfo(found);
    return true;
}

} // namespace

UdpSocket::UdpSocket() : m_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP)) {
    if (m_fd < 0) {
        fail("cannot create a socket");
    }
}

UdpSocket::~UdpSocket() {
    if (m_fd >= 0) {
        close(m_fd);
    }
}

void UdpSocket::bind_to(const sockaddr_in& address) {
    if (bind(m_fd, generic(address), sizeof(address)) != 0) {
        fail("cannot bind to " + endpoint_text(address));
    }
}

void UdpSocket::connect_to(const sockaddr_in& address) {
    if (connect(m_fd, generic(address), sizeof(address)) != 0) {
        fail("cannot connect to " + endpoint_text(address));
    }
}

uint16_t UdpSocket::port() const {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    if (getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        fail("getsockname");
    }
    return ntohs(address.sin_port);
}

uint64_t UdpSocket::set_receive_buffer_bytes(uint64_t bytes) {
    const int wanted = static_cast<int>(std::min<uint64_t>(bytes, INT32_MAX / 2)); // the kernel doubles it
    if (setsockopt(m_fd, SOL_SOCKET, SO_RCVBUFFORCE, &wanted, sizeof(wanted)) != 0 &&
        setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &wanted, sizeof(wanted)) != 0) {
        fail("cannot set the receive buffer");
    }
    int got = 0;
    socklen_t length = sizeof(got);
    if (getsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &got, &length) != 0) {
        fail("cannot read the receive buffer");
    }
    return static_cast<uint64_t>(got);
}

uint64_t UdpSocket::kernel_drops() const {
    std::array<uint32_t, SK_MEMINFO_VARS> information{};
    socklen_t length = sizeof(information);
    if (getsockopt(m_fd, SOL_SOCKET, SO_MEMINFO, information.data(), &length) != 0) {
        fail("cannot read the socket's drops");
    }
    return information[SK_MEMINFO_DROPS];
}

SendBatch::SendBatch(int fd, std::size_t capacity, std::size_t max_segments)
    : m_bytes(std::make_unique<uint64_t[]>(capacity * SLOT_BYTES / sizeof(uint64_t))), m_vectors(capacity),
      m_messages(capacity), m_segment_sizes(capacity), m_fd(fd), m_max_segments(max_segments) {
    for (std::size_t index = 0; index < capacity; ++index) {
        m_vectors[index].iov_base = reinterpret_cast<uint8_t*>(m_bytes.get()) + index * SLOT_BYTES;
    }
}

uint8_t* SendBatch::slot() {
    if (m_count == m_vectors.size()) {
        flush();
    }
    return static_cast<uint8_t*>(m_vectors[m_count].iov_base);
}

void SendBatch::commit(std::size_t size) {
    m_vectors[m_count].iov_len = size;
    ++m_count;
}

void SendBatch::commit_again() {
    const std::size_t last = m_count - 1; // a flush leaves the bytes of its datagrams in place
    const auto* const bytes = static_cast<const uint8_t*>(m_vectors[last].iov_base);
    const std::size_t size = m_vectors[last].iov_len;
    std::copy_n(bytes, size, slot());
    commit(size);
}

// Returns the number of messages that the waiting datagrams make.
std::size_t SendBatch::fill_messages() {
    std::size_t messages = 0;
    for (std::size_t first = 0, next = 0; first < m_count; first = next) {
        const std::size_t size = m_vectors[first].iov_len;
        // Empty datagrams cannot share: nothing of them would be left to cut.
        const std::size_t segments = size == 0 ? 1 : std::min(m_max_segments, SEND_MAX_BYTES / size);
        const std::size_t limit = std::min(m_count, first + segments);
        for (next = first + 1; next < limit && m_vectors[next].iov_len == size; ++next) {
        }
        msghdr& header = m_messages[messages].msg_hdr;
        header = {};
        header.msg_iov = &m_vectors[first];
        header.msg_iovlen = next - first;
        if (next - first > 1) {
            header.msg_control = m_segment_sizes[messages].bytes;
            header.msg_controllen = sizeof(SegmentSize);
            cmsghdr* const control = CMSG_FIRSTHDR(&header);
            control->cmsg_level = SOL_UDP;
            control->cmsg_type = UDP_SEGMENT;
            control->cmsg_len = CMSG_LEN(sizeof(uint16_t));
            const auto segment_bytes = static_cast<uint16_t>(size);
            std::memcpy(CMSG_DATA(control), &segment_bytes, sizeof(segment_bytes));
        }
        ++messages;
    }
    return messages;
}

void SendBatch::flush() {
    const std::size_t messages = fill_messages();
    std::size_t sent = 0;
    while (sent < messages) {
        const int result = sendmmsg(m_fd, &m_messages[sent], static_cast<unsigned int>(messages - sent), 0);
        if (result >= 0) {
            sent += static_cast<std::size_t>(result);
        } else if (errno == ECONNREFUSED) {
            ++m_refused; // reported by this call, but for an earlier datagram: this one is still to be sent
        } else if (errno != EINTR) {
            fail("cannot send");
        }
    }
    m_count = 0;
}

ReceiveBatch::ReceiveBatch(std::size_t capacity, bool keep_bytes)
    : m_bytes(keep_bytes ? std::make_unique<uint64_t[]>(capacity * SLOT_BYTES / sizeof(uint64_t)) : nullptr),
      m_vectors(capacity), m_messages(capacity) {
    for (std::size_t index = 0; index < capacity; ++index) {
        if (keep_bytes) {
            m_vectors[index].iov_base = reinterpret_cast<uint8_t*>(m_bytes.get()) + index * SLOT_BYTES;
            m_vectors[index].iov_len = SLOT_BYTES;
        }
        m_messages[index].msg_hdr.msg_iov = &m_vectors[index];
        m_messages[index].msg_hdr.msg_iovlen = 1;
    }
}

std::size_t ReceiveBatch::receive(int fd) {
    while (true) {
        // MSG_TRUNC: the length of the datagram and not of what fits.
        const int result = recvmmsg(fd, m_messages.data(), static_cast<unsigned int>(m_messages.size()),
                                    MSG_DONTWAIT | MSG_TRUNC, nullptr);
        if (result >= 0) {
            return static_cast<std::size_t>(result);
        }
        if (errno == EAGAIN) {
            return 0;
        }
        if (errno != EINTR) {
            fail("cannot receive");
        }
    }
}

bool parse_endpoint(const std::string& text, sockaddr_in& address) {
    const std::size_t colon = text.rfind(':');
    const std::string host = colon == std::string::npos ? "127.0.0.1" : text.substr(0, colon);
    const std::string port_text = colon == std::string::npos ? text : text.substr(colon + 1);
    uint16_t port = 0;
    const bool has_digits_only =
        !port_text.empty() && port_text.find_first_not_of("0123456789") == std::string::npos;
    if (!has_digits_only || !utils::str::try_parse_value<uint16_t, 10>(port_text.c_str(), port).is_ok() ||
        port == 0) {
        return false;
    }
    address = sockaddr_in{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    return resolve(host, address.sin_addr);
}

std::string endpoint_text(const sockaddr_in& address) {
    char host[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &address.sin_addr, host, sizeof(host));
    return std::string(host) + ":" + std::to_string(ntohs(address.sin_port));
}

} // namespace corvalin::tools
