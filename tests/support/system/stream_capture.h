// stream_capture: what a process writes to its standard error or output, as lines.
//
// Threads    a thread of its own reads until the last writer has closed; all operations: any thread. What is
//            asked for reads too, so that whatever was written before the question is in the answer.
// Ownership  the read end of the pipe; the write end is closed by `close_write_end` once the process has it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace corvalin::test {

class StreamCapture {
public:
    StreamCapture();
    ~StreamCapture();
    StreamCapture(const StreamCapture&) = delete;
    StreamCapture& operator=(const StreamCapture&) = delete;

    int write_end() const { return m_write_end; }
    void close_write_end();
    /// Begins to read. Until then a writer blocks once the pipe is full.
    void start();
    /// Fills the pipe, so that the next writer blocks until `start`. The filling is no part of the lines.
    void fill();

    /// All that was written before the call.
    std::vector<std::string> lines();
    /// The first line that fits, behind the first `from` lines; waits for it.
    std::optional<std::string> wait_for(const std::function<bool(const std::string&)>& predicate,
                                        std::size_t from = 0,
                                        std::chrono::milliseconds limit = std::chrono::seconds(30));
    /// Waits until all writers have closed. False if they did not within the limit.
    bool wait_for_end(std::chrono::milliseconds limit = std::chrono::seconds(30));

private:
    void run();
    void take(); // the caller holds m_lock

    int m_read_end = -1; // does not block
    int m_write_end = -1;

    std::mutex m_lock;
    std::condition_variable m_changed;
    std::size_t m_filling_bytes = 0;  // guarded by m_lock
    std::string m_rest;               // guarded by m_lock; a line without its end
    std::vector<std::string> m_lines; // guarded by m_lock
    bool m_started = false;           // guarded by m_lock
    bool m_ended = false;             // guarded by m_lock
    std::thread m_thread;
};

} // namespace corvalin::test
