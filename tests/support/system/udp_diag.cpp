#include "tests/support/system/udp_diag.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace corvalin::test {

namespace {

struct Request {
    nlmsghdr header;
    inet_diag_req_v2 body;
};

[[noreturn]] void fail(int error, const char* what) {
    throw std::system_error(error, std::generic_category(), what);
}

// One answer, of which `T` is the part behind the header.
template <class T>
T receive(int descriptor, uint16_t wanted, const char* what) {
    alignas(nlmsghdr) std::array<char, 8192> buffer;
    const ssize_t size = recv(descriptor, buffer.data(), buffer.size(), 0);
    if (size < static_cast<ssize_t>(sizeof(nlmsghdr))) {
        fail(size < 0 ? errno : EPROTO, what);
    }
    nlmsghdr header;
    std::memcpy(&header, buffer.data(), sizeof(header));
    if (header.nlmsg_type == NLMSG_ERROR && wanted != NLMSG_ERROR) {
        nlmsgerr error;
        std::memcpy(&error, buffer.data() + NLMSG_HDRLEN, sizeof(error));
        fail(-error.error, what);
    }
    if (header.nlmsg_type != wanted || size < static_cast<ssize_t>(NLMSG_HDRLEN + sizeof(T))) {
        fail(EPROTO, what);
    }
    T answer;
    std::memcpy(&answer, buffer.data() + NLMSG_HDRLEN, sizeof(answer));
    return answer;
}

} // namespace

UdpDiag::UdpDiag() : m_socket(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {
    if (m_socket < 0) {
        fail(errno, "netlink socket");
    }
}

UdpDiag::~UdpDiag() {
    close(m_socket);
}

uint32_t UdpDiag::queued_bytes(uint16_t port) {
    send_request(SOCK_DIAG_BY_FAMILY, 0, port);
    return receive<inet_diag_msg>(m_socket, SOCK_DIAG_BY_FAMILY, "look at a UDP socket").idiag_rqueue;
}

void UdpDiag::destroy(uint16_t port) {
    send_request(SOCK_DESTROY, NLM_F_ACK, port);
    const int error = -receive<nlmsgerr>(m_socket, NLMSG_ERROR, "destroy a UDP socket").error;
    if (error != 0) {
        fail(error, "destroy a UDP socket (it needs a kernel with CONFIG_INET_DIAG_DESTROY)");
    }
}

// Either end of the pair is the port that is meant: the kernel takes the one for a look and the other for the
// destruction, and a socket without a peer matches any.
void UdpDiag::send_request(uint16_t type, uint16_t flags, uint16_t port) {
    Request request{};
    request.header.nlmsg_len = sizeof(request);
    request.header.nlmsg_type = type;
    request.header.nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
    request.body.sdiag_family = AF_INET;
    request.body.sdiag_protocol = IPPROTO_UDP;
    request.body.idiag_states = ~0u;
    request.body.id.idiag_sport = htons(port);
    request.body.id.idiag_dport = htons(port);
    request.body.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    request.body.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    if (send(m_socket, &request, sizeof(request), 0) != static_cast<ssize_t>(sizeof(request))) {
        fail(errno, "netlink request");
    }
}

} // namespace corvalin::test
