#include "corvalin_lib/net_socket.h"

#include "corvalin_lib/log.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace corvalin::net {

namespace {

constexpr const char* SOURCE = "net_socket";

} // namespace

Socket::~Socket() {
    close();
}

bool Socket::open(int port, unsigned int address) {
    if (m_fd >= 0) {
        return true;
    }
    m_fd = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (m_fd < 0) {
        const int error = errno;
        log::write(SOURCE, __LINE__,
                   log::ErrorMessage() << "SOCKET[ ]: failed to create a socket, error (" << error
                                       << "): " << strerror(error));
        return false;
    }
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(static_cast<uint16_t>(port));
    local.sin_addr.s_addr = htonl(address);
    if (bind(m_fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0) {
        const int error = errno;
        log::write(SOURCE, __LINE__,
                   log::ErrorMessage() << "SOCKET[" << m_fd << "]: failed to bind a socket, error (" << error
                                       << "): " << strerror(error));
        return false;
    }
    return true;
}

[[gnu::hot]] unsigned long Socket::read(unsigned char* buffer, unsigned long size) {
    const ssize_t received = recv(m_fd, buffer, size, MSG_NOSIGNAL);
    if (received >= 0) [[likely]] {
        return static_cast<unsigned long>(received);
    }
    return on_failed_read();
}

[[gnu::cold]] unsigned long Socket::on_failed_read() {
    const int error = errno;
    if (error == EINTR) {
        log::write(SOURCE, __LINE__, log::InfoMessage() << "SOCKET[" << m_fd << "]: system interrupted call");
        return 0;
    }
    log::write(SOURCE, __LINE__,
               log::ErrorMessage() << "SOCKET[" << m_fd << "]: failed to read a data, error (" << error
                                   << "): " << strerror(error));
    close();
    exit(-1); // the other threads use nothing that exit destroys
}

[[gnu::hot]] Socket::Buffer& Socket::read() {
    assert(read_buffer);
    read_buffer->size = read(read_buffer->data, Buffer::CAPACITY);
    return *read_buffer;
}

[[gnu::hot]] bool Socket::send(const sockaddr_in& address, const char* data, unsigned long size) {
    if (data == nullptr) {
        return true;
    }
    unsigned long sent = 0;
    while (sent < size) {
        const ssize_t result = sendto(m_fd, data + sent, size - sent, 0,
                                      reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        if (result < 0) [[unlikely]] {
            report_failed_send(data, size);
            return false;
        }
        sent += static_cast<unsigned long>(result);
    }
    return true;
}

[[gnu::cold]] void Socket::report_failed_send(const char* data, unsigned long size) {
    const int error = errno;
    log::write(SOURCE, __LINE__,
               log::ErrorMessage() << "SOCKET[" << m_fd << "]: failed to send a data (" << size << ": "
                                   << reinterpret_cast<uintptr_t>(data) << "), error (" << error
                                   << "): " << strerror(error));
}

void Socket::close() {
    if (m_fd < 0) {
        return;
    }
    shutdown(m_fd, SHUT_RDWR);
    ::close(m_fd);
    m_fd = -1;
}

} // namespace corvalin::net
