// command_line: what the command lines of all tools have in common.
//
// Threads    main thread, before anything else.
// Errors     a wrong command line is a message on standard error and a status; nothing is thrown.
#pragma once

#include <CLI/CLI.hpp>

#include <optional>
#include <string>

#include "tools/tool_support/receiving_end.h"
#include "tools/tool_support/summary.h"

namespace corvalin::tools {

// Exit statuses of the tools.
constexpr int EXIT_OK = 0;
constexpr int EXIT_FAILED = 1; // failure at run time, or a check that did not hold
constexpr int EXIT_USAGE = 2;  // wrong command line

/// The section of --help about exit statuses, for a tool whose status 1 means `failed`.
std::string exit_status_help(const std::string& failed);

/// Adds --version, which prints the name of the tool and the version of the build.
void add_version_flag(CLI::App& app);

/// --json and --output; `group` is the heading of --help under which they stand.
void add_summary_options(CLI::App& app, SummaryTarget& target, const std::string& group = "Options");
/// --packets, --idle-exit and --duration.
void add_receiving_end_options(CLI::App& app, ReceivingEnd& end);

/// Parses. Empty if the tool should go on, else the status it should end with: 0 after --help and --version,
/// `usage_status` after a wrong command line, with the reason on standard error.
std::optional<int> parse_command_line(CLI::App& app, int argc, const char* const* argv,
                                      int usage_status = EXIT_USAGE);

} // namespace corvalin::tools
