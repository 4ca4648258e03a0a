#include "tests/support/system/udp.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace corvalin::test {

namespace {

constexpr std::size_t MAX_DATAGRAM_BYTES = 65536;
constexpr int RECEIVE_BUFFER_BYTES = 8 << 20;
constexpr std::size_t BATCH = 64;

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

int open_socket() {
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        fail("socket");
    }
    return descriptor;
}

sockaddr_in loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

} // namespace

UdpNode::UdpNode() : m_socket(open_socket()) {
    // As much as net.core.rmem_max allows without a privilege, and all of it with one.
    setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER_BYTES, sizeof(RECEIVE_BUFFER_BYTES));
    setsockopt(m_socket, SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER_BYTES, sizeof(RECEIVE_BUFFER_BYTES));
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof(address);
    if (bind(m_socket, reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
        getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        const int error = errno;
        close(m_socket);
        errno = error;
        fail("bind of a node");
    }
    m_port = ntohs(address.sin_port);
}

UdpNode::UdpNode(UdpNode&& other) noexcept
    : m_socket(std::exchange(other.m_socket, -1)), m_port(other.m_port) {
}

UdpNode::~UdpNode() {
    if (m_socket >= 0) {
        close(m_socket);
    }
}

std::string UdpNode::address() const {
    return "127.0.0.1:" + std::to_string(m_port);
}

std::optional<Bytes> UdpNode::receive(std::chrono::milliseconds limit) {
    pollfd event{m_socket, POLLIN, 0};
    if (poll(&event, 1, static_cast<int>(limit.count())) <= 0) {
        return std::nullopt;
    }
    Bytes datagram(MAX_DATAGRAM_BYTES);
    const ssize_t size = recv(m_socket, datagram.data(), datagram.size(), 0);
    if (size < 0) {
        return std::nullopt;
    }
    datagram.resize(static_cast<std::size_t>(size));
    return datagram;
}

bool UdpNode::has_datagram() const {
    pollfd event{m_socket, POLLIN, 0};
    return poll(&event, 1, 0) > 0;
}

std::string node_list(const std::vector<UdpNode>& nodes) {
    std::string list;
    for (const UdpNode& node : nodes) {
        list += (list.empty() ? "" : ",") + node.address();
    }
    return list;
}

UdpSender::UdpSender(uint16_t port) : m_socket(open_socket()) {
    const sockaddr_in address = loopback(port);
    if (connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        const int error = errno;
        close(m_socket);
        errno = error;
        fail("connect of a sender");
    }
}

UdpSender::~UdpSender() {
    close(m_socket);
}

void UdpSender::send(const Bytes& datagram) {
    // A connected socket reports here that an earlier datagram found no receiver; that is not this one's loss.
    while (::send(m_socket, datagram.data(), datagram.size(), 0) < 0) {
        if (errno != ECONNREFUSED) {
            fail("send");
        }
    }
}

void UdpSender::send_all(const std::vector<Bytes>& datagrams) {
    if (!m_batch) {
        m_batch.emplace(m_socket, BATCH, tools::SendBatch::SEGMENTS_MAX);
    }
    for (const Bytes& datagram : datagrams) {
        if (datagram.size() <= tools::SendBatch::SLOT_BYTES) {
            std::copy(datagram.begin(), datagram.end(), m_batch->slot());
            m_batch->commit(datagram.size());
        } else {
            m_batch->flush(); // those before it first
            send(datagram);
        }
    }
    m_batch->flush();
}

} // namespace corvalin::test
