// input: where the log comes from: a pipe, a file that may grow and be rotated, or a syslog socket.
//
// Threads    one thread.
// Ownership  owns its descriptor; the socket's file goes with the object.
// Errors     std::system_error that names the path when it cannot be opened or read.
#pragma once

#include "tools/watch/line_splitter.h"
#include "tools/watch/report_parser.h"

#include <cstdint>
#include <string>

namespace corvalin::watch {

class Input {
public:
    enum class Kind { STREAM, FILE, SOCKET };
    /// What a `read` came to.
    enum class State { MORE, WAIT, END };

    /// `path`: "-" for standard input, or a file; `follow` goes on at its end, and with its successor when it is
    /// rotated.
    static Input open_log(const std::string& path, bool follow);
    /// Binds a datagram socket for a log daemon to write to. A socket of that name that nobody reads is replaced.
    static Input open_socket(const std::string& path);
    ~Input();
    Input(Input&& other) noexcept;
    Input& operator=(Input&&) = delete;

    /// To be waited on with poll; a file is never waited on.
    int fd() const { return m_fd; }
    bool can_be_polled() const { return m_kind != Kind::FILE; }

    /// Reads once without waiting. MORE: read again; WAIT: nothing is here now; END: nothing will come.
    State read(ReportParser& parser, int64_t now_s);

private:
    Input(Kind kind, std::string path, int fd, bool follow)
        : m_kind(kind), m_path(std::move(path)), m_fd(fd), m_follow(follow) {}

    State read_datagrams(ReportParser& parser, int64_t now_s);
    State at_end(ReportParser& parser, int64_t now_s);

    Kind m_kind;
    std::string m_path;
    int m_fd; // owned, but for standard input
    bool m_follow;
    LineSplitter m_lines;
};

} // namespace corvalin::watch
