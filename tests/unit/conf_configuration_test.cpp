#include "corvalin_lib/conf_configuration.h"

#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/captured_log.h"
#include "tests/support/temporary_folder.h"

namespace {

using namespace corvalin;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using Lines = std::vector<std::string>;

/// Keeps what the parser hands over, as "<name>" for a flag and "<name>=<value>" for a value, and answers the status
/// that was set for the name.
class RecordingConfiguration : public conf::Configuration {
public:
    int set_flag(const std::string& name, std::stringstream& message) override {
        m_calls.push_back("<" + name + ">");
        return answer(name, message);
    }
    int set_value(const std::string& name, const std::string& value, std::stringstream& message) override {
        m_calls.push_back("<" + name + ">=<" + value + ">");
        return answer(name, message);
    }

    Lines m_calls;
    std::map<std::string, int> m_status; // of a name; option_applied where there is none
    std::string m_reason;
    bool m_message_was_empty = true;

private:
    int answer(const std::string& name, std::stringstream& message) {
        m_message_was_empty = m_message_was_empty && message.str().empty();
        message << m_reason;
        const auto found = m_status.find(name);
        return found == m_status.end() ? conf::option_applied : found->second;
    }
};

class ConfConfigurationTest : public ::testing::Test {
protected:
    /// Every log line so far, "<level> <text>". All of them must bear the module's name.
    Lines reported() const {
        Lines lines;
        for (const test::CapturedLine& line : m_log.lines()) {
            EXPECT_EQ(line.file, "conf_configuration");
            EXPECT_GT(line.line, 0);
            lines.push_back(std::string(log::level_to_string(line.level)) + " " + line.text);
        }
        return lines;
    }

    bool parse_file(const std::string& content) {
        return m_configuration.parse_file(m_folder.write_file("some.conf", content));
    }

    const Lines& calls() const { return m_configuration.m_calls; }

    const test::TemporaryFolder m_folder;
    test::CapturedLog m_log;
    RecordingConfiguration m_configuration;
};

/// One source text, what of it reaches the virtual operations, and the result.
struct SourceCase {
    const char* description;
    std::string text;
    Lines calls;
    bool result;
};

// ---- Defaults

TEST_F(ConfConfigurationTest, default_paths_are_built_from_each_other) {
    EXPECT_EQ(conf::default_conf_ext, ".conf");
    EXPECT_EQ(conf::default_base_directory, "/etc/tolvaine");
    EXPECT_EQ(conf::default_directory, "/etc/tolvaine/corvalin");
    EXPECT_EQ(conf::default_kafka_config_path, "/etc/tolvaine/corvalin/kafka.conf");
}

TEST_F(ConfConfigurationTest, statuses_have_their_numbers) {
    EXPECT_EQ(conf::option_applied, 0);
    EXPECT_EQ(conf::option_unknown, 1);
    EXPECT_EQ(conf::option_bad_format, -1);
    EXPECT_EQ(conf::option_failed_with_message, -255);
}

TEST_F(ConfConfigurationTest, the_base_knows_no_option_and_says_nothing_about_it) {
    conf::Configuration base;
    std::stringstream message;
    EXPECT_EQ(base.set_flag("port", message), conf::option_unknown);
    EXPECT_EQ(base.set_value("port", "1", message), conf::option_unknown);
    EXPECT_EQ(message.str(), "");
    EXPECT_THAT(reported(), IsEmpty());
}

// ---- Files

TEST_F(ConfConfigurationTest, an_empty_path_is_no_error_and_leaves_the_defaults) {
    EXPECT_TRUE(m_configuration.parse_file(""));
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(reported(),
                ElementsAre("INFO CONFIGURATION: file is not specified, default values are used"));
}

TEST_F(ConfConfigurationTest, a_file_that_cannot_be_opened_fails) {
    const std::string path = m_folder.path() + "/absent.conf";
    EXPECT_FALSE(m_configuration.parse_file(path));
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(reported(), ElementsAre("ERROR CONFIGURATION: failed to open file [" + path + "]"));
}

TEST_F(ConfConfigurationTest, an_opened_file_is_named_before_its_first_option) {
    const std::string path = m_folder.write_file("named.conf", "flag\n");
    EXPECT_TRUE(m_configuration.parse_file(path));
    EXPECT_THAT(reported(), ElementsAre("SYSTEM CONFIGURATION: reading from file [" + path + "]",
                                        "SYSTEM CONFIGURATION: flag [flag] applied"));
}

TEST_F(ConfConfigurationTest, a_file_gives_one_option_per_line) {
    const std::vector<SourceCase> cases = {
        {"an empty file", "", {}, true},
        {"blanks, comments and CRLF line ends only", "\r\n  \t \r\n# a=b\r\n \t#c\r\n\r\n", {}, true},
        {"a flag", "name\n", {"<name>"}, true},
        {"a value", "name=value\n", {"<name>=<value>"}, true},
        {"no line feed behind the last line", "a=1\nb=2", {"<a>=<1>", "<b>=<2>"}, true},
        {"a flag without a line feed", "a", {"<a>"}, true},
        {"CRLF line ends are no part of a value", "a=1\r\nb\r\n", {"<a>=<1>", "<b>"}, true},
        {"blanks around name and value", "port = 5000 \n", {"<port>=<5000>"}, true},
        {"blanks and tabs around everything", "\t a\t =\t v w \t\n", {"<a>=<v w>"}, true},
        {"a form feed is no blank", "\fa=1\f\n", {"<\fa>=<1\f>"}, true},
        {"the last occurrence comes last", "a=1\na=2\n", {"<a>=<1>", "<a>=<2>"}, true},
        {"a # behind the first character belongs to the option",
         "k=value # note\n",
         {"<k>=<value # note>"},
         true},
        {"a # inside a name", "a#b=1\n", {"<a#b>=<1>"}, true},
        {"no other comment form", "; a\n// b\n", {"<; a>", "<// b>"}, true},
        {"a name with nothing behind its = is a flag", "name=\n", {"<name>"}, true},
        {"a name with blanks only behind its = is a flag", "name =  \n", {"<name>"}, true},
        {"a value in front of no name is a flag", "=name\n", {"<name>"}, true},
        {"a value of blanks between two = leaves a flag", "a= =\n", {"<a>"}, true},
        {"a doubled = drops its empty piece", "a==b\n", {"<a>=<b>"}, true},
        {"three = in a row do as well", "a===b\n", {"<a>=<b>"}, true},
        {"a doubled = at the end", "a==\n", {"<a>"}, true},
        {"a section is a flag", "[section]\n", {"<[section]>"}, true},
        {"a name and a value without = are one flag", "key value\n", {"<key value>"}, true},
        {"a comma is nothing special", "a=1,2,,3\n", {"<a>=<1,2,,3>"}, true},
        {"a zero byte is nothing special",
         std::string("a=1\0"
                     "2\n",
                     6),
         {std::string("<a>=<1\0"
                      "2>",
                      9)},
         true},
        {"a second =", "a=b=c\n", {}, false},
        {"a second = behind a doubled one", "a==b=c\n", {}, false},
        {"= alone", "=\n", {}, false},
        {"several = alone", " === \n", {}, false},
        {"lines behind a bad one are not read", "a=1\nb=c=d\ne=2\n", {"<a>=<1>"}, false},
    };
    for (const SourceCase& row : cases) {
        SCOPED_TRACE(row.description);
        m_configuration.m_calls.clear();
        EXPECT_EQ(parse_file(row.text), row.result);
        EXPECT_THAT(calls(), ElementsAreArray(row.calls));
    }
}

TEST_F(ConfConfigurationTest, a_file_of_blanks_and_comments_reports_nothing_but_its_name) {
    EXPECT_TRUE(parse_file("\r\n  \t \r\n# a=b\r\n \t#c\r\n\r\n"));
    EXPECT_THAT(reported(),
                ElementsAre("SYSTEM CONFIGURATION: reading from file [" + m_folder.path() + "/some.conf]"));
}

TEST_F(ConfConfigurationTest, a_bad_line_is_reported_as_it_was_read_and_counted_from_zero) {
    EXPECT_FALSE(parse_file("a=1\n\n# comment\n \ta=b=c \r\nd=2\n"));
    EXPECT_THAT(reported(),
                ElementsAre("SYSTEM CONFIGURATION: reading from file [" + m_folder.path() + "/some.conf]",
                            "SYSTEM CONFIGURATION: option [a] is set to [1]",
                            "ERROR CONFIGURATION: incorrect option format at line 3: \" \ta=b=c \r\""));
}

TEST_F(ConfConfigurationTest, the_first_line_of_a_file_is_line_zero) {
    EXPECT_FALSE(parse_file("="));
    EXPECT_EQ(m_log.texts(log::Level::ERROR),
              Lines{"CONFIGURATION: incorrect option format at line 0: \"=\""});
}

TEST_F(ConfConfigurationTest, line_numbers_are_plain_decimal_numbers) {
    EXPECT_FALSE(m_configuration.parse_line("a=b=c", 1234567));
    EXPECT_THAT(reported(),
                ElementsAre("ERROR CONFIGURATION: incorrect option format at line 1234567: \"a=b=c\""));
}

TEST_F(ConfConfigurationTest, a_failed_option_ends_the_file) {
    m_configuration.m_status["bad"] = conf::option_bad_format;
    EXPECT_FALSE(parse_file("a=1\nbad=2\nc=3\n"));
    EXPECT_THAT(calls(), ElementsAre("<a>=<1>", "<bad>=<2>"));
}

TEST_F(ConfConfigurationTest, a_failed_last_line_fails_the_file) {
    m_configuration.m_status["bad"] = conf::option_bad_format;
    EXPECT_FALSE(parse_file("a=1\nbad"));
}

TEST_F(ConfConfigurationTest, an_unknown_option_does_not_end_the_file) {
    m_configuration.m_status["new"] = conf::option_unknown;
    EXPECT_TRUE(parse_file("new=1\nnew\nc=3\n"));
    EXPECT_THAT(calls(), ElementsAre("<new>=<1>", "<new>", "<c>=<3>"));
    EXPECT_THAT(m_log.texts(log::Level::WARNING), ElementsAre("CONFIGURATION: option [new] is unknown",
                                                              "CONFIGURATION: flag [new] is unknown"));
}

TEST_F(ConfConfigurationTest, a_folder_reads_as_an_empty_file) {
    // It can be opened, and its first read fails: the stream is not good any more, which ends a file like any other.
    EXPECT_TRUE(m_configuration.parse_file(m_folder.path()));
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(reported(), ElementsAre("SYSTEM CONFIGURATION: reading from file [" + m_folder.path() + "]"));
}

// ---- Arguments

TEST_F(ConfConfigurationTest, arguments_give_options_joined_by_commas) {
    const std::vector<SourceCase> cases = {
        {"nothing", "", {}, true},
        {"a comma", ",", {}, true},
        {"a flag", "a", {"<a>"}, true},
        {"two flags", "a,b", {"<a>", "<b>"}, true},
        {"commas at both ends", ",a,b,", {"<a>", "<b>"}, true},
        {"a value and a flag", "a=1,b", {"<a>=<1>", "<b>"}, true},
        {"a doubled comma is a comma of the value", "x=1,,2,y", {"<x>=<1,2>", "<y>"}, true},
        {"the stand-in of the comma cannot be told apart", "x=1_;2", {"<x>=<1,2>"}, true},
        {"three commas: the pair comes first", "x=1,,,y", {"<x>=<1,>", "<y>"}, true},
        {"four commas", "x=1,,,,y", {"<x>=<1,,y>"}, true},
        {"a doubled comma in front of a name", ",,a", {"<,a>"}, true},
        {"blanks behind a value stay", "port = 5000 ", {"<port>=<5000 >"}, true},
        {"blanks in front of a name stay", " port=1", {"< port>=<1>"}, true},
        {"blanks behind the name of a flag go", "a  ,b\t", {"<a>", "<b>"}, true},
        {"blanks in front of the name of a flag stay", "a, b", {"<a>", "< b>"}, true},
        {"a blank piece is the flag with the empty name", " ", {"<>"}, true},
        {"no comments", "#a,b", {"<#a>", "<b>"}, true},
        {"a name with nothing behind its = is a flag", "a=,b", {"<a>", "<b>"}, true},
        {"a name with blanks only behind its = is a flag", "a =  ,b", {"<a>", "<b>"}, true},
        {"no name", "=v", {"<>=<v>"}, true},
        {"= alone is the flag with the empty name", "=", {"<>"}, true},
        {"the last occurrence comes last", "a=1,a=2", {"<a>=<1>", "<a>=<2>"}, true},
        {"a line feed is nothing special behind a name", "a\n=1", {"<a>=<1>"}, true},
        {"a doubled =", "a==b", {}, false},
        {"a doubled = at the end leaves an empty value", "a==", {"<a>"}, true},
        {"a second =", "x,a=b=c,y", {"<x>"}, false},
    };
    for (const SourceCase& row : cases) {
        SCOPED_TRACE(row.description);
        m_configuration.m_calls.clear();
        EXPECT_EQ(m_configuration.parse_args(row.text), row.result);
        EXPECT_THAT(calls(), ElementsAreArray(row.calls));
    }
}

TEST_F(ConfConfigurationTest, an_empty_arguments_string_still_shows_that_it_was_read) {
    EXPECT_TRUE(m_configuration.parse_args(""));
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(reported(), ElementsAre("SYSTEM CONFIGURATION: reading from args: "));
}

TEST_F(ConfConfigurationTest, a_string_of_commas_sets_nothing) {
    // A doubled comma is a comma of some text, here of a name that nobody knows.
    for (const std::string& commas :
         {std::string(","), std::string(",,"), std::string(",,,"), std::string(",,,,,")}) {
        SCOPED_TRACE(commas);
        m_log.clear();
        conf::Configuration base;
        EXPECT_TRUE(base.parse_args(commas));
        EXPECT_EQ(m_log.texts(log::Level::SYSTEM), Lines{"CONFIGURATION: reading from args: " + commas});
        EXPECT_THAT(m_log.texts(log::Level::ERROR), IsEmpty());
    }
}

TEST_F(ConfConfigurationTest, arguments_are_shown_as_they_were_given) {
    EXPECT_TRUE(m_configuration.parse_args("x=1,,2,y=_;"));
    EXPECT_THAT(reported(), ElementsAre("SYSTEM CONFIGURATION: reading from args: x=1,,2,y=_;",
                                        "SYSTEM CONFIGURATION: option [x] is set to [1,2]",
                                        "SYSTEM CONFIGURATION: option [y] is set to [,]"));
}

TEST_F(ConfConfigurationTest, a_bad_piece_is_reported_by_its_position_counted_from_one) {
    EXPECT_FALSE(m_configuration.parse_args("x,a=b=c,y"));
    EXPECT_THAT(reported(), ElementsAre("SYSTEM CONFIGURATION: reading from args: x,a=b=c,y",
                                        "SYSTEM CONFIGURATION: flag [x] applied",
                                        "ERROR CONFIGURATION: incorrect option format at position [2]"));
}

TEST_F(ConfConfigurationTest, empty_pieces_do_not_count_for_the_position) {
    EXPECT_FALSE(m_configuration.parse_args(",a==b"));
    EXPECT_EQ(m_log.texts(log::Level::ERROR),
              Lines{"CONFIGURATION: incorrect option format at position [1]"});
}

TEST_F(ConfConfigurationTest, a_blank_before_a_name_in_the_arguments_makes_another_name) {
    m_configuration.m_status[" port"] = conf::option_unknown;
    EXPECT_TRUE(m_configuration.parse_args(" port=1"));
    EXPECT_EQ(m_log.texts(log::Level::WARNING), Lines{"CONFIGURATION: option [ port] is unknown"});
}

TEST_F(ConfConfigurationTest,
       an_equal_sign_alone_in_the_arguments_is_an_unknown_flag_and_in_a_file_an_error) {
    m_configuration.m_status[""] = conf::option_unknown;
    EXPECT_TRUE(m_configuration.parse_args("="));
    EXPECT_EQ(m_log.texts(log::Level::WARNING), Lines{"CONFIGURATION: flag [] is unknown"});
    EXPECT_FALSE(m_configuration.parse_line("=", 0));
}

TEST_F(ConfConfigurationTest, a_failed_option_ends_the_arguments) {
    m_configuration.m_status["bad"] = conf::option_bad_format;
    EXPECT_FALSE(m_configuration.parse_args("a=1,bad,c=3"));
    EXPECT_THAT(calls(), ElementsAre("<a>=<1>", "<bad>"));
}

TEST_F(ConfConfigurationTest, arguments_override_a_file_that_was_read_before) {
    EXPECT_TRUE(parse_file("a=1\n"));
    EXPECT_TRUE(m_configuration.parse_args("a=2"));
    EXPECT_THAT(calls(), ElementsAre("<a>=<1>", "<a>=<2>"));
}

// ---- One option

struct StatusCase {
    const char* description;
    int status;
    std::string flag_line;
    std::string value_line;
    bool result;
};

TEST_F(ConfConfigurationTest, each_status_has_its_level_text_and_result) {
    const std::string failed_flag = "ERROR CONFIGURATION: failed to apply flag [name]";
    const std::string failed_value = "ERROR CONFIGURATION: failed to set option [name] to [va lue]";
    const std::vector<StatusCase> cases = {
        {"applied", 0, "SYSTEM CONFIGURATION: flag [name] applied",
         "SYSTEM CONFIGURATION: option [name] is set to [va lue]", true},
        {"unknown", 1, "WARNING CONFIGURATION: flag [name] is unknown",
         "WARNING CONFIGURATION: option [name] is unknown", true},
        {"bad format", -1, failed_flag + ": unexpected format", failed_value + ": unexpected value format",
         false},
        {"failed with a message", -255, failed_flag + ": the reason", failed_value + ": the reason", false},
        {"other, smallest positive", 2, failed_flag, failed_value, true},
        {"other, positive", 255, failed_flag, failed_value, true},
        {"other, negative", -2, failed_flag, failed_value, false},
        {"other, above the one with a message", -254, failed_flag, failed_value, false},
        {"other, below the one with a message", -256, failed_flag, failed_value, false},
    };
    m_configuration.m_reason = "the reason";
    for (const StatusCase& row : cases) {
        SCOPED_TRACE(row.description);
        m_configuration.m_status["name"] = row.status;
        m_log.clear();
        EXPECT_EQ(m_configuration.parse_option("name"), row.result);
        EXPECT_THAT(reported(), ElementsAre(row.flag_line));
        m_log.clear();
        EXPECT_EQ(m_configuration.parse_option("name", "va lue"), row.result);
        EXPECT_THAT(reported(), ElementsAre(row.value_line));
    }
}

TEST_F(ConfConfigurationTest, each_option_is_handed_over_with_an_empty_message) {
    m_configuration.m_reason = "left by the option before";
    EXPECT_TRUE(m_configuration.parse_args("a=1,b,c=2"));
    EXPECT_TRUE(m_configuration.m_message_was_empty);
}

TEST_F(ConfConfigurationTest, a_positive_other_status_lets_the_parse_go_on) {
    m_configuration.m_status["odd"] = 2;
    EXPECT_TRUE(parse_file("odd=1\nodd\nc=3\n"));
    EXPECT_THAT(calls(), ElementsAre("<odd>=<1>", "<odd>", "<c>=<3>"));
}

TEST_F(ConfConfigurationTest, parse_option_takes_name_and_value_as_they_stand) {
    EXPECT_TRUE(m_configuration.parse_option(" a=, "));
    EXPECT_TRUE(m_configuration.parse_option(" a ", " =1, "));
    EXPECT_THAT(calls(), ElementsAre("< a=, >", "< a >=< =1, >"));
}

} // namespace
