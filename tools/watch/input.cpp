#include "tools/watch/input.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace corvalin::watch {

namespace {

constexpr int DATAGRAMS_IN_TURN = 1000;

[[noreturn]] void fail(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

// What another process has left behind; one that is read answers to a connect.
void remove_dead_socket(const std::string& path, const sockaddr_un& address) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) {
        return;
    }
    const int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool is_dead = probe >= 0 &&
                         connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 &&
                         errno == ECONNREFUSED;
    close(probe);
    if (is_dead) {
        unlink(path.c_str());
    }
}

} // namespace

Input Input::open_log(const std::string& path, bool follow) {
    const int fd = path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (fd < 0 || fstat(fd, &status) != 0) {
        fail(path);
    }
    if (S_ISDIR(status.st_mode)) {
        errno = EISDIR;
        fail(path);
    }
    if (S_ISREG(status.st_mode)) {
        return Input(Kind::FILE, path, fd, follow && path != "-");
    }
    return Input(Kind::STREAM, path, fd, false);
}

Input Input::open_socket(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        fail(path);
    }
    path.copy(address.sun_path, path.size());
    remove_dead_socket(path, address);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        fail(path);
    }
    return Input(Kind::SOCKET, path, fd, true);
}

Input::Input(Input&& other) noexcept
    : m_kind(other.m_kind), m_path(std::move(other.m_path)), m_fd(std::exchange(other.m_fd, -1)),
      m_follow(other.m_follow), m_lines(std::move(other.m_lines)) {
}

Input::~Input() {
    if (m_fd < 0) {
        return;
    }
    if (m_kind == Kind::SOCKET) {
        unlink(m_path.c_str());
    }
    if (m_fd != STDIN_FILENO) {
        close(m_fd);
    }
}

Input::State Input::read(ReportParser& parser, int64_t now_s) {
    if (m_kind == Kind::SOCKET) {
        return read_datagrams(parser, now_s);
    }
    if (m_kind == Kind::STREAM) {
        pollfd event{m_fd, POLLIN, 0};
        if (poll(&event, 1, 0) <= 0) {
            return State::WAIT;
        }
    }
    const ssize_t bytes = ::read(m_fd, m_lines.room(), m_lines.room_bytes());
    if (bytes < 0) {
        if (errno == EINTR || errno == EAGAIN) {
            return State::WAIT;
        }
        fail(m_path);
    }
    if (bytes == 0) {
        return at_end(parser, now_s);
    }
    m_lines.commit(static_cast<std::size_t>(bytes),
                   [&](std::string_view line) { parser.feed_line(line, now_s); });
    return State::MORE;
}

Input::State Input::at_end(ReportParser& parser, int64_t now_s) {
    const auto on_line = [&](std::string_view line) { parser.feed_line(line, now_s); };
    if (!m_follow) {
        m_lines.finish(on_line);
        parser.finish();
        return State::END;
    }
    struct stat here {};
    struct stat named {};
    if (fstat(m_fd, &here) != 0 || stat(m_path.c_str(), &named) != 0) {
        return State::WAIT; // between the two steps of a rotation the name is gone
    }
    if (here.st_ino != named.st_ino || here.st_dev != named.st_dev) {
        const int fd = open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            return State::WAIT;
        }
        m_lines.finish(on_line);
        close(m_fd);
        m_fd = fd;
        return State::MORE;
    }
    if (here.st_size < lseek(m_fd, 0, SEEK_CUR)) { // cut to nothing, in its place
        m_lines.finish(on_line);
        lseek(m_fd, 0, SEEK_SET);
        return State::MORE;
    }
    return State::WAIT;
}

Input::State Input::read_datagrams(ReportParser& parser, int64_t now_s) {
    for (int turn = 0; turn < DATAGRAMS_IN_TURN; ++turn) {
        const ssize_t bytes = recv(m_fd, m_lines.room(), m_lines.room_bytes(), 0);
        if (bytes < 0) {
            if (errno == EINTR || errno == EAGAIN) {
                return State::WAIT;
            }
            fail(m_path);
        }
        parser.feed_datagram(std::string_view(m_lines.room(), static_cast<std::size_t>(bytes)), now_s);
    }
    return State::MORE;
}

} // namespace corvalin::watch
