// tool_process: an executable of this project, or a command of the machine, as a child process.
//
// Threads    one thread at a time.
// Ownership  the child is killed and reaped by the destructor if it still runs.
// Errors     the constructor throws std::system_error if the process cannot be started. A limit that is
//            reached is a failure of the test; the child is killed then.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace corvalin::test {

class ToolProcess {
public:
    /// Far above what any tool needs; a test that reaches it has failed.
    static constexpr std::chrono::milliseconds LIMIT = std::chrono::seconds(60);

    /// What the process finds on its standard input: nothing, or what `write_line` writes.
    enum class Input { EMPTY, LINES };

    /// Starts `arguments[0]`, which is looked up in PATH unless it has a slash.
    explicit ToolProcess(std::vector<std::string> arguments, Input input = Input::EMPTY);
    ~ToolProcess();
    ToolProcess(const ToolProcess&) = delete;
    ToolProcess& operator=(const ToolProcess&) = delete;

    pid_t pid() const { return m_pid; }
    void send_signal(int number) const;

    /// Writes to standard input, as it is. Text for a process that has ended is a failure of the test.
    void write(const std::string& text);
    void write_line(const std::string& line) { write(line + "\n"); }
    void close_input();

    /// The next line of standard output without its line feed, empty if the output ended.
    std::string read_line(std::chrono::milliseconds limit = LIMIT);
    /// Waits for the end of the process. Its exit status, or the negative number of the signal that ended it.
    int wait();

    /// All that was written so far and not taken by read_line; complete after `wait`.
    const std::string& out() const { return m_out.text; }
    const std::string& err() const { return m_err.text; }

private:
    struct Stream {
        int fd = -1; // owned
        std::string text;
    };

    static void close_stream(Stream& stream);
    bool is_open() const { return m_out.fd >= 0 || m_err.fd >= 0; }
    void read_some(std::chrono::steady_clock::time_point deadline);
    void read_stream(Stream& stream);
    void kill_child();

    pid_t m_pid = -1;
    bool m_reaped = false;
    int m_status = 0;
    int m_input = -1; // owned
    Stream m_out;
    Stream m_err;
};

} // namespace corvalin::test
