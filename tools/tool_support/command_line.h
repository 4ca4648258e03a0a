// command_line: the command line of a tool: its verbs and options, what --help says of them, and what a wrong one
// leads to.
//
// The parser behind it is CLI11. Its headers take longer to compile than any tool, so that only command_line.cpp
// includes them, and what is here hands on no more of it than the tools use.
//
// Threads    main thread, before anything else.
// Ownership  CommandLine owns all that is declared of it; Command and Option are handles that borrow from it. The
//            values belong to the caller. They are written by parse() and must stay where they are until then.
// Errors     a wrong command line is a message on standard error and a status. A declaration that contradicts
//            another one, such as a name given twice, is a std::runtime_error.
#pragma once

#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/tool_support/receiving_end.h"
#include "tools/tool_support/summary.h"

namespace CLI { // NOLINT(readability-identifier-naming): a forward declaration, and CLI11 has chosen the name
class App;
class Option;
} // namespace CLI

namespace corvalin::tools {

// Exit statuses of the tools.
constexpr int EXIT_OK = 0;
constexpr int EXIT_FAILED = 1; // failure at run time, or a check that did not hold
constexpr int EXIT_USAGE = 2;  // wrong command line

/// The section of --help about exit statuses, for a tool whose status 1 means `failed`.
std::string exit_status_help(const std::string& failed);

/// What is known of one option beside its names, its value and its help.
class Option {
public:
    Option required();
    /// The heading of --help under which it stands, instead of "Options".
    Option group(const std::string& heading);
    /// What --help calls the value, instead of its type.
    Option type_name(const std::string& name);
    /// Lets --help tell the default: what the value is now.
    Option show_default();
    /// The same in other words.
    Option show_default(const std::string& text);

    /// Refuses what is below `low` or above `high`. --help and messages tell the type of the limits too.
    Option range(int low, int high);
    Option range(uint64_t low, uint64_t high);
    Option range(double low, double high);
    Option percent() { return range(0.0, 100.0); }
    Option one_of(const std::vector<std::string>& words);
    /// Refuses a directory too.
    Option existing_file();
    Option ipv4();
    /// Refuses both together, whichever comes first.
    Option excludes(Option other);

    /// For a list, which otherwise takes all words up to the next option: one at a time, the option again for each.
    Option one_word_each();
    /// For a list that holds one value as a rule: --help shows it as a single one.
    Option shown_as_single();

private:
    friend class Command;
    explicit Option(CLI::Option& option) : m_option(&option) {}

    CLI::Option* m_option; // borrowed
};

/// What an option may be read into. Each of them costs time to compile, so there are those that the tools use.
template <typename Value>
concept OptionValue = std::same_as<Value, std::string> || std::same_as<Value, double> ||
    std::same_as<Value, unsigned> || std::same_as<Value, uint16_t> || std::same_as<Value, uint64_t> ||
    std::same_as<Value, std::optional<uint16_t>> || std::same_as<Value, std::optional<uint64_t>> ||
    std::same_as<Value, std::vector<std::string>> || std::same_as<Value, std::vector<uint16_t>>;

/// What options belong to: one verb of a tool, or the tool itself. --help lists them in the order of their addition.
class Command {
public:
    /// `names` as "--name", "-n,--name", or "name" for what is known by its place.
    template <OptionValue Value>
    Option add_option(const std::string& names, Value& value, const std::string& help);
    /// An option that is given without a value.
    Option add_flag(const std::string& names, bool& value, const std::string& help);
    /// What --help says behind the options. A verb that is added later has the same, unless it is given its own.
    void footer(const std::string& text);

    /// True behind parse() if the command line names this verb.
    bool is_chosen() const;

private:
    friend class CommandLine;
    explicit Command(CLI::App& app) : m_app(&app) {}

    CLI::App* m_app; // borrowed
};

/// The whole of it.
class CommandLine : public Command {
public:
    /// `description` is what --help begins with.
    CommandLine(const std::string& description, const std::string& tool_name);
    ~CommandLine();
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    Command add_verb(const std::string& name, const std::string& help);
    /// Refuses a command line without a verb, or with several.
    void require_verb();
    /// Adds --version, which prints the name of the tool and the version of the build.
    void add_version_flag();

    /// Parses. Empty if the tool should go on, else the status it should end with: 0 after --help and --version,
    /// `usage_status` after a wrong command line, with the reason on standard error.
    std::optional<int> parse(int argc, const char* const* argv, int usage_status = EXIT_USAGE);

private:
    explicit CommandLine(std::unique_ptr<CLI::App> app);

    const std::unique_ptr<CLI::App> m_owned_app;
};

/// --json and --output; `group` is the heading of --help under which they stand.
void add_summary_options(Command& command, SummaryTarget& target, const std::string& group = "Options");
/// --packets, --idle-exit and --duration.
void add_receiving_end_options(Command& command, ReceivingEnd& end);

} // namespace corvalin::tools
