// The command line of the process, with the exit statuses of a bad one.
#include "tests/support/system/router_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

using namespace corvalin::test;
using ::testing::Contains;
using ::testing::ElementsAre;

namespace fs = std::filesystem;

using Lines = std::vector<std::string>;

class CommandLineTest : public RouterTest {};

TEST_F(CommandLineTest, help_and_bad_arguments_end_at_once_with_their_status) {
    const struct {
        const char* description;
        std::vector<std::string> arguments;
        int status;
        Lines log;
    } cases[] = {
        {"help prints nothing", {"--help"}, 0, {}},
        {"short help", {"-h"}, 0, {}},
        {"what stands behind help is not looked at", {"--help", "--bogus"}, 0, {}},
        {"help behind good options", {"--pid-file-default", "-c", "x", "-h"}, 0, {}},
        {"an unknown argument is silent", {"--bogus"}, 1, {}},
        {"a positional argument is unknown", {"foo"}, 1, {}},
        {"an empty argument is unknown", {""}, 1, {}},
        {"what stands in front of help decides", {"--bogus", "--help"}, 1, {}},
        {"a known option with a joined value is unknown", {"--config=x"}, 1, {}},
        {"-c without a value", {"-c"}, 1, {"ERROR   | SERVICE: value if not specified for option [-c]"}},
        {"--config without a value",
         {"--config"},
         1,
         {"ERROR   | SERVICE: value if not specified for option [--config]"}},
        {"--pid-file without a value",
         {"--config", "x", "--pid-file"},
         1,
         {"ERROR   | SERVICE: value if not specified for option [--pid-file]"}},
        {"--args without a value",
         {"--args", "port=1", "--args"},
         1,
         {"ERROR   | SERVICE: value if not specified for option [--args]"}},
    };
    for (const auto& row : cases) {
        RouterProcess process(m_place, row.arguments);
        EXPECT_EQ(process.wait_for_exit(), exited(row.status)) << row.description;
        EXPECT_EQ(process.log(), row.log) << row.description;
        EXPECT_EQ(process.output(), Lines{}) << row.description;
    }
    EXPECT_EQ(syslog().records().size(), 0u);
}

// The exec path is made of argv[0], the other paths of the folder that the process starts in.
TEST_F(CommandLineTest, paths_are_absolute_and_clean_whatever_the_command_line_says) {
    const std::string folder = m_place.folder().string();
    write_file(m_place.folder() / "sub" / "my.conf", "log_level=ERROR\n");
    const struct {
        const char* description;
        std::string name;
        std::vector<std::string> arguments;
        Lines log; // the first lines, without the build version
    } cases[] = {
        {"relative paths",
         "./bin/../corvalin_router",
         {"-c", "sub/./my.conf", "--pid-file", "run//a.pid"},
         {"SYSTEM  | SERVICE: exec path: " + folder + "/corvalin_router",
          "SYSTEM  | SERVICE:  pid file: " + folder + "/run/a.pid"}},
        {"the default pid file stands beside the executable",
         "bin/router",
         {"--config", " " + folder + "/sub/my.conf ", "--pid-file-default"},
         {"SYSTEM  | SERVICE: exec path: " + folder + "/bin/router",
          "SYSTEM  | SERVICE:  pid file: " + folder + "/bin/router.pid"}},
        {"the last pid file wins",
         "/x/router",
         {"--pid-file-default", "--pid-file", "/y/../z.pid", "-c", "nowhere", "-c", "sub/x/../my.conf"},
         {"SYSTEM  | SERVICE: exec path: /x/router", "SYSTEM  | SERVICE:  pid file: /z.pid"}},
        {"no pid file, no line", "/router", {"-c", "sub/my.conf"}, {"SYSTEM  | SERVICE: exec path: /router"}},
    };
    for (const auto& row : cases) {
        RouterProcess::Options options;
        options.name = row.name;
        RouterProcess process(m_place, row.arguments, options);
        process.wait_until_receiving();
        Lines log = process.log();
        ASSERT_GT(log.size(), row.log.size() + 1) << row.description;
        EXPECT_EQ(Lines(log.begin(), log.begin() + static_cast<std::ptrdiff_t>(row.log.size())), row.log)
            << row.description;
        EXPECT_EQ(log[row.log.size()].find("SYSTEM  | build version: \""), 0u) << row.description;
        EXPECT_EQ(
            process.log_count("SYSTEM  | CONFIGURATION: reading from file [" + folder + "/sub/my.conf]"), 1u)
            << row.description;
        process.kill();
    }
    EXPECT_FALSE(fs::exists(m_place.folder() / "bin")) << "a pid file without daemon mode";
    EXPECT_FALSE(fs::exists(m_place.folder() / "run"));
}

TEST_F(CommandLineTest, empty_args_are_no_args) {
    start("", {"--args", "", "--args", "discard_media_node", "--args", ""});
    EXPECT_EQ(router().log_count("SYSTEM  | CONFIGURATION: reading from args: discard_media_node"), 1u);
    RouterProcess process(m_place, {"--args", ""});
    process.wait_until_receiving();
    for (const std::string& line : process.log()) {
        EXPECT_EQ(line.find("reading from args"), std::string::npos) << line;
    }
}

TEST_F(CommandLineTest, the_args_given_first_are_read_last_and_win) {
    const UdpNode occupant;
    const std::string taken = "port=" + std::to_string(occupant.port());
    {
        RouterProcess process(m_place, {"--args", taken, "--args", "port=0"});
        EXPECT_EQ(process.wait_for_exit(), exited(1));
        EXPECT_THAT(process.log(), Contains("SYSTEM  | CONFIGURATION: reading from args: port=0," + taken));
    }
    RouterProcess process(m_place, {"--args", "port=0", "--args", taken});
    EXPECT_TRUE(process.wait_until_receiving());
}

} // namespace
