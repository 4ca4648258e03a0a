#include "tests/support/private_syslog.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace corvalin::test {

namespace {

constexpr int NO_NAMESPACE = 126; // exit status of a child that could not set itself up

class Descriptor {
public:
    explicit Descriptor(int fd = -1) : m_fd(fd) {}
    Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { reset(); }

    int get() const { return m_fd; }
    void reset() {
        if (m_fd != -1) {
            close(m_fd);
        }
        m_fd = -1;
    }

private:
    int m_fd; // owned
};

void check(bool success, const char* what) {
    if (!success) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

void write_file(const std::string& path, const std::string& text) {
    const Descriptor file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    check(file.get() != -1 &&
              write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()),
          path.c_str());
}

/// Forks. The child of an ordinary user is born into its own user and mount namespaces, since a process with
/// several threads cannot enter a user namespace later, and a sanitizer may have a thread of its own. Such a
/// birth passes by the fork handlers of the C library, so root, who can do without, has the plain one.
pid_t fork_child() {
    if (geteuid() == 0) {
        return fork();
    }
    return static_cast<pid_t>(
        syscall(SYS_clone, CLONE_NEWUSER | CLONE_NEWNS | SIGCHLD, nullptr, nullptr, nullptr, 0));
}

/// In the child.
void make_mounts_private(uid_t user, gid_t group) {
    if (user == 0) {
        check(unshare(CLONE_NEWNS) == 0, "unshare of the mount namespace");
    } else {
        write_file("/proc/self/setgroups", "deny");
        write_file("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
        write_file("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
    }
    check(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
}

/// Covers /dev by an empty file system with the null device, which a body may need, and the log socket.
void make_private_dev(int log_socket) {
    const Descriptor null_device(open("/dev/null", O_PATH | O_CLOEXEC));
    check(null_device.get() != -1, "/dev/null");
    check(mount("none", "/dev", "tmpfs", 0, nullptr) == 0, "mount on /dev");
    const Descriptor mount_point(open("/dev/null", O_CREAT | O_WRONLY | O_CLOEXEC, 0666));
    const std::string source = "/proc/self/fd/" + std::to_string(null_device.get());
    check(mount(source.c_str(), "/dev/null", nullptr, MS_BIND, nullptr) == 0, "mount on /dev/null");

    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    check(bind(log_socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0,
          "bind of /dev/log");
}

[[noreturn]] void run_child(const std::function<void()>& body, uid_t user, gid_t group, int log_socket,
                            int error_socket) {
    try {
        make_mounts_private(user, group);
        make_private_dev(log_socket);
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "%s\n", exception.what());
        _exit(NO_NAMESPACE);
    }
    if (dup2(error_socket, STDERR_FILENO) == -1) {
        _exit(NO_NAMESPACE);
    }
    try {
        body();
    } catch (const std::exception& exception) {
        // Nothing may escape: the child would return into the test program and run the other tests too.
        ADD_FAILURE() << "exception in the child process: " << exception.what();
    }
    std::exit(testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
}

void drain(int socket, std::vector<std::string>& datagrams) {
    std::array<char, 65536> buffer{};
    for (;;) {
        const ssize_t size = recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (size < 0) {
            return;
        }
        datagrams.emplace_back(buffer.data(), static_cast<std::size_t>(size));
    }
}

} // namespace

ChildReport run_with_private_syslog(const std::function<void()>& body, std::chrono::milliseconds limit) {
    // The name "/dev/log" is resolved in the child's namespace, so the child binds the socket and the parent,
    // which has the same socket, reads from it.
    const Descriptor log_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    check(log_socket.get() != -1, "socket");
    // Datagrams show where one write ends and the next begins.
    std::array<int, 2> pair{};
    check(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair.data()) == 0, "socketpair");
    const Descriptor error_in(pair[0]);
    Descriptor error_out(pair[1]);
    // Nobody writes into this pipe: it reports its end when the child is gone.
    check(pipe2(pair.data(), O_CLOEXEC) == 0, "pipe2");
    const Descriptor alive_in(pair[0]);
    Descriptor alive_out(pair[1]);

    std::fflush(nullptr); // what is buffered now would be written twice
    const uid_t user = geteuid();
    const gid_t group = getegid();
    const pid_t child = fork_child();
    check(child != -1, "a child in namespaces of its own");
    if (child == 0) {
        run_child(body, user, group, log_socket.get(), error_out.get());
    }
    alive_out.reset();
    error_out.reset();

    ChildReport report;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    std::array<pollfd, 3> events = {
        {{log_socket.get(), POLLIN, 0}, {error_in.get(), POLLIN, 0}, {alive_in.get(), 0, 0}}};
    while (events[2].revents == 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            kill(child, SIGKILL);
            break;
        }
        poll(events.data(), events.size(), static_cast<int>(left.count()));
        drain(log_socket.get(), report.syslog);
        drain(error_in.get(), report.standard_error);
    }
    while (waitpid(child, &report.wait_status, 0) == -1 && errno == EINTR) {
    }
    drain(log_socket.get(), report.syslog);
    drain(error_in.get(), report.standard_error);
    if (WIFEXITED(report.wait_status) && WEXITSTATUS(report.wait_status) == NO_NAMESPACE) {
        throw std::runtime_error("no private /dev/log; the reason stands on the standard error stream");
    }
    return report;
}

testing::AssertionResult succeeded(const ChildReport& report) {
    if (report.wait_status == 0) {
        return testing::AssertionSuccess();
    }
    testing::AssertionResult failure = testing::AssertionFailure();
    failure << "wait status " << report.wait_status << ", standard error:\n";
    for (const std::string& piece : report.standard_error) {
        failure << piece;
    }
    return failure;
}

SyslogLine parse_syslog(const std::string& datagram) {
    SyslogLine line;
    int identity_begin = 0;
    int text_begin = 0;
    std::sscanf(datagram.c_str(), "<%d>%*3[A-Za-z] %*2d %*2d:%*2d:%*2d %n%*[^:]: %n", &line.priority,
                &identity_begin, &text_begin);
    if (text_begin == 0) {
        throw std::runtime_error("not a syslog datagram: " + datagram);
    }
    // The last blank of the form also takes blanks and line ends that belong to the text.
    const std::size_t identity = static_cast<std::size_t>(identity_begin);
    const std::size_t colon = datagram.find(": ", identity);
    line.identity = datagram.substr(identity, colon - identity);
    line.text = datagram.substr(colon + 2);
    return line;
}

} // namespace corvalin::test
