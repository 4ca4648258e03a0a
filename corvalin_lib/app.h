// app: turns a process into a daemon.
//
// Threads    the main thread, before any other exists: a forked process has only the thread that forked.
// Errors     logged; the process that fails leaves with status 1.
#pragma once

#include <functional>
#include <string>

namespace corvalin::app {

struct DaemonModeArgs {
    DaemonModeArgs(std::string pid_file, std::string log_file, std::function<void()> on_child_started,
                   std::function<void()> on_child_failed, std::function<void()> on_parent_exit);

    std::string pid_file; // empty: none is written
    std::string log_file; // receives standard output and standard error
    std::string working_directory;
    // Any of the three may be empty.
    std::function<void()> on_child_started; // first thing in the child
    std::function<void()> on_child_failed;  // before the child exits on a failure
    std::function<void()> on_parent_exit; // before the parent leaves, and before the exit after a failed fork
};

/// Forks once and returns in the child only: a session leader without a terminal, in the working directory,
/// with a file creation mask of 0. The parent leaves with status 0 at once and does not learn what becomes of
/// its child.
void switch_to_daemon_mode(DaemonModeArgs args);

} // namespace corvalin::app
