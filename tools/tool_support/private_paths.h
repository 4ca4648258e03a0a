// private_paths: gives one process, and what it starts, its own view of the fixed paths of the machine.
//
// A program with fixed paths can so be run beside an installed one, by any user, and leaves the machine as it
// was: everything happens in a mount namespace of the process and vanishes with its last member.
//
// Threads    call it in a process of one thread, before `exec`; a child right after `fork` is one. The kernel
//            refuses a user namespace to a process of several.
// Ownership  the settings are only read. The directories stay the caller's; what is written below the private
//            paths lands in them.
// Errors     std::system_error that names the step. The process is then somewhere between the two views and
//            should end.
#pragma once

#include <string>

namespace corvalin::tools {

/// An empty path leaves that part of the machine as it is.
struct PrivatePaths {
    std::string etc_dir;        // directory, becomes /etc/tolvaine; the rest of /etc is shown read-only
    std::string log_dir;        // directory, becomes /var/log/tolvaine, the only entry of /var/log
    std::string dev_log_socket; // becomes /dev/log; may be bound later, its directory must exist
    bool own_network = false;   // a network namespace with nothing but the loopback interface, which is up
};

/// Moves the calling process into the namespaces: a mount namespace of its own with the right to mount, else
/// a user namespace too, in which the user and group keep their numbers and the process has no others.
void enter_private_paths(const PrivatePaths& paths);

} // namespace corvalin::tools
