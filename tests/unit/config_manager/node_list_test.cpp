#include "tools/config_manager/node_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/temporary_folder.h"

namespace corvalin::tools {
namespace {

using test::TemporaryFolder;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// "line: text" for each.
std::vector<std::string> texts(const std::vector<Remark>& remarks) {
    std::vector<std::string> result;
    for (const Remark& remark : remarks) {
        result.push_back(std::to_string(remark.line) + ": " + remark.text);
    }
    return result;
}

TEST(NodeListTest, reads_nodes_in_their_order) {
    const CheckedNodeList checked = check_node_list(R"([{"ip":"10.0.0.2","port":1},
        {"port":65535, "ip":"10.0.0.1"}])");
    EXPECT_EQ(checked.nodes, (NodeList{{"10.0.0.2", 1}, {"10.0.0.1", 65535}}));
    EXPECT_THAT(texts(checked.faults), IsEmpty());
    EXPECT_THAT(texts(checked.warnings), IsEmpty());
}

TEST(NodeListTest, reads_an_empty_list_and_one_behind_a_byte_order_mark) {
    EXPECT_THAT(texts(check_node_list("[]").faults), IsEmpty());
    const CheckedNodeList marked = check_node_list("\xEF\xBB\xBF[{\"ip\":\"10.0.0.1\",\"port\":1}]");
    EXPECT_THAT(texts(marked.faults), IsEmpty());
    EXPECT_EQ(marked.nodes, (NodeList{{"10.0.0.1", 1}}));
}

TEST(NodeListTest, tells_each_fault_of_a_list_once_with_its_line) {
    const struct {
        const char* description;
        const char* text;
        const char* fault;
    } cases[] = {
        {"no text", "", "1: The document is empty."},
        {"text that ends too early", "[{\"ip\":\"10.0.0.1\",\n\"port\":1}\n",
         "3: Missing a comma or ']' after an array element."},
        {"text behind the list", "[]\n[]", "2: The document root must not be followed by other values."},
        {"object", "{\"ip\":\"10.0.0.1\",\"port\":1}", "1: the list is no array of nodes"},
        {"number", "\n5", "2: the list is no array of nodes"},
        {"null", "null", "1: the list is no array of nodes"},
        {"string", "\"x\"", "1: the list is no array of nodes"},
        {"node that is a number", "[\n7]", "2: a node is no object"},
        {"node that is an array", "[\n[7]]", "2: a node is no object"},
        {"node that is null", "[null]", "1: a node is no object"},
        {"node without ip", "[\n{\"port\":1\n}]", "2: node without \"ip\""},
        {"node without port", "[\n{\"ip\":\"10.0.0.1\"\n}]", "2: node without \"port\""},
        {"ip that is a number", "[{\"port\":1,\n\"ip\":5}]", "2: \"ip\" is no string"},
        {"ip that is an object", "[{\"port\":1,\n\"ip\":{\"a\":1}}]", "2: \"ip\" is no string"},
        {"ip that is null", "[{\"port\":1,\"ip\":null}]", "1: \"ip\" is no string"},
        {"port that is text", "[{\"ip\":\"10.0.0.1\",\"port\":\"80\"}]",
         "1: \"port\" is no whole number from 1 to 65535"},
        {"negative port", "[{\"ip\":\"10.0.0.1\",\"port\":-1}]",
         "1: \"port\" is no whole number from 1 to 65535"},
        {"broken port", "[{\"ip\":\"10.0.0.1\",\"port\":1.0}]",
         "1: \"port\" is no whole number from 1 to 65535"},
        {"port beyond 32 bits", "[{\"ip\":\"10.0.0.1\",\"port\":4294967296}]",
         "1: \"port\" is no whole number from 1 to 65535"},
        {"port 0", "[{\"ip\":\"10.0.0.1\",\"port\":0}]", "1: \"port\" is not in 1 to 65535: 0"},
        {"port 65536", "[{\"ip\":\"10.0.0.1\",\"port\":65536}]", "1: \"port\" is not in 1 to 65535: 65536"},
        {"port given twice", "[{\"ip\":\"10.0.0.1\",\"port\":1,\n\"port\":2}]",
         "2: member \"port\" is given twice"},
    };
    for (const auto& row : cases) {
        EXPECT_THAT(texts(check_node_list(row.text).faults), ElementsAre(row.fault)) << row.description;
    }
}

TEST(NodeListTest, takes_nothing_for_an_address_but_a_dotted_ipv4_address_of_a_node) {
    const struct {
        const char* description;
        const char* ip;
        bool is_taken;
    } cases[] = {
        {"ordinary", "10.0.0.1", true},
        {"loopback", "127.0.0.1", true},
        {"highest numbers", "223.255.255.254", true},
        {"empty", "", false},
        {"name", "node.example", false},
        {"three numbers", "10.0.1", false},
        {"five numbers", "10.0.0.1.2", false},
        {"number above 255", "10.0.0.256", false},
        {"leading zero", "10.0.0.01", false},
        {"hexadecimal", "0x7f.0.0.1", false},
        {"one number", "167772161", false},
        {"blank in front", " 10.0.0.1", false},
        {"blank behind", "10.0.0.1 ", false},
        {"zero byte behind", "10.0.0.1\\u0000", false},
        {"IPv6", "::1", false},
        {"with a port", "10.0.0.1:5000", false},
        {"no address", "0.0.0.0", false},
        {"broadcast", "255.255.255.255", false},
    };
    for (const auto& row : cases) {
        const CheckedNodeList checked =
            check_node_list("[\n{\"ip\":\"" + std::string(row.ip) + "\",\"port\":1}]");
        if (row.is_taken) {
            EXPECT_THAT(texts(checked.faults), IsEmpty()) << row.description;
        } else {
            EXPECT_THAT(texts(checked.faults), ElementsAre(HasSubstr("2: \"ip\" is no"))) << row.description;
        }
    }
}

TEST(NodeListTest, tells_all_faults_of_a_list_and_not_only_the_first) {
    const CheckedNodeList checked =
        check_node_list("[\n{\"ip\":\"x\",\"port\":1},\n{\"ip\":\"10.0.0.1\"},\n7]");
    EXPECT_THAT(texts(checked.faults), ElementsAre("2: \"ip\" is no dotted IPv4 address: \"x\"",
                                                   "3: node without \"port\"", "4: a node is no object"));
}

TEST(NodeListTest, warns_of_a_node_that_is_listed_again_and_keeps_it) {
    const CheckedNodeList checked = check_node_list("[{\"ip\":\"10.0.0.1\",\"port\":1},\n{\"ip\":\"10.0.0."
                                                    "1\",\"port\":2},\n{\"ip\":\"10.0.0.1\",\"port\":1}]");
    EXPECT_THAT(texts(checked.faults), IsEmpty());
    EXPECT_THAT(texts(checked.warnings),
                ElementsAre("3: 10.0.0.1:1 is listed again: it gets a double share of sessions"));
    EXPECT_EQ(checked.nodes.size(), 3u);
}

TEST(NodeListTest, warns_of_members_that_routers_do_not_use_whatever_they_hold) {
    const CheckedNodeList checked = check_node_list(
        "[{\"ip\":\"10.0.0.1\",\n\"site\":{\"ip\":5,\"racks\":[null,{\"port\":\"x\"}]},\n\"port\":1}]");
    EXPECT_THAT(texts(checked.faults), IsEmpty());
    EXPECT_THAT(texts(checked.warnings), ElementsAre("2: member \"site\" is not used by routers"));
    EXPECT_EQ(checked.nodes, (NodeList{{"10.0.0.1", 1}}));
}

TEST(NodeListTest, outlives_a_text_of_nothing_but_opening_brackets) {
    const CheckedNodeList checked = check_node_list(std::string(10'000'000, '['));
    EXPECT_FALSE(checked.faults.empty());
}

TEST(NodeListTest, writes_a_list_that_reads_the_same) {
    const NodeList nodes{{"10.0.0.1", 1}, {"10.0.0.2", 65535}};
    EXPECT_EQ(to_json(nodes), R"([{"ip":"10.0.0.1","port":1},{"ip":"10.0.0.2","port":65535}])");
    EXPECT_EQ(check_node_list(to_json(nodes)).nodes, nodes);
    EXPECT_EQ(to_json({}), "[]");
}

TEST(NodeListTest, tells_what_was_removed_and_what_was_added) {
    const Node one{"10.0.0.1", 1};
    const Node two{"10.0.0.2", 2};
    const Node three{"10.0.0.3", 3};
    EXPECT_THAT(difference({one, two}, {three, one}), ElementsAre("- 10.0.0.2:2", "+ 10.0.0.3:3"));
    EXPECT_THAT(difference({one, two}, {two, one}), IsEmpty());
    EXPECT_THAT(difference({one}, {one, one, one}), ElementsAre("+ 10.0.0.1:1", "+ 10.0.0.1:1"));
    EXPECT_THAT(difference({one, one}, {}), ElementsAre("- 10.0.0.1:1", "- 10.0.0.1:1"));
}

TEST(NodeListTest, tells_which_file_cannot_be_read_and_why) {
    const TemporaryFolder folder;
    EXPECT_EQ(read_text(folder.write_file("text", std::string("a\0b", 3))), std::string("a\0b", 3));
    const auto reason = [](const std::string& path) {
        try {
            read_text(path);
            return std::string();
        } catch (const std::runtime_error& error) {
            return std::string(error.what());
        }
    };
    EXPECT_EQ(reason(folder.path() + "/none"),
              "cannot read " + folder.path() + "/none: No such file or directory");
    EXPECT_EQ(reason(folder.path()), "cannot read " + folder.path() + ": Is a directory");
}

} // namespace
} // namespace corvalin::tools
