#include "corvalin_lib/utils_str.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <iomanip>
#include <sstream>

namespace {

using namespace corvalin::utils;
using str::try_parse_status;
using ::testing::ElementsAre;
using Pieces = std::vector<std::string>;
using Uuid = std::array<unsigned char, 16>;

constexpr Uuid ZERO_UUID = {};
// Digits below and above 9 in both halves of a byte, and both ends of the range.
constexpr Uuid MIXED_UUID = {0x00, 0x01, 0x0A, 0x10, 0xA0, 0xAB, 0xBA, 0x99,
                             0x9A, 0xC3, 0xDE, 0xEF, 0xF0, 0x0F, 0x7F, 0xFF};
constexpr const char* ZERO_UUID_TEXT = "00000000-0000-0000-0000-000000000000";
constexpr const char* MIXED_UUID_TEXT = "00010a10-a0ab-ba99-9ac3-deeff00f7fff";

std::string stream_uuid(const Uuid& uuid) {
    std::ostringstream stream;
    str::print_uuid(stream, uuid.data());
    return stream.str();
}

TEST(UtilsStrTest, print_uuid_groups_lower_case_digits_in_stored_order) {
    EXPECT_EQ(str::print_uuid(ZERO_UUID.data()), ZERO_UUID_TEXT);
    EXPECT_EQ(str::print_uuid(MIXED_UUID.data()), MIXED_UUID_TEXT);
}

TEST(UtilsStrTest, print_uuid_gives_equal_text_in_both_forms) {
    EXPECT_EQ(stream_uuid(ZERO_UUID), ZERO_UUID_TEXT);
    EXPECT_EQ(stream_uuid(MIXED_UUID), MIXED_UUID_TEXT);
    for (unsigned int byte = 0; byte < 256; ++byte) {
        Uuid uuid{};
        uuid.fill(static_cast<unsigned char>(byte));
        EXPECT_EQ(stream_uuid(uuid), str::print_uuid(uuid.data())) << "byte " << byte;
    }
}

TEST(UtilsStrTest, print_uuid_returns_the_stream_it_wrote_to) {
    std::ostringstream stream;
    EXPECT_EQ(&str::print_uuid(stream, ZERO_UUID.data()), &stream);
}

TEST(UtilsStrTest, print_uuid_leaves_flags_fill_and_precision_of_the_stream_as_they_were) {
    std::ostringstream stream;
    stream << std::dec << std::left << std::setfill('*') << std::setprecision(3) << std::showpos
           << std::fixed;
    const std::ios_base::fmtflags flags = stream.flags();

    str::print_uuid(stream, MIXED_UUID.data());

    EXPECT_EQ(stream.flags(), flags);
    EXPECT_EQ(stream.fill(), '*');
    EXPECT_EQ(stream.precision(), 3);
    EXPECT_EQ(stream.width(), 0);
    stream.str("");
    stream << std::setw(6) << 255 << 0.5;
    EXPECT_EQ(stream.str(), "+255**+0.500");
}

TEST(UtilsStrTest, print_uuid_pads_with_zeros_on_a_stream_that_aligns_left_with_another_fill) {
    std::ostringstream stream;
    stream << std::oct << std::left << std::setfill('*');
    str::print_uuid(stream, MIXED_UUID.data());
    EXPECT_EQ(stream.str(), MIXED_UUID_TEXT);
}

TEST(UtilsStrTest, print_uuid_keeps_the_upper_case_of_the_stream) {
    std::ostringstream stream;
    stream << std::uppercase;
    str::print_uuid(stream, MIXED_UUID.data());
    EXPECT_EQ(stream.str(), "00010A10-A0AB-BA99-9AC3-DEEFF00F7FFF");
}

struct ReplaceCase {
    const char* description;
    const char* text;
    const char* from;
    const char* to;
    const char* expected;
};

constexpr ReplaceCase REPLACE_CASES[] = {
    {"the text behind an insertion is searched, the insertion is not", "aXa", "a", "aa", "aaXaa"},
    {"no occurrence", "abc", "x", "y", "abc"},
    {"an empty text", "", "x", "y", ""},
    {"removal", "a--b--", "--", "", "ab"},
    {"a removal that forms the pattern anew", "aabb", "ab", "", "ab"},
    {"occurrences that overlap are taken from the left", "aaa", "aa", "b", "ba"},
    {"a replacement by itself ends", "aaa", "a", "a", "aaa"},
    {"a shorter text", "one two one", "one", "1", "1 two 1"},
    {"the whole text", "abc", "abc", "z", "z"},
};

TEST(UtilsStrTest, replace_goes_once_through_the_text) {
    for (const ReplaceCase& row : REPLACE_CASES) {
        std::string text = row.text;
        EXPECT_EQ(&str::replace(text, row.from, row.to), &text) << row.description;
        EXPECT_EQ(text, row.expected) << row.description;
    }
}

TEST(UtilsStrTest, replace_of_a_constant_text_gives_a_changed_copy) {
    for (const ReplaceCase& row : REPLACE_CASES) {
        const std::string text = row.text;
        EXPECT_EQ(str::replace(text, row.from, row.to), row.expected) << row.description;
        EXPECT_EQ(text, row.text) << row.description;
    }
}

struct TrimCase {
    const char* description;
    const char* text;
    const char* left;
    const char* right;
};

constexpr TrimCase TRIM_CASES[] = {
    {"all four characters at both ends", "\t \r\nx \t", "x \t", "\t \r\nx"},
    {"a line feed at the end", "x\r\n", "x\r\n", "x"},
    {"nothing to remove", "x", "x", "x"},
    {"blanks within stay", " a b ", "a b ", " a b"},
    {"a form feed stays", "\fx\f", "\fx\f", "\fx\f"},
    {"a form feed ends the removal", " \f x \f ", "\f x \f ", " \f x \f"},
    {"a vertical tab stays", "\vx\v", "\vx\v", "\vx\v"},
    {"an empty text", "", "", ""},
    {"nothing but white space", " \t\r\n", "", ""},
};

TEST(UtilsStrTest, trims_remove_tab_line_feed_return_and_blank_at_one_end) {
    for (const TrimCase& row : TRIM_CASES) {
        EXPECT_EQ(str::trim_left(row.text), row.left) << row.description;
        EXPECT_EQ(str::trim_right(row.text), row.right) << row.description;
    }
}

TEST(UtilsStrTest, trims_with_a_set_of_their_own_remove_its_characters_only) {
    EXPECT_EQ(str::trim_left("xyxaxy", "xy"), "axy");
    EXPECT_EQ(str::trim_right("xyxaxy", "xy"), "xyxa");
    EXPECT_EQ(str::trim_left(" x", "x"), " x");
    EXPECT_EQ(str::trim_right("x ", "x"), "x ");
    EXPECT_EQ(str::trim_left("xyx", "xy"), "");
    EXPECT_EQ(str::trim_right("xyx", "xy"), "");
    EXPECT_EQ(str::trim_left(" x ", ""), " x ");
    EXPECT_EQ(str::trim_right(" x ", ""), " x ");
}

struct SplitCase {
    const char* description;
    const char* text;
    Pieces kept;    // with keep_empty
    Pieces dropped; // without
};

const SplitCase CHAR_SPLIT_CASES[] = {
    {"no delimiter", "a", {"a"}, {"a"}},
    {"one delimiter", "a,b", {"a", "b"}, {"a", "b"}},
    {"a delimiter at the end gives no last piece", "a,b,", {"a", "b"}, {"a", "b"}},
    {"a piece without a value", "a,", {"a"}, {"a"}},
    {"a delimiter at the start", ",v", {"", "v"}, {"v"}},
    {"two delimiters in a row", "a,,b", {"a", "", "b"}, {"a", "b"}},
    {"two delimiters at the end", "a,,", {"a", ""}, {"a"}},
    {"only one delimiter", ",", {""}, {}},
    {"only delimiters", ",,,", {"", "", ""}, {}},
    {"an empty text", "", {}, {}},
    {"a line feed is an ordinary character", "a\nb,c\n", {"a\nb", "c\n"}, {"a\nb", "c\n"}},
};

TEST(UtilsStrTest, split_on_a_character_gives_no_empty_last_piece) {
    for (const SplitCase& row : CHAR_SPLIT_CASES) {
        Pieces kept;
        Pieces dropped;
        EXPECT_EQ(&str::split(row.text, ',', kept, true), &kept) << row.description;
        EXPECT_EQ(&str::split(row.text, ',', dropped, false), &dropped) << row.description;
        EXPECT_EQ(kept, row.kept) << row.description;
        EXPECT_EQ(dropped, row.dropped) << row.description;
    }
}

const SplitCase STRING_SPLIT_CASES[] = {
    {"no delimiter", "a", {"a"}, {"a"}},
    {"one delimiter", "a,b", {"a", "b"}, {"a", "b"}},
    {"a delimiter at the end", "a,b,", {"a", "b", ""}, {"a", "b"}},
    {"a piece without a value", "a,", {"a", ""}, {"a"}},
    {"a delimiter at the start", ",v", {"", "v"}, {"v"}},
    {"two delimiters in a row", "a,,b", {"a", "", "b"}, {"a", "b"}},
    {"only one delimiter", ",", {"", ""}, {}},
    {"only delimiters", ",,,", {"", "", "", ""}, {}},
    {"an empty text", "", {""}, {}},
};

TEST(UtilsStrTest, split_on_a_string_keeps_an_empty_last_piece) {
    for (const SplitCase& row : STRING_SPLIT_CASES) {
        Pieces kept;
        Pieces dropped;
        EXPECT_EQ(&str::split(row.text, std::string(","), kept, true), &kept) << row.description;
        EXPECT_EQ(&str::split(row.text, std::string(","), dropped, false), &dropped) << row.description;
        EXPECT_EQ(kept, row.kept) << row.description;
        EXPECT_EQ(dropped, row.dropped) << row.description;
    }
}

TEST(UtilsStrTest, split_on_a_plain_text_pointer_equals_the_split_on_a_string) {
    for (const SplitCase& row : STRING_SPLIT_CASES) {
        Pieces kept;
        Pieces dropped;
        EXPECT_EQ(&str::split(row.text, ",", kept, true), &kept) << row.description;
        EXPECT_EQ(&str::split(row.text, ",", dropped, false), &dropped) << row.description;
        EXPECT_EQ(kept, row.kept) << row.description;
        EXPECT_EQ(dropped, row.dropped) << row.description;
    }
}

TEST(UtilsStrTest, split_on_a_string_matches_the_delimiter_as_a_whole) {
    Pieces pieces;
    str::split("a::b:c::::d", "::", pieces, true);
    EXPECT_THAT(pieces, ElementsAre("a", "b:c", "", "d"));

    pieces.clear();
    str::split(":::a", "::", pieces, false);
    EXPECT_THAT(pieces, ElementsAre(":a"));
}

TEST(UtilsStrTest, split_on_a_string_counts_a_zero_byte_of_the_delimiter) {
    const std::string delimiter("\0;", 2);
    Pieces pieces;
    str::split(std::string("a\0;b;c", 6), delimiter, pieces, true);
    EXPECT_THAT(pieces, ElementsAre("a", "b;c"));
}

const SplitCase SPLIT_ANY_CASES[] = {
    {"both delimiters", "a;b,c", {"a", "b", "c"}, {"a", "b", "c"}},
    {"only one delimiter", ";", {"", ""}, {}},
    {"no delimiter", "a", {"a"}, {"a"}},
    {"a delimiter at the end", "a,", {"a", ""}, {"a"}},
    {"a delimiter at the start", ";a", {"", "a"}, {"a"}},
    {"two delimiters in a row", "a;,b", {"a", "", "b"}, {"a", "b"}},
    {"an empty text", "", {}, {}},
};

TEST(UtilsStrTest, split_any_takes_each_character_as_a_delimiter) {
    for (const SplitCase& row : SPLIT_ANY_CASES) {
        Pieces kept;
        Pieces dropped;
        EXPECT_EQ(&str::split_any(row.text, ";,", kept, true), &kept) << row.description;
        EXPECT_EQ(&str::split_any(row.text, ";,", dropped, false), &dropped) << row.description;
        EXPECT_EQ(kept, row.kept) << row.description;
        EXPECT_EQ(dropped, row.dropped) << row.description;
    }
}

TEST(UtilsStrTest, all_splits_append_behind_what_is_there) {
    Pieces pieces = {"first"};
    str::split("a,b", ',', pieces, true);
    str::split("c,d", ",", pieces, true);
    str::split("e,f", std::string(","), pieces, true);
    str::split_any("g,h", ",", pieces, true);
    EXPECT_THAT(pieces, ElementsAre("first", "a", "b", "c", "d", "e", "f", "g", "h"));
}

constexpr unsigned short UNTOUCHED = 4711;
constexpr int RADIX_BEYOND_THE_ALPHABET = 37; // the conversion refuses it with EINVAL

struct ParseCase {
    const char* description;
    const char* text;
    try_parse_status status;
    unsigned short value; // UNTOUCHED: as before the call
};

constexpr ParseCase PARSE_CASES[] = {
    {"no text", nullptr, try_parse_status::null_input, UNTOUCHED},
    {"an empty text", "", try_parse_status::invalid_format, UNTOUCHED},
    {"blanks only", "  ", try_parse_status::invalid_format, UNTOUCHED},
    {"no digits", "x", try_parse_status::invalid_format, UNTOUCHED},
    {"a sign only", "-", try_parse_status::invalid_format, UNTOUCHED},
    {"zero", "0", try_parse_status::success, 0},
    {"a number", "5000", try_parse_status::success, 5000},
    {"below the limit", "65534", try_parse_status::success, 65534},
    {"at the limit", "65535", try_parse_status::success, 65535},
    {"above the limit", "65536", try_parse_status::out_of_range, UNTOUCHED},
    {"above the limit and not a number", "65536x", try_parse_status::out_of_range, UNTOUCHED},
    {"at the limit of the conversion", "18446744073709551615", try_parse_status::out_of_range, UNTOUCHED},
    {"above the limit of the conversion", "18446744073709551616", try_parse_status::out_of_range, UNTOUCHED},
    {"a leading blank", " 12", try_parse_status::success, 12},
    {"a leading form feed", "\f12", try_parse_status::success, 12},
    {"a blank behind the digits is stored first", "12 ", try_parse_status::invalid_format, 12},
    {"a letter behind the digits is stored first", "80x", try_parse_status::invalid_format, 80},
    {"a plus sign", "+12", try_parse_status::success, 12},
    {"minus one wraps", "-1", try_parse_status::out_of_range, UNTOUCHED},
    {"minus zero", "-0", try_parse_status::success, 0},
    {"leading zeros are no octal number", "0012", try_parse_status::success, 12},
    {"hexadecimal ends behind the zero", "0x10", try_parse_status::invalid_format, 0},
};

TEST(UtilsStrTest, try_parse_value_answers_a_status_and_stores_the_number) {
    for (const ParseCase& row : PARSE_CASES) {
        unsigned short value = UNTOUCHED;
        const auto result = str::try_parse_value<unsigned short, 10, void>(row.text, value);
        EXPECT_EQ(result.status(), row.status) << row.description;
        EXPECT_EQ(result.is_ok(), row.status == try_parse_status::success) << row.description;
        EXPECT_EQ(value, row.value) << row.description;
    }
}

TEST(UtilsStrTest, try_parse_value_is_not_misled_by_an_old_errno) {
    for (const int old_errno : {ERANGE, EIO}) {
        unsigned short value = UNTOUCHED;
        errno = old_errno;
        EXPECT_EQ((str::try_parse_value<unsigned short, 10, void>("12", value)), try_parse_status::success);
        EXPECT_EQ(errno, 0);
        EXPECT_EQ(value, 12);
    }
}

TEST(UtilsStrTest, try_parse_value_reports_an_overflow_of_the_conversion_itself) {
    unsigned long value = UNTOUCHED;
    EXPECT_EQ((str::try_parse_value<unsigned long, 10>("18446744073709551616", value)),
              try_parse_status::out_of_range);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(value, UNTOUCHED);
    EXPECT_EQ((str::try_parse_value<unsigned long, 10>("18446744073709551615", value)),
              try_parse_status::success);
    EXPECT_EQ(value, 18446744073709551615UL);
}

TEST(UtilsStrTest, try_parse_value_reports_any_other_error_of_the_conversion) {
    unsigned short value = UNTOUCHED;
    EXPECT_EQ((str::try_parse_value<unsigned short, RADIX_BEYOND_THE_ALPHABET>("12", value)),
              try_parse_status::system_error);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(value, UNTOUCHED);
}

TEST(UtilsStrTest, parse_statuses_have_fixed_numbers) {
    EXPECT_EQ(static_cast<int>(try_parse_status::success), 0);
    EXPECT_EQ(static_cast<int>(try_parse_status::null_input), 1);
    EXPECT_EQ(static_cast<int>(try_parse_status::invalid_format), 2);
    EXPECT_EQ(static_cast<int>(try_parse_status::out_of_range), 3);
    EXPECT_EQ(static_cast<int>(try_parse_status::system_error), 4);
}

TEST(UtilsStrTest, a_result_is_good_for_its_success_value_only) {
    enum class Outcome { late, fine };
    using Result = GenericResult<Outcome, Outcome::fine>;
    EXPECT_TRUE(Result(Outcome::fine).is_ok());
    EXPECT_FALSE(Result(Outcome::late).is_ok());
    EXPECT_EQ(Result(Outcome::late).status(), Outcome::late);
    EXPECT_EQ(Result::OK, Outcome::fine);
}

} // namespace
