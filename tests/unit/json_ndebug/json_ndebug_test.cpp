// An executable of its own, built with NDEBUG and optimisation whatever the preset says: what RapidJSON's assertions
// are to withstand. Death tests, since a failed assertion ends the process.
#ifndef NDEBUG
#error "this test shows something only where NDEBUG is defined"
#endif

#include "corvalin_lib/json.h"

#include <cassert>
#include <csignal>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

/// Text is parsed as the events of the daemon are: from bytes that no zero ends.
class Parsed {
public:
    explicit Parsed(const std::string& text) : m_text(text.begin(), text.end()) {
        rapidjson::MemoryStream bytes(m_text.data(), m_text.size());
        rapidjson::EncodedInputStream<rapidjson::UTF8<>, rapidjson::MemoryStream> stream(bytes);
        m_document.ParseStream<0, rapidjson::UTF8<>>(stream);
    }
    const rapidjson::Document& root() const { return m_document; }

private:
    const std::vector<char> m_text;
    rapidjson::Document m_document;
};

/// Where results go, so that the optimiser cannot drop an access whose result is not used.
template <class Result>
void use(Result result) {
    static volatile Result sink;
    sink = result;
    static_cast<void>(sink);
}

struct AccessCase {
    const char* description;
    const char* text;
    std::function<void(const rapidjson::Document&)> access;
    const char* expression; // that fails, as a regular expression
};

void expect_abort(const std::vector<AccessCase>& cases) {
    for (const AccessCase& row : cases) {
        SCOPED_TRACE(row.description);
        const Parsed parsed(row.text);
        ASSERT_FALSE(parsed.root().HasParseError());
        EXPECT_EXIT(row.access(parsed.root()), testing::KilledBySignal(SIGABRT),
                    std::string("RapidJSON assertion failed: .*") + row.expression +
                        ".* at .*document\\.h:[0-9]+");
    }
}

void find_type(const rapidjson::Document& root) {
    use(root.FindMember("type") != root.MemberEnd());
}

void has_type(const rapidjson::Document& root) {
    use(root.HasMember("type"));
}

void read_string(const rapidjson::Document& root) {
    use(root.FindMember("value")->value.GetString());
}

void read_uint64(const rapidjson::Document& root) {
    use(root.FindMember("value")->value.GetUint64());
}

void read_uint(const rapidjson::Document& root) {
    use(root.FindMember("value")->value.GetUint());
}

TEST(JsonNdebugTest, the_standard_assertion_is_off_in_this_executable) {
    int evaluated = 0;
    assert(++evaluated == 0);
    EXPECT_EQ(evaluated, 0);
}

TEST(JsonNdebugTest, a_member_of_a_root_that_is_no_object_aborts) {
    std::vector<AccessCase> cases;
    for (const char* const text : {"[]", "5", "\"x\"", "null", "true", "[{\"type\":\"x\"}]"}) {
        cases.push_back({text, text, find_type, "IsObject\\(\\)"});
        cases.push_back({text, text, has_type, "IsObject\\(\\)"});
    }
    expect_abort(cases);
}

TEST(JsonNdebugTest, the_string_of_a_value_that_is_none_aborts) {
    expect_abort({
        {"number", "{\"value\":5}", read_string, "IsString\\(\\)"},
        {"null", "{\"value\":null}", read_string, "IsString\\(\\)"},
        {"boolean", "{\"value\":true}", read_string, "IsString\\(\\)"},
        {"array", "{\"value\":[\"x\"]}", read_string, "IsString\\(\\)"},
        {"object", "{\"value\":{}}", read_string, "IsString\\(\\)"},
    });
}

TEST(JsonNdebugTest, an_unsigned_64_bit_number_that_is_none_aborts) {
    expect_abort({
        {"below the range", "{\"value\":-1}", read_uint64, "kUint64Flag"},
        {"a fraction, though a whole one", "{\"value\":1.0}", read_uint64, "kUint64Flag"},
        {"above the range", "{\"value\":18446744073709551616}", read_uint64, "kUint64Flag"},
        {"text", "{\"value\":\"1\"}", read_uint64, "kUint64Flag"},
        {"null", "{\"value\":null}", read_uint64, "kUint64Flag"},
    });
}

TEST(JsonNdebugTest, an_unsigned_32_bit_number_that_is_none_aborts) {
    expect_abort({
        {"above the range", "{\"value\":4294967296}", read_uint, "kUintFlag"},
        {"below the range", "{\"value\":-1}", read_uint, "kUintFlag"},
        {"a fraction", "{\"value\":1.5}", read_uint, "kUintFlag"},
        {"text", "{\"value\":\"80\"}", read_uint, "kUintFlag"},
    });
}

TEST(JsonNdebugTest, members_and_elements_of_other_values_abort) {
    expect_abort({
        {"the elements of what is no array", "{\"value\":5}",
         [](const rapidjson::Document& root) { use(root.FindMember("value")->value.Begin()); },
         "IsArray\\(\\)"},
        {"a member of an element that is no object", "[5]",
         [](const rapidjson::Document& root) { use(root.Begin()->HasMember("ip")); }, "IsObject\\(\\)"},
        {"a member that is not there", "{}",
         [](const rapidjson::Document& root) { use(root["value"].GetType()); }, "false"},
    });
}

TEST(JsonNdebugTest, well_formed_members_are_read_without_an_abort) {
    const Parsed parsed(
        "{\"type\":\"nodes\", \"version\":18446744073709551615, \"zero\":0, \"port\":4294967295,"
        " \"data\":[{\"ip\":\"10.0.0.1\"}], \"empty\":\"\"}");
    const rapidjson::Document& root = parsed.root();
    ASSERT_FALSE(root.HasParseError());
    EXPECT_TRUE(root.HasMember("type"));
    EXPECT_FALSE(root.HasMember("other"));
    EXPECT_TRUE(root.FindMember("other") == root.MemberEnd());
    EXPECT_STREQ(root.FindMember("type")->value.GetString(), "nodes");
    EXPECT_STREQ(root.FindMember("empty")->value.GetString(), "");
    EXPECT_EQ(root.FindMember("version")->value.GetUint64(), UINT64_MAX);
    EXPECT_EQ(root.FindMember("zero")->value.GetUint64(), 0u);
    EXPECT_EQ(root.FindMember("zero")->value.GetUint(), 0u);
    EXPECT_EQ(root.FindMember("port")->value.GetUint(), UINT32_MAX);
    const rapidjson::Value& data = root.FindMember("data")->value;
    ASSERT_TRUE(data.IsArray());
    ASSERT_EQ(data.Size(), 1u);
    EXPECT_STREQ(data.Begin()->FindMember("ip")->value.GetString(), "10.0.0.1");
}

TEST(JsonNdebugTest, a_byte_order_mark_is_skipped_and_a_parse_error_is_told_and_not_asserted) {
    EXPECT_TRUE(Parsed("\xEF\xBB\xBF{}").root().IsObject());
    for (const char* const text : {"", "{", "{\"a\":}", "nul", "{}x"}) {
        SCOPED_TRACE(text);
        const Parsed parsed(text);
        EXPECT_TRUE(parsed.root().HasParseError());
        EXPECT_STRNE(rapidjson::GetParseError_En(parsed.root().GetParseError()), "Unknown error.");
    }
}

} // namespace
