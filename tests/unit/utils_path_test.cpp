#include "corvalin_lib/utils_path.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/refused_system_call.h"
#include "tests/support/temporary_folder.h"

namespace {

namespace fs = std::filesystem;
namespace path = corvalin::utils::path;
using corvalin::test::TemporaryFolder;
using corvalin::test::with_refused_system_call;
using path::create_policy;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr bool DIRECTORY = false; // is_file_path
constexpr bool FILE_PATH = true;
constexpr create_policy OPTIMISTIC = create_policy::create_directory_optimistic;
constexpr create_policy PESSIMISTIC = create_policy::create_directory_pessimistic;
constexpr create_policy UNKNOWN = static_cast<create_policy>(2);
constexpr unsigned int MODE = 0755;

/// Works in an empty folder of its own, and puts back the current directory, PWD and the umask.
class UtilsPathTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_old_directory_fd = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_GE(m_old_directory_fd, 0);
        if (const char* const old_pwd = std::getenv("PWD"); old_pwd != nullptr) {
            m_old_pwd = old_pwd;
        }
        m_old_umask = umask(0);
    }

    void TearDown() override {
        umask(m_old_umask);
        if (m_old_pwd) {
            setenv("PWD", m_old_pwd->c_str(), 1);
        } else {
            unsetenv("PWD");
        }
        ASSERT_EQ(fchdir(m_old_directory_fd), 0);
        close(m_old_directory_fd);
    }

    std::string in_folder(const std::string& name) const { return m_folder + "/" + name; }

    std::string make_file(const std::string& name) const {
        std::string file = in_folder(name);
        std::ofstream(file) << "x";
        return file;
    }

    /// All that is in the folder, at any depth, as "name" of a directory or "name*" of anything else.
    std::vector<std::string> content() const {
        std::vector<std::string> names;
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(m_folder)) {
            const bool is_directory = entry.symlink_status().type() == fs::file_type::directory;
            names.push_back(entry.path().string().substr(m_folder.size() + 1) + (is_directory ? "" : "*"));
        }
        return names;
    }

    const TemporaryFolder m_temporary;
    const std::string m_folder =
        fs::canonical(m_temporary.path()).string(); // absolute, without symbolic links

private:
    int m_old_directory_fd = -1;
    std::optional<std::string> m_old_pwd;
    mode_t m_old_umask = 0;
};

unsigned int mode_of(const std::string& name) {
    struct stat status {};
    EXPECT_EQ(stat(name.c_str(), &status), 0) << name;
    return status.st_mode & 07777;
}

TEST_F(UtilsPathTest, constants_hold_the_separators_and_the_windows_text_a_forward_slash) {
    EXPECT_STREQ(path::CURRENT_DIR::C_STR, ".");
    EXPECT_EQ(path::CURRENT_DIR::STR, ".");
    EXPECT_STREQ(path::PARENT_DIR::C_STR, "..");
    EXPECT_EQ(path::PARENT_DIR::STR, "..");
    EXPECT_STREQ(path::LINUX_PATH_SEPARATOR::C_STR, "/");
    EXPECT_EQ(path::LINUX_PATH_SEPARATOR::STR, "/");
    EXPECT_EQ(path::LINUX_PATH_SEPARATOR::CHAR, '/');
    EXPECT_STREQ(path::WINDOWS_PATH_SEPARATOR::C_STR, "\\");
    EXPECT_EQ(path::WINDOWS_PATH_SEPARATOR::STR, "/");
    EXPECT_EQ(path::WINDOWS_PATH_SEPARATOR::CHAR, '\\');
    EXPECT_EQ(path::FILE_EXTENSION_SEPARATOR::CHAR, '.');
    EXPECT_EQ(static_cast<int>(OPTIMISTIC), 0);
    EXPECT_EQ(static_cast<int>(PESSIMISTIC), 1);
}

TEST_F(UtilsPathTest, get_current_directory_has_no_slash_at_its_end) {
    ASSERT_EQ(chdir(m_folder.c_str()), 0);
    EXPECT_EQ(path::get_current_directory(), m_folder);
    ASSERT_EQ(chdir("/"), 0);
    EXPECT_EQ(path::get_current_directory(), "");
}

TEST_F(UtilsPathTest, get_current_directory_removes_one_slash_of_the_name_that_the_shell_gave) {
    // The name comes from PWD where that leads to the current directory, in the user's own spelling.
    ASSERT_EQ(chdir(m_folder.c_str()), 0);
    setenv("PWD", (m_folder + "/").c_str(), 1);
    EXPECT_EQ(path::get_current_directory(), m_folder);
    setenv("PWD", (m_folder + "//").c_str(), 1);
    EXPECT_EQ(path::get_current_directory(), m_folder + "/");
}

TEST_F(UtilsPathTest, get_current_directory_throws_where_the_directory_is_gone) {
    const std::string gone = in_folder("gone");
    ASSERT_EQ(mkdir(gone.c_str(), MODE), 0);
    ASSERT_EQ(chdir(gone.c_str()), 0);
    ASSERT_EQ(rmdir(gone.c_str()), 0);
    EXPECT_THROW(path::get_current_directory(), std::logic_error);
    EXPECT_THROW(path::get_absolute_path("a"), std::logic_error);
    EXPECT_EQ(path::get_absolute_path("/a"), "/a"); // needs no current directory
}

TEST_F(UtilsPathTest, normalize_path_separator_turns_backslashes_into_slashes) {
    std::string text = "\\a\\\\b/c\\";
    EXPECT_EQ(&path::normalize_path_separator(text), &text);
    EXPECT_EQ(text, "/a//b/c/");

    const std::string constant = " a\\b ";
    EXPECT_EQ(path::normalize_path_separator(constant), " a/b ");
    EXPECT_EQ(constant, " a\\b ");
    EXPECT_EQ(path::normalize_path_separator(std::string()), "");
}

struct PathCase {
    const char* description;
    const char* text;
    const char* expected;
};

constexpr PathCase FILE_NAME_CASES[] = {
    {"behind a backslash", "a\\b.conf", "b.conf"},
    {"no separator", "b.conf", "b.conf"},
    {"a separator at the end", "/x/", ""},
    {"a backslash at the end", "x\\", ""},
    {"the last of several", "/a/b/c", "c"},
    {"blanks stay", "/a/ b ", " b "},
    {"an empty path", "", ""},
    {"the root", "/", ""},
};

TEST_F(UtilsPathTest, get_file_name_is_what_stands_behind_the_last_separator) {
    for (const PathCase& row : FILE_NAME_CASES) {
        EXPECT_EQ(path::get_file_name(row.text), row.expected) << row.description;
    }
}

constexpr PathCase ABSOLUTE_CASES[] = {
    {"the current and the parent directory", "/a/./b/../c", "/a/c"},
    {"a run of separators and one at the end", "/a//b/", "/a/b"},
    {"blanks at both ends", "  /a  ", "/a"},
    {"the whole trim set at both ends", "\t\r\n /a\t\r\n ", "/a"},
    {"blanks within stay", "/a / b", "/a / b"},
    {"backslashes", "\\a\\b", "/a/b"},
    {"the root", "/", "/"},
    {"several slashes", "///", "/"},
    {"an empty path is the root", "", "/"},
    {"a blank path is the root", " \t\r\n", "/"},
    {"above the root", "/..", ""},
    {"above the root after a step down", "/a/../..", ""},
    {"above the root and down again", "/../a", ""},
    {"back to the root", "/a/..", "/"},
    {"the root itself as current directory", "/.", "/"},
    {"the parent of the second of two", "/a/b/..", "/a"},
    {"the parent's parent", "/a/b/../..", "/"},
    {"three dots are a name", "/a/...", "/a/..."},
    {"a dot at the start of a name", "/.a/..b", "/.a/..b"},
};

TEST_F(UtilsPathTest, get_absolute_path_cleans_a_path) {
    for (const PathCase& row : ABSOLUTE_CASES) {
        EXPECT_EQ(path::get_absolute_path(row.text), row.expected) << row.description;
    }
}

TEST_F(UtilsPathTest, get_absolute_path_starts_a_relative_path_at_the_current_directory) {
    const std::string work = in_folder("w");
    ASSERT_EQ(mkdir(work.c_str(), MODE), 0);
    ASSERT_EQ(chdir(work.c_str()), 0);
    EXPECT_EQ(path::get_absolute_path("a\\b"), work + "/a/b");
    EXPECT_EQ(path::get_absolute_path(" a "), work + "/a");
    EXPECT_EQ(path::get_absolute_path("."), work);
    EXPECT_EQ(path::get_absolute_path("../a"), in_folder("a"));
    EXPECT_EQ(path::get_absolute_path(".."), m_folder);
    EXPECT_EQ(path::get_absolute_path("\f"), work + "/\f"); // no white space to the trims, so no empty path

    ASSERT_EQ(chdir("/"), 0);
    EXPECT_EQ(path::get_absolute_path("a"), "/a");
    EXPECT_EQ(path::get_absolute_path(".."), "");
}

TEST_F(UtilsPathTest, check_or_create_directory_creates_every_missing_level) {
    EXPECT_TRUE(path::check_or_create_directory(in_folder("a/b/c"), DIRECTORY, MODE, OPTIMISTIC));
    EXPECT_THAT(content(), UnorderedElementsAre("a", "a/b", "a/b/c"));
}

TEST_F(UtilsPathTest, check_or_create_directory_creates_the_last_level_alone) {
    EXPECT_TRUE(path::check_or_create_directory(in_folder("a"), DIRECTORY, MODE, OPTIMISTIC));
    EXPECT_THAT(content(), ElementsAre("a"));
}

TEST_F(UtilsPathTest, check_or_create_directory_leaves_the_file_out) {
    EXPECT_TRUE(path::check_or_create_directory(in_folder("x/y/app.pid"), FILE_PATH, MODE, OPTIMISTIC));
    EXPECT_THAT(content(), UnorderedElementsAre("x", "x/y"));
}

TEST_F(UtilsPathTest, check_or_create_directory_cleans_the_path_first) {
    ASSERT_EQ(chdir(m_folder.c_str()), 0);
    EXPECT_TRUE(path::check_or_create_directory(" a\\.\\b//c/../d/ ", DIRECTORY, MODE, OPTIMISTIC));
    EXPECT_THAT(content(), UnorderedElementsAre("a", "a/b", "a/b/d"));
}

TEST_F(UtilsPathTest, check_or_create_directory_is_content_with_what_exists) {
    ASSERT_EQ(mkdir(in_folder("a").c_str(), 0700), 0);
    EXPECT_TRUE(path::check_or_create_directory(in_folder("a"), DIRECTORY, MODE, OPTIMISTIC));
    EXPECT_TRUE(path::check_or_create_directory(in_folder("a/app.pid"), FILE_PATH, MODE, OPTIMISTIC));
    EXPECT_THAT(content(), ElementsAre("a"));
    EXPECT_EQ(mode_of(in_folder("a")), 0700u);
    EXPECT_TRUE(path::check_or_create_directory("/", DIRECTORY, MODE, OPTIMISTIC));
    EXPECT_TRUE(path::check_or_create_directory("", DIRECTORY, MODE, OPTIMISTIC)); // the root as well
}

TEST_F(UtilsPathTest, check_or_create_directory_hands_the_mode_to_every_level) {
    EXPECT_TRUE(path::check_or_create_directory(in_folder("a/b"), DIRECTORY, 0710, OPTIMISTIC));
    EXPECT_EQ(mode_of(in_folder("a")), 0710u);
    EXPECT_EQ(mode_of(in_folder("a/b")), 0710u);

    umask(0077);
    EXPECT_TRUE(path::check_or_create_directory(in_folder("c/d"), DIRECTORY, 0777, OPTIMISTIC));
    EXPECT_EQ(mode_of(in_folder("c")), 0700u);
    EXPECT_EQ(mode_of(in_folder("c/d")), 0700u);
}

TEST_F(UtilsPathTest, check_or_create_directory_follows_a_symbolic_link_to_a_directory) {
    ASSERT_EQ(mkdir(in_folder("real").c_str(), MODE), 0);
    ASSERT_EQ(symlink(in_folder("real").c_str(), in_folder("link").c_str()), 0);
    EXPECT_TRUE(path::check_or_create_directory(in_folder("link/a"), DIRECTORY, MODE, OPTIMISTIC));
    EXPECT_THAT(content(), UnorderedElementsAre("real", "real/a", "link*"));
}

TEST_F(UtilsPathTest, check_or_create_directory_refuses_a_plain_file_as_the_path_and_within_it) {
    const std::string file = make_file("file");
    for (const std::string& name : {file, file + "/a", file + "/a/b"}) {
        errno = 0;
        EXPECT_FALSE(path::check_or_create_directory(name, DIRECTORY, MODE, OPTIMISTIC)) << name;
        EXPECT_EQ(errno, ENOTDIR) << name;
    }
    errno = 0;
    EXPECT_FALSE(path::check_or_create_directory(file + "/app.pid", FILE_PATH, MODE, OPTIMISTIC));
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_THAT(content(), ElementsAre("file*"));
}

TEST_F(UtilsPathTest, check_or_create_directory_refuses_a_path_of_which_nothing_is_left) {
    EXPECT_FALSE(path::check_or_create_directory("/app.pid", FILE_PATH, MODE, OPTIMISTIC));
    EXPECT_FALSE(path::check_or_create_directory("/", FILE_PATH, MODE, OPTIMISTIC));
    EXPECT_FALSE(path::check_or_create_directory("", FILE_PATH, MODE, OPTIMISTIC));
    EXPECT_FALSE(path::check_or_create_directory("/..", FILE_PATH, MODE, OPTIMISTIC));
    EXPECT_FALSE(path::check_or_create_directory("/..", DIRECTORY, MODE, OPTIMISTIC));
}

TEST_F(UtilsPathTest, check_or_create_directory_stops_at_the_level_that_the_system_refuses) {
    const std::string too_long(256, 'n'); // a name has 255 bytes at most
    errno = 0;
    EXPECT_FALSE(path::check_or_create_directory(in_folder("a/" + too_long), DIRECTORY, MODE, OPTIMISTIC));
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_THAT(content(), ElementsAre("a"));

    errno = 0;
    EXPECT_FALSE(
        path::check_or_create_directory(in_folder("b/" + too_long + "/c"), DIRECTORY, MODE, OPTIMISTIC));
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_THAT(content(), UnorderedElementsAre("a", "b"));
}

TEST_F(UtilsPathTest, check_or_create_directory_goes_on_below_levels_that_turn_out_to_exist) {
    // As if another process created them between the look and the creation: none is seen, all but the last
    // two exist.
    with_refused_system_call(SYS_newfstatat, ENOENT, [this] {
        struct stat status {};
        ASSERT_NE(stat(m_folder.c_str(), &status), 0);
        EXPECT_TRUE(path::check_or_create_directory(in_folder("a/b"), DIRECTORY, MODE, OPTIMISTIC));
        EXPECT_TRUE(path::check_or_create_directory(in_folder("a/b"), DIRECTORY, MODE, OPTIMISTIC));
    });
    EXPECT_THAT(content(), UnorderedElementsAre("a", "a/b"));
}

TEST_F(UtilsPathTest, check_or_create_directory_leaves_the_last_word_to_mkdir) {
    // A link to nowhere is not seen by stat, and mkdir says that it exists: accepted as the path, of no use
    // within it.
    ASSERT_EQ(symlink(in_folder("nowhere").c_str(), in_folder("link").c_str()), 0);
    EXPECT_TRUE(path::check_or_create_directory(in_folder("link"), DIRECTORY, MODE, OPTIMISTIC));
    errno = 0;
    EXPECT_FALSE(path::check_or_create_directory(in_folder("link/a"), DIRECTORY, MODE, OPTIMISTIC));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_THAT(content(), ElementsAre("link*"));

    // Also where the directory exists.
    bool is_there = true;
    int error = 0;
    with_refused_system_call(SYS_mkdir, EROFS, [&] {
        is_there = path::check_or_create_directory(m_folder, DIRECTORY, MODE, OPTIMISTIC);
        error = errno;
    });
    EXPECT_FALSE(is_there);
    EXPECT_EQ(error, EROFS);
}

template <class Exception>
std::string text_of_exception(const std::string& name, create_policy policy) {
    try {
        path::check_or_create_directory(name, DIRECTORY, MODE, policy);
    } catch (const Exception& exception) {
        return exception.what();
    }
    return "nothing was thrown";
}

TEST_F(UtilsPathTest,
       check_or_create_directory_throws_for_the_pessimistic_policy_whether_the_path_exists_or_not) {
    const std::string expected = "not implemented:create_directory_pessimistic";
    EXPECT_EQ(text_of_exception<std::runtime_error>(m_folder, PESSIMISTIC), expected);
    EXPECT_EQ(text_of_exception<std::runtime_error>(in_folder("a"), PESSIMISTIC), expected);
    EXPECT_THAT(content(), IsEmpty());
}

TEST_F(UtilsPathTest, check_or_create_directory_throws_for_a_policy_without_a_name) {
    EXPECT_EQ(text_of_exception<std::invalid_argument>(m_folder, UNKNOWN), "policy");
    EXPECT_EQ(text_of_exception<std::invalid_argument>(in_folder("a"), UNKNOWN), "policy");
    EXPECT_THAT(content(), IsEmpty());
}

TEST_F(UtilsPathTest, check_or_create_directory_refuses_an_empty_path_before_it_looks_at_the_policy) {
    for (const create_policy policy : {PESSIMISTIC, UNKNOWN}) {
        EXPECT_FALSE(path::check_or_create_directory("/..", DIRECTORY, MODE, policy));
        EXPECT_FALSE(path::check_or_create_directory("/app.pid", FILE_PATH, MODE, policy));
    }
}

} // namespace
