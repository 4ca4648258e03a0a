#include "tools/tool_support/command_line.h"

#include <CLI/CLI.hpp>

#include <iostream>
#include <utility>

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

Option Option::required() {
    m_option->required();
    return *this;
}

Option Option::group(const std::string& heading) {
    m_option->group(heading);
    return *this;
}

Option Option::type_name(const std::string& name) {
    m_option->type_name(name);
    return *this;
}

Option Option::show_default() {
    m_option->capture_default_str();
    return *this;
}

Option Option::show_default(const std::string& text) {
    m_option->default_str(text);
    return *this;
}

Option Option::range(int low, int high) {
    m_option->check(CLI::Range(low, high));
    return *this;
}

Option Option::range(uint64_t low, uint64_t high) {
    m_option->check(CLI::Range(low, high));
    return *this;
}

Option Option::range(double low, double high) {
    m_option->check(CLI::Range(low, high));
    return *this;
}

Option Option::one_of(const std::vector<std::string>& words) {
    m_option->check(CLI::IsMember(words));
    return *this;
}

Option Option::existing_file() {
    m_option->check(CLI::ExistingFile);
    return *this;
}

Option Option::ipv4() {
    m_option->check(CLI::ValidIPV4);
    return *this;
}

Option Option::excludes(Option other) {
    m_option->excludes(other.m_option);
    return *this;
}

Option Option::one_word_each() {
    m_option->allow_extra_args(false);
    return *this;
}

// One is expected, and by itself that would make an error of a second.
Option Option::shown_as_single() {
    m_option->expected(1)->take_all();
    return *this;
}

template <OptionValue Value>
Option Command::add_option(const std::string& names, Value& value, const std::string& help) {
    return Option(*m_app->add_option(names, value, help));
}

// One for each type that OptionValue lists.
template Option Command::add_option(const std::string&, std::string&, const std::string&);
template Option Command::add_option(const std::string&, double&, const std::string&);
template Option Command::add_option(const std::string&, unsigned&, const std::string&);
template Option Command::add_option(const std::string&, uint16_t&, const std::string&);
template Option Command::add_option(const std::string&, uint64_t&, const std::string&);
template Option Command::add_option(const std::string&, std::optional<uint16_t>&, const std::string&);
template Option Command::add_option(const std::string&, std::optional<uint64_t>&, const std::string&);
template Option Command::add_option(const std::string&, std::vector<std::string>&, const std::string&);
template Option Command::add_option(const std::string&, std::vector<uint16_t>&, const std::string&);

Option Command::add_flag(const std::string& names, bool& value, const std::string& help) {
    return Option(*m_app->add_flag(names, value, help));
}

void Command::footer(const std::string& text) {
    m_app->footer(text);
}

bool Command::is_chosen() const {
    return m_app->parsed();
}

CommandLine::CommandLine(const std::string& description, const std::string& tool_name)
    : CommandLine(std::make_unique<CLI::App>(description, tool_name)) {
}

CommandLine::CommandLine(std::unique_ptr<CLI::App> app) : Command(*app), m_owned_app(std::move(app)) {
}

CommandLine::~CommandLine() = default;

Command CommandLine::add_verb(const std::string& name, const std::string& help) {
    return Command(*m_app->add_subcommand(name, help));
}

void CommandLine::require_verb() {
    m_app->require_subcommand(1);
}

void CommandLine::add_version_flag() {
    m_app->set_version_flag("--version", m_app->get_name() + " " + CORVALIN_BUILD_VERSION,
                            "Print the version and exit");
}

std::optional<int> CommandLine::parse(int argc, const char* const* argv, int usage_status) {
    try {
        m_app->parse(argc, argv);
    } catch (const CLI::Success& request) { // --help or --version
        m_app->exit(request, std::cout, std::cerr);
        return EXIT_OK;
    } catch (const CLI::Error& error) {
        std::cerr << m_app->get_name() << ": " << error.what() << "\nTry '" << m_app->get_name()
                  << " --help' for more.\n";
        return usage_status;
    }
    return std::nullopt;
}

void add_summary_options(Command& command, SummaryTarget& target, const std::string& group) {
    command.add_flag("--json", target.as_json, "Summary as JSON instead of text").group(group);
    command.add_option("--output", target.file, "File for the summary instead of standard output")
        .type_name("FILE")
        .group(group);
}

void add_receiving_end_options(Command& command, ReceivingEnd& end) {
    command.add_option("--packets", end.packets, "End after this many datagrams");
    command
        .add_option("--idle-exit", end.idle_exit_ms,
                    "End when nothing has arrived for this long after the first datagram")
        .type_name("MS");
    command.add_option("--duration", end.duration_s, "End after this many seconds").range(0.0, 1e6);
}

} // namespace corvalin::tools
