// private_syslog: runs code in a process whose syslog and standard error are the test's own.
//
// The child process lives in a mount namespace of its own, where /dev holds a datagram socket "log" and
// little else. So the real `syslog` of the C library is observed in the raw form that it sends, and nothing
// reaches the machine's own log. As root a mount namespace suffices; any other user gets a user namespace
// with it.
//
// Threads    called on the test's thread while the process has no other.
// Errors     throws std::runtime_error if the namespace cannot be made: such a test has shown nothing and
//            must not pass.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace corvalin::test {

struct ChildReport {
    /// As `waitpid` gives it: 0 if `body` returned (or called exit(0)) and no assertion of the child failed.
    int wait_status = 0;
    /// The datagrams that arrived at /dev/log, in order, as they were sent.
    std::vector<std::string> syslog;
    /// One entry for each write to the standard error stream.
    std::vector<std::string> standard_error;
};

/// Runs `body` in a child process and returns what it sent. A child that is not done within `limit` is
/// killed, which shows in `wait_status`. The child ends through `exit`, so exit handlers run.
ChildReport run_with_private_syslog(const std::function<void()>& body,
                                    std::chrono::milliseconds limit = std::chrono::seconds(60));

/// Whether the child ended well, with its standard error if not: EXPECT_TRUE(succeeded(report)).
testing::AssertionResult succeeded(const ChildReport& report);

struct SyslogLine {
    int priority = -1; // facility | severity
    std::string identity;
    std::string text; // with its line feed
};

/// Takes "<priority>Mmm dd hh:mm:ss identity: text" apart. Throws std::runtime_error if `datagram` is not of
/// this form.
SyslogLine parse_syslog(const std::string& datagram);

} // namespace corvalin::test
