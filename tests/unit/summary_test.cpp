#include "tools/tool_support/summary.h"

#include <gtest/gtest.h>

#include "corvalin_lib/json.h"

namespace corvalin::tools {
namespace {

Summary an_example() {
    return Summary()
        .add("count", uint64_t{18446744073709551615U})
        .add("rate", 0.25)
        .add("clean", true)
        .add("name", "a \"quoted\" \\ name\n")
        .add("inner", Summary().add("one", uint64_t{1}))
        .add("list",
             std::vector<Summary>{Summary().add("port", uint64_t{2}), Summary().add("port", uint64_t{3})})
        .add("none", std::vector<Summary>());
}

TEST(SummaryTest, text_has_one_line_for_each_value_and_indents_what_is_within) {
    EXPECT_EQ(an_example().text(), "count: 18446744073709551615\n"
                                   "rate: 0.2\n"
                                   "clean: yes\n"
                                   "name: a \"quoted\" \\ name\n\n"
                                   "inner:\n"
                                   "  one: 1\n"
                                   "list:\n"
                                   "  port: 2\n"
                                   "list:\n"
                                   "  port: 3\n");
}

TEST(SummaryTest, json_is_read_back_by_a_parser) {
    rapidjson::Document document;
    document.Parse(an_example().json().c_str());
    ASSERT_FALSE(document.HasParseError());
    EXPECT_EQ(document["count"].GetUint64(), 18446744073709551615U);
    EXPECT_EQ(document["rate"].GetDouble(), 0.2);
    EXPECT_TRUE(document["clean"].GetBool());
    EXPECT_STREQ(document["name"].GetString(), "a \"quoted\" \\ name\n");
    EXPECT_EQ(document["inner"]["one"].GetUint64(), 1U);
    ASSERT_EQ(document["list"].Size(), 2U);
    EXPECT_EQ(document["list"][1]["port"].GetUint64(), 3U);
    EXPECT_EQ(document["none"].Size(), 0U);
}

TEST(SummaryTest, an_empty_summary_is_an_empty_object) {
    EXPECT_EQ(Summary().json(), "{\n}\n");
    EXPECT_EQ(Summary().text(), "");
}

TEST(SummaryTest, a_file_that_cannot_be_written_is_a_failure) {
    SummaryTarget target;
    target.file = "/nonexistent/summary";
    EXPECT_THROW(write_summary(Summary(), target), std::runtime_error);
}

} // namespace
} // namespace corvalin::tools
