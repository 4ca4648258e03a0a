// corvalin_private_run: runs a command with private fixed paths.
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <iostream>
#include <iterator>
#include <string>

#include "tools/tool_support/command_line.h"
#include "tools/tool_support/private_paths.h"

namespace {

using namespace corvalin::tools;

constexpr const char* NAME = "corvalin_private_run";

// As env(1) has them, so that a caller can tell the failures of the wrapper from those of the command.
constexpr int EXIT_OWN_FAILURE = 125;
constexpr int EXIT_CANNOT_INVOKE = 126;
constexpr int EXIT_NOT_FOUND = 127;

// The signal that a parent has asked for its own end by is forgotten by the kernel with the change of identity.
void enter_keeping_death_signal(const PrivatePaths& paths) {
    int signal = 0;
    prctl(PR_GET_PDEATHSIG, &signal);
    enter_private_paths(paths);
    prctl(PR_SET_PDEATHSIG, signal);
}

// Everything behind the first "--" is the command, its own options and further "--" included, so it is cut
// off before the parser sees it.
int command_index(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--") == 0) {
            return i + 1;
        }
    }
    return argc;
}

} // namespace

int main(int argc, char** argv) {
    PrivatePaths paths;
    std::string name;
    CommandLine command_line("Runs a command that sees private directories in the place of its fixed paths.\n"
                             "The machine's own /etc, /dev and /var/log stay untouched.\n\n"
                             "  corvalin_private_run [OPTIONS] -- COMMAND [ARGUMENTS]\n",
                             NAME);
    command_line.add_option("--etc", paths.etc_dir, "Directory that appears as /etc/tolvaine")
        .type_name("DIR");
    command_line.add_option("--log", paths.log_dir, "Directory that appears as /var/log/tolvaine")
        .type_name("DIR");
    command_line
        .add_option("--dev-log", paths.dev_log_socket,
                    "Socket that appears as /dev/log; it may be bound later, its directory must exist")
        .type_name("SOCKET");
    command_line.add_flag("--net", paths.own_network,
                          "Network of its own that has only the loopback interface, which is up");
    command_line.add_option("--name", name, "Name under which the command starts, its argv[0]")
        .type_name("NAME");
    command_line.footer(
        "As root the command gets a mount namespace of its own, for any other user a user namespace\n"
        "too. With --etc the rest of /etc is shown read-only; with --log nothing else is in /var/log.\n"
        "The command takes the place of this process: it keeps the process id and gets all signals.\n\n"
        "Exit status: that of the command, or\n"
        "  125  failure of corvalin_private_run itself\n"
        "  126  the command was found and could not be run\n"
        "  127  the command was not found");
    command_line.add_version_flag();

    const int command = command_index(argc, argv);
    const int own_argc = command == argc ? argc : command - 1;
    if (const auto status = command_line.parse(own_argc, argv, EXIT_OWN_FAILURE)) {
        return *status;
    }
    if (command == argc) {
        std::cerr << NAME << ": no command given behind \"--\"\nTry '" << NAME << " --help' for more.\n";
        return EXIT_OWN_FAILURE;
    }

    try {
        enter_keeping_death_signal(paths);
    } catch (const std::exception& error) {
        std::cerr << NAME << ": " << error.what() << "\n";
        return EXIT_OWN_FAILURE;
    }

    const char* const file = argv[command];
    if (!name.empty()) {
        argv[command] = name.data();
    }
    execvp(file, argv + command);
    const int error = errno;
    std::cerr << NAME << ": cannot run " << file << ": " << std::strerror(error) << "\n";
    return error == ENOENT ? EXIT_NOT_FOUND : EXIT_CANNOT_INVOKE;
}
