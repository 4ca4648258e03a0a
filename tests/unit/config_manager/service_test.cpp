#include "tools/config_manager/service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "tests/support/temporary_folder.h"
#include "tools/config_manager/consumer_group.h"

namespace corvalin::tools {
namespace {

using testing::HasSubstr;

constexpr const char* LIST = R"([{"ip":"10.0.0.1","port":1}])";

class FollowedFileTest : public testing::Test {
protected:
    void write(const std::string& text) { m_folder.write_file("list.json", text); }

    test::TemporaryFolder m_folder;
    const std::string m_path = m_folder.path() + "/list.json";
    FollowedFile m_file{LIST_KINDS[0], m_path};
};

TEST_F(FollowedFileTest, changes_when_its_text_does) {
    write(LIST);
    m_file.read();
    EXPECT_FALSE(m_file.read_change());
    write(LIST);
    EXPECT_FALSE(m_file.read_change()) << "the same text, written again";
    write("[]");
    EXPECT_TRUE(m_file.read_change());
    EXPECT_FALSE(m_file.read_change()) << "once";
    EXPECT_EQ(m_file.list(), NodeList());
}

TEST_F(FollowedFileTest, is_left_alone_while_it_is_being_replaced) {
    write(LIST);
    m_file.read();
    std::filesystem::remove(m_path);
    EXPECT_FALSE(m_file.read_change());
    write(LIST);
    EXPECT_FALSE(m_file.read_change()) << "it came back as it was";
}

TEST_F(FollowedFileTest, must_be_there_at_the_start) {
    EXPECT_THROW(m_file.read(), std::runtime_error);
}

TEST_F(FollowedFileTest, has_no_list_for_routers_if_anything_is_wrong_with_it) {
    write("[{\"ip\":\"10.0.0.1\",\"port\":1},\n{\"ip\":\"10.0.0.1\",\"port\":1},\n{\"ip\":\"node\",\"port\":"
          "1}]");
    m_file.read();
    testing::internal::CaptureStderr();
    EXPECT_EQ(m_file.list(), std::nullopt);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              m_path + ":2: warning: 10.0.0.1:1 is listed again: it gets a double share of sessions\n" +
                  m_path + ":3: \"ip\" is no dotted IPv4 address: \"node\"\n");
}

TEST_F(FollowedFileTest, has_no_list_for_routers_if_no_broker_would_take_it) {
    std::string text = "[";
    for (int host = 0; host < 60'000; ++host) {
        text += "{\"ip\":\"10.0." + std::to_string(host / 250) + "." + std::to_string(host % 250) +
                "\",\"port\":1},\n";
    }
    write(text + "{\"ip\":\"10.1.0.1\",\"port\":1}]");
    m_file.read();
    testing::internal::CaptureStderr();
    EXPECT_EQ(m_file.list(), std::nullopt);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(" bytes, and brokers take 999964\n"));
}

TEST(ConsumerGroupTest, is_never_used_twice) {
    EXPECT_THAT(make_consumer_group("_watch"), HasSubstr("corvalin_config_manager_watch_"));
    EXPECT_NE(make_consumer_group(""), make_consumer_group(""));
}

} // namespace
} // namespace corvalin::tools
