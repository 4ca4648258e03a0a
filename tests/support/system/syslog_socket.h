// syslog_socket: the test's own syslog daemon, a datagram socket in the place of /dev/log.
//
// Threads    one thread of its own takes the records as they come, since a writer blocks when the socket's
//            short queue is full; all operations may be called from any thread. What is asked for takes them
//            too, so that whatever was written before the question is in the answer.
// Ownership  the socket file goes with the object.
// Errors     the constructor throws std::system_error.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

namespace corvalin::test {

/// One datagram that a process gave to syslog(3): "<priority>Mmm dd hh:mm:ss tag: text".
struct SyslogRecord {
    int priority = -1; // facility and severity; -1 if the datagram has not the form above
    std::string tag;   // "corvalin_router", or "corvalinrouter[<pid>]" behind an openlog
    std::string text;  // with its line feeds
    std::chrono::steady_clock::time_point taken; // when it was taken out of the socket
};

/// Of what was written, whenever that was.
bool operator==(const SyslogRecord& left, const SyslogRecord& right);
/// For failure messages of tests.
std::ostream& operator<<(std::ostream& stream, const SyslogRecord& record);

// Priorities that the router writes with, as numbers of the wire.
constexpr int USER_ERROR = 8 | 3;
constexpr int USER_WARNING = 8 | 4;
constexpr int USER_NOTICE = 8 | 5;
constexpr int USER_INFO = 8 | 6;
constexpr int STATISTIC_NOTICE = 128 | 5; // LOG_LOCAL0
constexpr int PACKET_WARNING = 136 | 4;   // LOG_LOCAL1
constexpr int PACKET_NOTICE = 136 | 5;
constexpr int MEDIA_DEBUG = 184 | 7; // LOG_LOCAL7

class SyslogSocket {
public:
    using Predicate = std::function<bool(const SyslogRecord&)>;

    explicit SyslogSocket(const std::string& path);
    ~SyslogSocket();
    SyslogSocket(const SyslogSocket&) = delete;
    SyslogSocket& operator=(const SyslogSocket&) = delete;

    const std::string& path() const { return m_path; }

    std::vector<SyslogRecord> records() const;
    std::vector<SyslogRecord> records(const Predicate& predicate) const;
    /// The texts of all records of this priority, in the order of arrival.
    std::vector<std::string> texts(int priority) const;
    std::size_t count(const Predicate& predicate) const;

    /// Waits until `enough` is true of all records so far.
    bool wait_until(const std::function<bool(const std::vector<SyslogRecord>&)>& enough,
                    std::chrono::milliseconds limit = std::chrono::seconds(30)) const;
    /// The first record that fits, behind the first `from` records; waits for it.
    std::optional<SyslogRecord> wait_for(const Predicate& predicate, std::size_t from = 0,
                                         std::chrono::milliseconds limit = std::chrono::seconds(30)) const;

    /// Forgets all other records from now on as they come, for tests that provoke very many.
    void keep_only(Predicate predicate);

    /// Takes no more records and fills the queue, so that the next writer blocks until `resume`.
    void block();
    void resume();

private:
    void run();
    void wake() const;
    void take() const; // the caller holds m_lock

    const std::string m_path;
    int m_socket = -1;
    int m_wake = -1; // eventfd: look at m_blocked and m_stop

    mutable std::mutex m_lock;
    mutable std::condition_variable m_changed;
    mutable std::vector<SyslogRecord> m_records; // guarded by m_lock
    Predicate m_keep;                            // guarded by m_lock; none: keep all
    bool m_blocked = false;                      // guarded by m_lock
    bool m_stop = false;                         // guarded by m_lock
    std::thread m_thread;
};

} // namespace corvalin::test
