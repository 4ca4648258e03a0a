#include "tools/tool_support/command_line.h"

#include <iostream>

#include "version_stamp.h"

namespace corvalin::tools {

std::string exit_status_help(const std::string& failed) {
    return "Exit status:\n"
           "  0  success\n"
           "  1  " +
           failed +
           "\n"
           "  2  wrong command line";
}

void add_version_flag(CLI::App& app) {
    app.set_version_flag("--version", app.get_name() + " " + CORVALIN_BUILD_VERSION,
                         "Print the version and exit");
}

void add_summary_options(CLI::App& app, SummaryTarget& target, const std::string& group) {
    app.add_flag("--json", target.as_json, "Summary as JSON instead of text")->group(group);
    app.add_option("--output", target.file, "File for the summary instead of standard output")
        ->type_name("FILE")
        ->group(group);
}

void add_receiving_end_options(CLI::App& app, ReceivingEnd& end) {
    app.add_option("--packets", end.packets, "End after this many datagrams");
    app.add_option("--idle-exit", end.idle_exit_ms,
                   "End when nothing has arrived for this long after the first datagram")
        ->type_name("MS");
    app.add_option("--duration", end.duration_s, "End after this many seconds")->check(CLI::Range(0.0, 1e6));
}

std::optional<int> parse_command_line(CLI::App& app, int argc, const char* const* argv, int usage_status) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& request) { // --help or --version
        app.exit(request, std::cout, std::cerr);
        return EXIT_OK;
    } catch (const CLI::Error& error) {
        std::cerr << app.get_name() << ": " << error.what() << "\nTry '" << app.get_name()
                  << " --help' for more.\n";
        return usage_status;
    }
    return std::nullopt;
}

} // namespace corvalin::tools
