// captured_log: a sink that keeps every message, so that a test can look at what was reported.
//
// Threads    any thread may log while the capture is installed; the capture locks. Installing and removing it
//            changes the record of the process, so threads that log are started after the constructor and
//            joined before the destructor, and at most one test of a process captures at a time (captures may
//            nest on one thread).
// Ownership  the destructor puts back the sink, its context, its close function and the threshold that it
//            found.
// Errors     none.
#pragma once

#include "corvalin_lib/log.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace corvalin::test {

struct CapturedLine {
    log::Level level;
    std::string file;
    int line;
    std::string text;
};

/// For failure messages of tests.
std::ostream& operator<<(std::ostream& stream, const CapturedLine& line);

class CapturedLog {
public:
    /// Installs the capture and leaves the threshold as it is.
    CapturedLog();
    /// Installs the capture and sets the threshold.
    explicit CapturedLog(log::Level threshold);
    ~CapturedLog();
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    // All messages that reach the sink are kept, those above the threshold too: what a statement hands over
    // is the statement's business, and what a line of that level would become is the sink's.
    std::vector<CapturedLine> lines() const;
    std::vector<CapturedLine> lines(log::Level level) const;
    std::vector<std::string> texts() const;
    std::vector<std::string> texts(log::Level level) const;
    /// All of each message but the number of its line: "ERROR net_socket: text".
    std::vector<std::string> records() const;

    /// How often exactly this text was reported with this level.
    std::size_t count(log::Level level, const std::string& text) const;
    /// Waits until some message has exactly this text. False if none came within `limit`.
    bool wait_for(const std::string& text, std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

    /// Forgets what was kept so far.
    void clear();

private:
    static void write(void* context, const char* file, int line, const log::Message& message);

    // The record as it was found.
    void* const m_found_context; // borrowed
    const log::LoggerImpl::Close m_found_close;
    const log::LoggerImpl::Write m_found_write;
    const log::Level m_found_level;

    mutable std::mutex m_lock;
    mutable std::condition_variable m_changed;
    std::vector<CapturedLine> m_lines; // guarded by m_lock
};

} // namespace corvalin::test
