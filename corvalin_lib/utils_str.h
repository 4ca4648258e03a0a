// utils_str: identifiers as text, substitution, trimming, splitting, and the checked conversion of text to a number.
//
// Threads    every function may be called on any thread; none keeps state. try_parse_value uses the thread's
//            errno.
// Ownership  arguments are only read during the call, except those that take the result.
// Errors     nothing here logs. try_parse_value answers a status; the others have no failure but an exhausted
//            heap.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace corvalin::utils {

/// The outcome of a call that can fail in several ways: one enumerator, of which `OkValue` is the success.
template <class Status, Status OkValue>
class [[nodiscard]] GenericResult {
public:
    static constexpr Status OK = OkValue;

    constexpr GenericResult(Status status) noexcept
        : m_status(status) {} // implicit: functions return the enumerator

    constexpr Status status() const noexcept { return m_status; }
    constexpr bool is_ok() const noexcept { return m_status == OkValue; }

    friend constexpr bool operator==(GenericResult, GenericResult) noexcept = default;

private:
    Status m_status;
};

} // namespace corvalin::utils

namespace corvalin::utils::str {

/// Shows the 16 bytes at `bytes`, in stored order, as lower-case digits:
/// "00112233-4455-6677-8899-aabbccddeeff".
std::string print_uuid(const unsigned char* bytes);
/// The same into `stream`, through its own formatting: a stream that is set to upper case gets upper-case
/// digits. The formatting state is left as it was found. Returns `stream`.
std::ostream& print_uuid(std::ostream& stream, const unsigned char* bytes);

/// Puts `to` in the place of each `from`, in one pass: what a replacement brought in is not searched again.
/// Requires: `from` is not empty, or the call never ends. Returns `text`.
std::string& replace(std::string& text, const std::string& from, const std::string& to);
/// The same in a copy.
std::string replace(const std::string& text, const std::string& from, const std::string& to);

/// Without `chars`, these remove horizontal tabs, line feeds, carriage returns and blanks, and no other white
/// space.
std::string trim_left(const std::string& text);
std::string trim_right(const std::string& text);
std::string trim_left(const std::string& text, const std::string& chars);
std::string trim_right(const std::string& text, const std::string& chars);

// All splits append to `pieces` what they find, never clear it, and return it. `keep_empty` keeps empty
// pieces.

/// Takes a delimiter as the end of a piece and not as a joint between two: one at the very end of `text` is
/// followed by no empty piece, and an empty `text` has no piece at all, whatever `keep_empty` says. The
/// option parser rests on both ("name=" is one piece).
std::vector<std::string>& split(const std::string& text, char delimiter, std::vector<std::string>& pieces,
                                bool keep_empty);
/// Takes a delimiter as a joint: with `keep_empty`, one more piece than there are delimiters. Requires:
/// `delimiter` is not empty.
std::vector<std::string>& split(const std::string& text, const char* delimiter,
                                std::vector<std::string>& pieces, bool keep_empty);
std::vector<std::string>& split(const std::string& text, const std::string& delimiter,
                                std::vector<std::string>& pieces, bool keep_empty);
/// Takes each character of `delimiters` as a joint; an empty `text` has no piece.
std::vector<std::string>& split_any(const std::string& text, const std::string& delimiters,
                                    std::vector<std::string>& pieces, bool keep_empty);

enum class try_parse_status {
    success = 0,        // the whole text is a number in range
    null_input = 1,     // no text
    invalid_format = 2, // no digits, or something behind them
    out_of_range = 3,   // the number does not fit the target
    system_error = 4,   // the conversion left any other errno value
};

using ParseResult = GenericResult<try_parse_status, static_cast<try_parse_status>(0)>;

/// Reads an unsigned number as `strtoul` does: leading white space and a sign are fine, and "-1" is out of
/// range, since it wraps to a huge number. The rest of the text is looked at last, so "80x" is an invalid
/// format and yet leaves 80 in `value`; any other failure leaves `value` alone.
template <class Number, int RADIX, class = std::enable_if_t<std::is_unsigned_v<Number>>>
ParseResult try_parse_value(const char* text, Number& value) {
    if (text == nullptr) {
        return try_parse_status::null_input;
    }
    errno = 0; // strtoul reports overflow by errno only and never clears what an earlier call left there
    char* end = nullptr;
    const unsigned long number = std::strtoul(text, &end, RADIX);
    if (!std::in_range<Number>(number)) {
        return try_parse_status::out_of_range;
    }
    const int error = std::exchange(errno, 0);
    if (error == ERANGE) {
        return try_parse_status::out_of_range;
    }
    if (error != 0) {
        return try_parse_status::system_error;
    }
    if (end == text) {
        return try_parse_status::invalid_format;
    }
    value = static_cast<Number>(number);
    return *end == '\0' ? try_parse_status::success : try_parse_status::invalid_format;
}

} // namespace corvalin::utils::str
