// local_address: where a socket is bound, as the kernel says.
//
// Errors     throws std::system_error.
#pragma once

#include "corvalin_lib/net_socket.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace corvalin::test {

inline sockaddr_in local_address(int descriptor) {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        throw std::system_error(errno, std::generic_category(), "getsockname");
    }
    return address;
}

inline uint16_t local_port(const net::Socket& socket) {
    return ntohs(local_address(socket.descriptor()).sin_port);
}

} // namespace corvalin::test
