#include "tools/tool_support/command_line.h"

#include <CLI/CLI.hpp>

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
