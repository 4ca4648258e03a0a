// kernel_socket: what the kernel tells of the router's receive socket, which the router itself cannot see.
//
// Threads    free functions; any thread.
// Errors     a file that cannot be read, or has no line for the port, gives nothing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace corvalin::watch {

struct KernelSocket {
    uint64_t drops = 0;        // datagrams dropped for want of room since the socket was opened
    uint64_t queued_bytes = 0; // memory of the datagrams that wait, their bookkeeping included
    uint64_t inode = 0;        // another one is another socket
};

/// The line of the socket on this port in the text of /proc/net/udp. Of several, the one on all addresses.
std::optional<KernelSocket> find_kernel_socket(std::string_view proc_net_udp, uint16_t port);

/// Reads the file, as a rule /proc/net/udp: the sockets of the reader's own network namespace.
std::optional<KernelSocket> read_kernel_socket(const std::string& path, uint16_t port);

/// The receive buffer of a socket opened now: net.core.rmem_default. 0 if it cannot be read.
uint64_t default_receive_buffer_bytes();

} // namespace corvalin::watch
