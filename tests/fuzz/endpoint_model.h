// endpoint_model: a second reading of the texts of the endpoint parsers, character by character.
//
// It uses none of the string functions, `strtoul`, streams and `inet_pton` that the parsers are made of.
//
// An endpoint has no use for a zero byte. Where one gets in, C functions see the text up to there;
// `as_c_text` says so in one place, to keep the oracle exact on such inputs too.
//
// Threads    one.
// Ownership  plain values.
#pragma once

#include "tests/fuzz/fuzz_support.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace corvalin::fuzz {

constexpr unsigned LAST_PORT = 65535;

struct Endpoint {
    std::string host;
    unsigned port;
};

/// Takes the name of each case that a text has brought up.
using Mark = std::function<void(const char*)>;

inline bool is_space(char character) { // as the C library has it, with vertical tab and form feed
    return character == ' ' || (character >= '\t' && character <= '\r');
}

/// Without the white space that the trims remove: there is no vertical tab and no form feed among it.
std::string trimmed_left(std::string text);
std::string trimmed_right(std::string text);
std::string trimmed(std::string text);

/// Each piece ends at a separator; behind the last separator there is a piece only if there is text.
std::vector<std::string> pieces_of(const std::string& text, char separator);
/// The same without empty pieces.
std::vector<std::string> filled_pieces_of(const std::string& text, char separator);

std::string as_c_text(const std::string& text);

/// The strict reading of a port, of node lists and single endpoints.
std::optional<unsigned> strict_port(const std::string& text);

/// Four numbers below 256 without leading zeros, and nothing else. The address is in machine order.
std::optional<uint32_t> dotted(const std::string& text);

std::vector<Endpoint> expected_addrs(const std::string& text, const Mark& mark);

/// Nothing if there would be more than `most` of them.
std::optional<std::vector<Endpoint>> expected_hosts(const std::string& text, std::size_t most,
                                                    const Mark& mark);

} // namespace corvalin::fuzz
