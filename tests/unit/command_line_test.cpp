#include "tools/tool_support/command_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/temporary_folder.h"

namespace corvalin::tools {
namespace {

using test::TemporaryFolder;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

using Words = std::vector<std::string>;

constexpr std::optional<int> GOES_ON;

struct Outcome {
    std::optional<int> status;
    std::string out;
    std::string err;
};

Outcome parse(CommandLine& command_line, const Words& words, int usage_status = EXIT_USAGE) {
    std::vector<const char*> arguments = {"/path/of/the/executable"};
    for (const std::string& word : words) {
        arguments.push_back(word.c_str());
    }
    Outcome outcome;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    outcome.status = command_line.parse(static_cast<int>(arguments.size()), arguments.data(), usage_status);
    outcome.out = testing::internal::GetCapturedStdout();
    outcome.err = testing::internal::GetCapturedStderr();
    return outcome;
}

TEST(ToolCommandLineTest, reads_values_of_each_type_and_leaves_those_that_are_not_given) {
    struct Values {
        std::string text = "before";
        double number = 0;
        unsigned plain = 0;
        uint16_t port = 0;
        uint64_t count = 0;
        std::optional<uint16_t> maybe_port;
        std::optional<uint64_t> maybe_count;
        Words texts;
        std::vector<uint16_t> ports = {7};
        bool flag = false;
        std::string by_place;
    };
    const auto read = [](const Words& words) {
        Values values;
        CommandLine command_line("", "tool");
        command_line.add_option("--text", values.text, "");
        command_line.add_option("--number", values.number, "");
        command_line.add_option("--plain", values.plain, "");
        command_line.add_option("--port", values.port, "");
        command_line.add_option("--count", values.count, "");
        command_line.add_option("--maybe-port", values.maybe_port, "");
        command_line.add_option("--maybe-count", values.maybe_count, "");
        command_line.add_option("--texts", values.texts, "");
        command_line.add_option("--ports", values.ports, "");
        command_line.add_flag("-f,--flag", values.flag, "");
        command_line.add_option("word", values.by_place, "");
        const Outcome outcome = parse(command_line, words);
        EXPECT_EQ(outcome.status, GOES_ON) << outcome.err;
        EXPECT_THAT(outcome.out + outcome.err, IsEmpty());
        return values;
    };
    const Values all = read({"--text",
                             "a b",
                             "--number",
                             "0.5",
                             "--plain",
                             "4294967295",
                             "--port",
                             "65535",
                             "--count",
                             "18446744073709551615",
                             "here",
                             "--texts",
                             "one",
                             "two",
                             "--ports",
                             "1",
                             "65535",
                             "-f",
                             "--maybe-port",
                             "8",
                             "--maybe-count=9",
                             "--texts",
                             "three"});
    EXPECT_EQ(all.text, "a b");
    EXPECT_EQ(all.number, 0.5);
    EXPECT_EQ(all.plain, 4294967295U);
    EXPECT_EQ(all.port, 65535);
    EXPECT_EQ(all.count, UINT64_MAX);
    EXPECT_EQ(all.maybe_port, 8);
    EXPECT_EQ(all.maybe_count, 9U);
    EXPECT_THAT(all.texts, ElementsAre("one", "two", "three"));
    EXPECT_THAT(all.ports, ElementsAre(1, 65535));
    EXPECT_TRUE(all.flag);
    EXPECT_EQ(all.by_place, "here");

    const Values none = read({});
    EXPECT_EQ(none.text, "before");
    EXPECT_EQ(none.maybe_port, std::nullopt);
    EXPECT_EQ(none.maybe_count, std::nullopt);
    EXPECT_THAT(none.ports, ElementsAre(7));
    EXPECT_FALSE(none.flag);
}

TEST(ToolCommandLineTest, lets_through_what_each_check_allows_and_says_what_is_wrong_with_the_rest) {
    const TemporaryFolder folder;
    const std::string file = folder.write_file("file", "");
    const struct {
        const char* description;
        Words words;
        std::optional<int> status;
        const char* err;
    } cases[] = {
        {"no option but the one that is required", {"--needed=1"}, GOES_ON, ""},
        {"the least of a range", {"--needed=1", "--byte=1"}, GOES_ON, ""},
        {"below a range", {"--needed=1", "--byte=0"}, EXIT_USAGE, "--byte: Value 0 not in range 1 to 255"},
        {"the most of a range", {"--needed=1", "--byte=255"}, GOES_ON, ""},
        {"above a range", {"--needed=1", "--byte=256"}, EXIT_USAGE, "--byte: Value 256 not in range"},
        {"a range of large numbers", {"--needed=1", "--large=18446744073709551614"}, GOES_ON, ""},
        {"above large numbers", {"--needed=1", "--large=18446744073709551615"}, EXIT_USAGE, "--large"},
        {"a range with fractions", {"--needed=1", "--part=99.9"}, GOES_ON, ""},
        {"a fraction above a range", {"--needed=1", "--part=100.1"}, EXIT_USAGE, "--part: Value 100.1 not"},
        {"no number", {"--needed=1", "--byte=x"}, EXIT_USAGE, "--byte"},
        {"one of some words", {"--needed=1", "--word=good"}, GOES_ON, ""},
        {"another word", {"--needed=1", "--word=goo"}, EXIT_USAGE, "--word: goo not in {good,better}"},
        {"a file", {"--needed=1", "--file", file}, GOES_ON, ""},
        {"no file", {"--needed=1", "--file=/none"}, EXIT_USAGE, "--file: File does not exist: /none"},
        {"a directory", {"--needed=1", "--file", folder.path()}, EXIT_USAGE, "actually a directory"},
        {"an address", {"--needed=1", "--address=127.0.0.1"}, GOES_ON, ""},
        {"no address", {"--needed=1", "--address=127.0.1"}, EXIT_USAGE, "--address: Invalid IPV4"},
        {"two that exclude each other", {"--needed=1", "--this", "--that"}, EXIT_USAGE, "excludes"},
        {"the same two the other way round", {"--needed=1", "--that", "--this"}, EXIT_USAGE, "excludes"},
        {"what is required is missing", {"--byte=1"}, EXIT_USAGE, "--needed is required"},
        {"a single value twice", {"--needed=1", "--needed=2"}, EXIT_USAGE, "--needed"},
        {"an option without its value", {"--needed=1", "--byte"}, EXIT_USAGE, "--byte"},
        {"an unknown option", {"--needed=1", "--bad"}, EXIT_USAGE, "--bad"},
        {"an unknown word", {"--needed=1", "bad"}, EXIT_USAGE, "bad"},
    };
    for (const auto& row : cases) {
        uint64_t needed = 0;
        uint64_t byte = 0;
        uint64_t large = 0;
        double part = 0;
        std::string text;
        bool flag = false;
        CommandLine command_line("", "tool");
        command_line.add_option("--needed", needed, "").required();
        command_line.add_option("--byte", byte, "").range(1, 255);
        command_line.add_option("--large", large, "").range(uint64_t{0}, UINT64_MAX - 1);
        command_line.add_option("--part", part, "").percent();
        command_line.add_option("--word", text, "").one_of({"good", "better"});
        command_line.add_option("--file", text, "").existing_file();
        command_line.add_option("--address", text, "").ipv4();
        const Option other = command_line.add_flag("--that", flag, "");
        command_line.add_flag("--this", flag, "").excludes(other);
        const Outcome outcome = parse(command_line, row.words);
        EXPECT_EQ(outcome.status, row.status) << row.description << ": " << outcome.err;
        EXPECT_THAT(outcome.err, HasSubstr(row.err)) << row.description;
        EXPECT_THAT(outcome.out, IsEmpty()) << row.description;
    }
}

TEST(ToolCommandLineTest, a_wrong_one_leads_to_help_and_to_the_status_that_is_wanted) {
    CommandLine command_line("", "tool");
    const Outcome outcome = parse(command_line, {"bad"}, 125);
    EXPECT_EQ(outcome.status, 125);
    EXPECT_EQ(outcome.err,
              "tool: The following argument was not expected: bad\nTry 'tool --help' for more.\n");
}

TEST(ToolCommandLineTest, a_list_takes_words_as_it_was_declared) {
    Words all;
    Words one_each;
    std::vector<uint16_t> mostly_one = {0};
    const auto declare_and_parse = [&](const Words& words) {
        CommandLine command_line("", "tool");
        command_line.add_option("--all", all, "All");
        command_line.add_option("--each", one_each, "Each").one_word_each();
        command_line.add_option("--mostly", mostly_one, "Mostly").shown_as_single().show_default("none");
        return parse(command_line, words);
    };
    EXPECT_EQ(declare_and_parse({"--all", "1", "2", "--each", "3", "--each", "4"}).status, GOES_ON);
    EXPECT_THAT(all, ElementsAre("1", "2"));
    EXPECT_THAT(one_each, ElementsAre("3", "4"));
    EXPECT_EQ(declare_and_parse({"--each", "3", "4"}).status, EXIT_USAGE);
    EXPECT_EQ(declare_and_parse({"--mostly", "5", "--mostly", "6"}).status, GOES_ON);
    EXPECT_THAT(mostly_one, ElementsAre(5, 6));

    const std::string help = declare_and_parse({"--help"}).out;
    EXPECT_THAT(help, HasSubstr("--all TEXT ..."));
    EXPECT_THAT(help, HasSubstr("--mostly UINT=none  "));
}

TEST(ToolCommandLineTest, help_tells_what_is_known_of_options_and_version_the_name) {
    std::string text = "old";
    uint64_t count = 3;
    SummaryTarget summary;
    ReceivingEnd end;
    CommandLine command_line("What it does.", "tool");
    command_line.add_option("--text", text, "A text").type_name("WORD").show_default().group("Texts");
    command_line.add_option("--count", count, "A count").show_default();
    text = "new";
    add_summary_options(command_line, summary, "Report");
    add_receiving_end_options(command_line, end);
    command_line.add_version_flag();
    command_line.footer(exit_status_help("a failure"));

    const Outcome help = parse(command_line, {"--help"});
    EXPECT_EQ(help.status, EXIT_OK);
    EXPECT_THAT(help.err, IsEmpty());
    EXPECT_THAT(help.out, StartsWith("What it does.\nUsage: tool [OPTIONS]\n"));
    EXPECT_THAT(help.out, HasSubstr("\nTexts:\n  --text WORD=old "));
    EXPECT_THAT(help.out, HasSubstr("  --count UINT=3 "));
    EXPECT_THAT(help.out, HasSubstr("\nReport:\n  --json "));
    EXPECT_THAT(help.out, HasSubstr("  --idle-exit MS "));
    EXPECT_THAT(help.out, HasSubstr("  1  a failure\n"));

    const Outcome version = parse(command_line, {"--version"});
    EXPECT_EQ(version.status, EXIT_OK);
    EXPECT_THAT(version.err, IsEmpty());
    EXPECT_THAT(version.out, StartsWith("tool "));
}

TEST(ToolCommandLineTest, one_verb_is_chosen_and_has_options_of_its_own) {
    bool flag = false;
    const auto declare_and_parse = [&](const Words& words, Words& chosen) {
        CommandLine command_line("", "tool");
        command_line.require_verb();
        command_line.footer("Behind all.");
        Command first = command_line.add_verb("first", "The first");
        Command second = command_line.add_verb("second", "The second");
        first.add_flag("--flag", flag, "A flag");
        second.footer("Behind the second.");
        Outcome outcome = parse(command_line, words);
        chosen.clear();
        if (first.is_chosen()) {
            chosen.push_back("first");
        }
        if (second.is_chosen()) {
            chosen.push_back("second");
        }
        return outcome;
    };
    Words chosen;
    EXPECT_EQ(declare_and_parse({"first", "--flag"}, chosen).status, GOES_ON);
    EXPECT_THAT(chosen, ElementsAre("first"));
    EXPECT_TRUE(flag);
    EXPECT_EQ(declare_and_parse({"second"}, chosen).status, GOES_ON);
    EXPECT_THAT(chosen, ElementsAre("second"));

    EXPECT_EQ(declare_and_parse({}, chosen).status, EXIT_USAGE);
    EXPECT_EQ(declare_and_parse({"first", "second"}, chosen).status, EXIT_USAGE);
    EXPECT_EQ(declare_and_parse({"second", "--flag"}, chosen).status, EXIT_USAGE);

    EXPECT_THAT(declare_and_parse({"--help"}, chosen).out,
                HasSubstr("\n  second                      The second"));
    EXPECT_THAT(declare_and_parse({"first", "--help"}, chosen).out, HasSubstr("\nBehind all.\n"));
    const std::string help = declare_and_parse({"second", "--help"}, chosen).out;
    EXPECT_THAT(help, StartsWith("The second\nUsage: tool second [OPTIONS]\n"));
    EXPECT_THAT(help, HasSubstr("\nBehind the second.\n"));
    EXPECT_THAT(help, Not(HasSubstr("Behind all.")));
}

TEST(ToolCommandLineTest, the_same_name_twice_is_refused) {
    uint64_t count = 0;
    CommandLine command_line("", "tool");
    command_line.add_option("--count", count, "");
    EXPECT_THROW(command_line.add_option("--count", count, ""), std::runtime_error);
    command_line.add_verb("verb", "");
    EXPECT_THROW(command_line.add_verb("verb", ""), std::runtime_error);
}

} // namespace
} // namespace corvalin::tools
