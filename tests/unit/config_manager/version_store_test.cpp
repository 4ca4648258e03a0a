#include "tools/config_manager/version_store.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/temporary_folder.h"

namespace corvalin::tools {
namespace {

using testing::ElementsAre;
using testing::Pair;
using testing::UnorderedElementsAre;

const NodeList ONE{{"10.0.0.1", 1}};
const NodeList TWO{{"10.0.0.2", 2}};
const NodeList THREE{{"10.0.0.3", 3}};

std::string reason(const std::function<void()>& action) {
    try {
        action();
        return "";
    } catch (const std::runtime_error& error) {
        return error.what();
    }
}

class VersionStoreTest : public testing::Test {
protected:
    VersionStore store(uint64_t first_version = 1) const { return VersionStore(m_path, first_version); }

    test::TemporaryFolder m_folder;
    const std::string m_path = m_folder.path() + "/state.json";
};

TEST_F(VersionStoreTest, begins_with_nothing_and_counts_each_configuration_by_itself) {
    EXPECT_FALSE(store().exists());
    EXPECT_TRUE(store().history("a").empty());
    EXPECT_TRUE(store().versions().empty());
    EXPECT_EQ(store().record("a", ONE).version, 1u);
    EXPECT_EQ(store().record("a", TWO).version, 2u);
    EXPECT_EQ(store().record("b", ONE).version, 1u);
    EXPECT_TRUE(store().exists());
    EXPECT_THAT(store().versions(), UnorderedElementsAre(Pair("a", 2), Pair("b", 1)));
}

TEST_F(VersionStoreTest, another_process_finds_all_that_was_recorded) {
    store().record("a", ONE);
    store().record("a", {}, 0);
    store().record("a", ONE, 1);
    const History history = store().history("a");
    ASSERT_EQ(history.size(), 3u);
    EXPECT_EQ(history[0].nodes, ONE);
    EXPECT_EQ(history[1].nodes, NodeList());
    EXPECT_EQ(history[1].restored, 0u);
    EXPECT_EQ(history[2].version, 3u);
    EXPECT_EQ(history[2].nodes, ONE);
    EXPECT_EQ(history[2].restored, 1u);
}

TEST_F(VersionStoreTest, uses_no_version_below_the_first_one) {
    EXPECT_EQ(store(100).record("a", ONE).version, 100u);
    EXPECT_EQ(store(100).record("a", ONE).version, 101u);
    EXPECT_EQ(store(1).record("a", ONE).version, 102u) << "never back";
    EXPECT_EQ(store(500).record("a", ONE).version, 500u) << "above all that routers have";
}

TEST_F(VersionStoreTest, gives_no_version_twice_to_processes_that_record_at_once) {
    constexpr int PROCESSES = 4;
    constexpr int LISTS = 10;
    std::vector<pid_t> children;
    for (int index = 0; index < PROCESSES; ++index) {
        children.push_back(fork());
        if (children.back() == 0) {
            int failures = 0;
            for (int list = 0; list < LISTS; ++list) {
                failures += reason([this] { store().record("a", ONE); }).empty() ? 0 : 1;
            }
            _exit(failures);
        }
    }
    for (const pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    const History history = store().history("a");
    ASSERT_EQ(history.size(), PROCESSES * LISTS);
    EXPECT_EQ(history.back().version, PROCESSES * LISTS)
        << "ascending by one, as load() makes sure of the order";
}

TEST_F(VersionStoreTest, a_process_that_is_killed_leaves_a_state_that_can_be_used) {
    store().record("a", ONE);
    for (int round = 0; round < 20; ++round) {
        const pid_t child = fork();
        if (child == 0) {
            for (;;) {
                store().record("a", TWO);
            }
        }
        const uint64_t before = store().versions()["a"];
        std::this_thread::sleep_for(
            std::chrono::microseconds(500 * round)); // at another point of its work each time
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        const uint64_t after = store().versions()["a"];
        ASSERT_GE(after, before);
        ASSERT_EQ(store().record("a", ONE).version, after + 1);
    }
}

TEST_F(VersionStoreTest, ignores_what_a_crash_left_of_the_next_state) {
    store().record("a", ONE);
    m_folder.write_file("state.json.new", "{ half a sta");
    EXPECT_EQ(store().record("a", TWO).version, 2u);
    EXPECT_EQ(store().history("a").size(), 2u);
}

TEST_F(VersionStoreTest, forgets_old_lists_and_no_version) {
    for (int count = 0; count < 60; ++count) {
        store().record("a", ONE);
    }
    const History history = store().history("a");
    EXPECT_EQ(history.size(), 50u);
    EXPECT_EQ(history.front().version, 11u);
    EXPECT_EQ(history.back().version, 60u);
}

TEST_F(VersionStoreTest, makes_the_folder_of_its_file) {
    const std::string path = m_folder.path() + "/a/b/state.json";
    VersionStore(path).record("a", ONE);
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(VersionStoreTest, refuses_a_file_that_is_no_state_and_leaves_it_alone) {
    const struct {
        const char* description;
        std::string text;
    } cases[] = {
        {"empty", ""},
        {"cut off", R"({"a": [{"version": 1, "nodes": [)"},
        {"array", "[]"},
        {"history that is no array", R"({"a": 5})"},
        {"entry that is no object", R"({"a": [5]})"},
        {"no version", R"({"a": [{"nodes": []}]})"},
        {"negative version", R"({"a": [{"version": -1, "nodes": []}]})"},
        {"version 0", R"({"a": [{"version": 0, "nodes": []}]})"},
        {"versions that do not ascend",
         R"({"a": [{"version": 2, "nodes": []}, {"version": 2, "nodes": []}]})"},
        {"no nodes", R"({"a": [{"version": 1}]})"},
        {"restored text", R"({"a": [{"version": 1, "nodes": [], "restored": "1"}]})"},
        {"node without port", R"({"a": [{"version": 1, "nodes": [{"ip": "10.0.0.1"}]}]})"},
        {"port that does not fit",
         R"({"a": [{"version": 1, "nodes": [{"ip": "10.0.0.1", "port": 65536}]}]})"},
        {"address that routers take for 0.0.0.0",
         R"({"a": [{"version": 1, "nodes": [{"ip": "node", "port": 1}]}]})"},
        {"brackets only", std::string(1'000'000, '[')},
    };
    for (const auto& row : cases) {
        m_folder.write_file("state.json", row.text);
        const std::string expected = m_path + " is no state file of a configuration manager";
        EXPECT_EQ(reason([this] { store().versions(); }), expected) << row.description;
        EXPECT_EQ(reason([this] { store().record("a", ONE); }), expected) << row.description;
        EXPECT_EQ(read_text(m_path), row.text) << row.description;
    }
}

TEST_F(VersionStoreTest, says_when_no_version_is_left) {
    m_folder.write_file("state.json", R"({"a": [{"version": 18446744073709551614, "nodes": []}]})");
    EXPECT_EQ(store().record("a", ONE).version, UINT64_MAX);
    EXPECT_EQ(reason([this] { store().record("a", ONE); }),
              "no version is left above the last one in " + m_path);
}

TEST_F(VersionStoreTest, says_what_it_cannot_write) {
    m_folder.write_file("file", "");
    const std::string path = m_folder.path() + "/file/state.json";
    EXPECT_THAT(reason([&] { VersionStore(path).record("a", ONE); }),
                testing::HasSubstr(m_folder.path() + "/file"));
}

TEST_F(VersionStoreTest, lets_one_manager_run_and_the_next_one_when_it_is_gone) {
    {
        const ManagerLock lock(store());
        EXPECT_EQ(reason([this] { const ManagerLock second(store()); }),
                  "another manager runs with " + m_path);
        EXPECT_EQ(store().record("a", ONE).version, 1u) << "other verbs go on";
        const VersionStore other(m_folder.path() + "/other.json");
        EXPECT_EQ(reason([&] { const ManagerLock lock_of_other(other); }), "");
    }
    EXPECT_EQ(reason([this] { const ManagerLock next(store()); }), "");
}

TEST_F(VersionStoreTest, a_manager_that_was_killed_holds_no_lock) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
        const ManagerLock lock(store());
        (void)!write(ready[1], "r", 1);
        pause();
    }
    char byte;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    EXPECT_EQ(reason([this] { const ManagerLock second(store()); }), "another manager runs with " + m_path);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(reason([this] { const ManagerLock next(store()); }), "");
    close(ready[0]);
    close(ready[1]);
}

TEST(RollbackTest, goes_back_by_one_list_each_time) {
    History history{{4, ONE, 0}, {5, TWO, 0}, {6, THREE, 0}};
    ASSERT_NE(find_rollback_target(history, 0), nullptr);
    EXPECT_EQ(find_rollback_target(history, 0)->version, 5u);
    history.push_back({7, TWO, 5});
    EXPECT_EQ(find_rollback_target(history, 0)->version, 4u) << "not the list that was just taken back";
    history.push_back({8, ONE, 4});
    EXPECT_EQ(find_rollback_target(history, 0), nullptr) << "nothing is left before it";
    history.push_back({9, THREE, 0});
    EXPECT_EQ(find_rollback_target(history, 0)->version, 8u);
}

TEST(RollbackTest, finds_any_version_that_is_asked_for) {
    const History history{{4, ONE, 0}, {5, TWO, 0}, {7, ONE, 4}};
    for (const uint64_t version : {4U, 5U, 7U}) {
        ASSERT_NE(find_rollback_target(history, version), nullptr) << version;
        EXPECT_EQ(find_rollback_target(history, version)->version, version);
    }
    for (const uint64_t version : {3U, 6U, 8U}) {
        EXPECT_EQ(find_rollback_target(history, version), nullptr) << version;
    }
    EXPECT_EQ(find_rollback_target({}, 0), nullptr);
    EXPECT_EQ(find_rollback_target({{1, ONE, 0}}, 0), nullptr);
}

TEST(RollbackTest, knows_the_lists_that_were_taken_back) {
    EXPECT_FALSE(is_withdrawn({}, ONE));
    EXPECT_FALSE(is_withdrawn({{1, ONE, 0}, {2, TWO, 0}}, TWO)) << "no rollback";
    const History once{{1, ONE, 0}, {2, TWO, 0}, {3, ONE, 1}};
    EXPECT_TRUE(is_withdrawn(once, TWO));
    EXPECT_FALSE(is_withdrawn(once, ONE)) << "what routers have";
    EXPECT_FALSE(is_withdrawn(once, THREE)) << "never published";
    const History twice{{1, ONE, 0}, {2, TWO, 0}, {3, THREE, 0}, {4, TWO, 2}, {5, ONE, 1}};
    EXPECT_TRUE(is_withdrawn(twice, TWO));
    EXPECT_TRUE(is_withdrawn(twice, THREE));
    const History later{{1, ONE, 0}, {2, TWO, 0}, {3, ONE, 1}, {4, THREE, 0}};
    EXPECT_FALSE(is_withdrawn(later, TWO)) << "somebody has decided anew";
}

} // namespace
} // namespace corvalin::tools
