// router_process: the real executable as a child process, with fixed paths of its own.
//
// A RouterProcess runs in a RouterPlace, which holds what stands in the place of /etc/tolvaine,
// /var/log/tolvaine and /dev/log. Its UDP port is the kernel's choice unless the configuration names one. It has an
// embedded Kafka broker of its own, unless the test writes kafka.conf: routers with one port are one consumer group,
// and that broker gives a group its first assignment after 3 s, but any later one after 44.
//
// Threads    one thread at a time; the captures have their own.
// Ownership  the destructor ends the process. A process that has ended by itself, without the test asking for
//            its exit status, is a failure of the test.
// Errors     what the test environment refuses is an exception; what the router does wrong is a test failure.
#pragma once

#include "tests/support/system/stream_capture.h"
#include "tests/support/system/syslog_socket.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/tool_process.h"
#include "tests/support/waiting.h"

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace corvalin::test {

/// Path of the executable under test.
std::string router_executable();

/// The machine as the router sees it: files and the syslog socket, all in a temp folder.
class RouterPlace {
public:
    /// Makes no router.conf. The first router that starts makes kafka.conf, without which it would not start.
    RouterPlace();

    std::filesystem::path folder() const { return m_folder.path(); }
    /// What the router sees as /etc/tolvaine/corvalin/router.conf and kafka.conf.
    std::filesystem::path router_conf() const { return folder() / "etc" / "corvalin" / "router.conf"; }
    std::filesystem::path kafka_conf() const { return folder() / "etc" / "corvalin" / "kafka.conf"; }
    /// Makes kafka.conf name this broker. False if the test has written or removed that file.
    bool can_choose_broker() const;
    void choose_broker(const std::string& address);
    /// What the router sees as /var/log/tolvaine/corvalin.
    std::filesystem::path log_folder() const { return folder() / "log" / "corvalin"; }
    SyslogSocket& syslog() { return m_syslog; }
    const SyslogSocket& syslog() const { return m_syslog; }

private:
    TemporaryFolder m_folder;
    SyslogSocket m_syslog;
    std::string m_kafka_conf_text; // as it was written last by this object
};

/// How a process has ended.
struct ExitStatus {
    int code = -1;  // -1: not by exit
    int signal = 0; // 0: not by a signal
};
inline bool operator==(const ExitStatus& left, const ExitStatus& right) {
    return left.code == right.code && left.signal == right.signal;
}
std::ostream& operator<<(std::ostream& stream, const ExitStatus& status);
inline ExitStatus exited(int code) {
    return {code, 0};
}
inline ExitStatus killed_by(int signal) {
    return {-1, signal};
}

/// What the kernel tells of the router's receive socket.
struct ReceiveSocket {
    int descriptor = -1;
    uint16_t port = 0;
    uint64_t queued_bytes = 0;
    uint64_t dropped_datagrams = 0;
};

class RouterProcess {
public:
    struct Options {
        /// Folder that the process starts in; none: the place's.
        std::string working_folder;
        /// argv[0]; none: the path of the executable.
        std::string name;
        /// The process blocks at its first line on standard error until `unblock_log`.
        bool blocked_log = false;
    };

    RouterProcess(RouterPlace& place, const std::vector<std::string>& arguments = {});
    RouterProcess(RouterPlace& place, const std::vector<std::string>& arguments, Options options);
    ~RouterProcess();
    RouterProcess(const RouterProcess&) = delete;
    RouterProcess& operator=(const RouterProcess&) = delete;

    pid_t pid() const { return m_pid; }
    /// "127.0.0.1:PORT"; empty if the test has written kafka.conf.
    const std::string& broker() const { return m_broker_address; }

    /// Waits until the main thread blocks in recv and all others block too: from then on a signal interrupts it,
    /// since the kernel prefers the main thread. False, and the test has failed, if it does not come to that.
    bool wait_until_receiving();
    /// Of the process that receives. The first call waits until it does.
    ReceiveSocket receive_socket();
    uint16_t port() { return receive_socket().port; }

    // Standard error, one log line each, without the time; a line that has not the form of a log line stands as
    // it was written, behind "no log line: ".
    std::vector<std::string> log();
    /// How often exactly this line was logged so far: "WARNING | MODULE: text".
    std::size_t log_count(const std::string& line);
    /// Waits for the line. False, and the test has failed, if it does not come.
    bool wait_for_log(const std::string& line, std::size_t times = 1);
    std::vector<std::string> raw_log() { return m_error.lines(); }
    std::vector<std::string> output() { return m_output.lines(); }
    /// Lets a process with `blocked_log` go on.
    void unblock_log() { m_error.start(); }

    void signal(int number) const;
    /// Waits for the end of the process and of its output. A process that does not end is a failure and is
    /// killed.
    ExitStatus wait_for_exit(std::chrono::milliseconds limit = WAIT_LIMIT);
    /// SIGTERM to a process that receives, and its exit status.
    ExitStatus stop();
    /// Ends the process at once. That it had ended before is a failure.
    void kill();

    /// The process is one that puts itself into the background: waits for its own exit status 0, and from then on
    /// this object stands for the daemon that it left. Not for a test that starts other processes meanwhile.
    void follow_daemon();

private:
    void start_broker();
    void start(const std::vector<std::string>& arguments, const Options& options);

    RouterPlace& m_place;                // borrowed
    std::optional<ToolProcess> m_broker; // outlives the router
    std::string m_broker_address;
    std::vector<pid_t> m_siblings; // children of this process before the router was one
    StreamCapture m_error;
    StreamCapture m_output;
    pid_t m_pid = -1;
    std::optional<ExitStatus> m_status;
};

// What /proc tells of any process.

/// The system call that a thread blocks in.
struct BlockingCall {
    long number = -1;
    long descriptor = -1; // the first argument, if it is one
};
/// Nothing if the thread runs or is gone.
std::optional<BlockingCall> blocking_call(pid_t process, pid_t thread);
std::vector<pid_t> threads_of(pid_t process);
/// A field of /proc/PID/status, without name and blanks; empty if there is none.
std::string status_field(pid_t process, const std::string& name);
/// Kilobytes of a field such as "VmHWM".
uint64_t status_kilobytes(pid_t process, const std::string& name);
/// True until the process has ended, by itself or not. A zombie has ended.
bool is_alive(pid_t process);

/// Runs the calling test once more, in a process with a network namespace of its own and all rights over it. True in
/// that process. False in the other one, when the run is over; its failures are failures of the calling test. So a test
/// begins with `if (!in_own_network()) return;`. The process is a new one, since ThreadSanitizer bears no threads in a
/// child that was only forked.
bool in_own_network();

} // namespace corvalin::test
