#include "tests/fuzz/endpoint_model.h"

#include <algorithm>
#include <utility>

namespace corvalin::fuzz {

namespace {

bool is_trimmed(char character) {
    return character == ' ' || character == '\t' || character == '\n' || character == '\r';
}

bool is_digit(char character) {
    return character >= '0' && character <= '9';
}

// White space, a sign and digits at the front of a text.
struct Number {
    bool has_digits = false;
    bool is_negative = false;
    bool is_huge = false; // more than 64 bits
    uint64_t value = 0;
    std::size_t length = 0; // of what was read
};

Number number_at_front(const std::string& text) {
    Number number;
    std::size_t position = 0;
    while (position < text.size() && is_space(text[position])) {
        ++position;
    }
    if (position < text.size() && (text[position] == '+' || text[position] == '-')) {
        number.is_negative = text[position] == '-';
        ++position;
    }
    for (; position < text.size() && is_digit(text[position]); ++position) {
        const uint64_t digit = static_cast<uint64_t>(text[position] - '0');
        number.has_digits = true;
        number.is_huge = number.is_huge || number.value > (UINT64_MAX - digit) / 10;
        number.value = number.value * 10 + digit;
    }
    number.length = position;
    return number;
}

// The lenient reading, of host lists. A "-" separates the ports of a range and never gets here.
unsigned lenient_port(const std::string& bytes, const Mark& mark) {
    const Number number = number_at_front(trimmed(bytes));
    if (!number.has_digits) {
        mark("hosts: no number");
        return 0;
    }
    if (number.is_huge || number.value > LAST_PORT) {
        mark("hosts: number that does not fit");
        return LAST_PORT;
    }
    return static_cast<unsigned>(number.value);
}

} // namespace

std::string as_c_text(const std::string& text) {
    return text.substr(0, text.find('\0'));
}

std::string trimmed_left(std::string text) {
    while (!text.empty() && is_trimmed(text.front())) {
        text.erase(text.begin());
    }
    return text;
}

std::string trimmed_right(std::string text) {
    while (!text.empty() && is_trimmed(text.back())) {
        text.pop_back();
    }
    return text;
}

std::string trimmed(std::string text) {
    return trimmed_left(trimmed_right(std::move(text)));
}

std::vector<std::string> pieces_of(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    std::string piece;
    for (const char character : text) {
        if (character == separator) {
            pieces.push_back(piece);
            piece.clear();
        } else {
            piece += character;
        }
    }
    if (!piece.empty()) {
        pieces.push_back(piece);
    }
    return pieces;
}

std::vector<std::string> filled_pieces_of(const std::string& text, char separator) {
    std::vector<std::string> pieces = pieces_of(text, separator);
    std::erase(pieces, std::string());
    return pieces;
}

std::optional<unsigned> strict_port(const std::string& bytes) {
    const std::string text = as_c_text(bytes);
    const Number number = number_at_front(text);
    const uint64_t value = number.is_negative ? 0 - number.value : number.value; // a sign wraps
    const bool is_whole = number.has_digits && number.length == text.size();
    if (!is_whole || number.is_huge || value > LAST_PORT) {
        return std::nullopt;
    }
    return static_cast<unsigned>(value);
}

std::optional<uint32_t> dotted(const std::string& bytes) {
    std::string text = as_c_text(bytes) + ".";
    uint32_t address = 0;
    for (int octet = 0; octet < 4; ++octet) {
        const std::size_t dot = text.find('.');
        const std::string digits = text.substr(0, dot);
        const bool is_number = !digits.empty() && std::all_of(digits.begin(), digits.end(), is_digit);
        const bool has_leading_zero = digits.size() > 1 && digits[0] == '0';
        if (dot == std::string::npos || !is_number || has_leading_zero || digits.size() > 3 ||
            std::stoul(digits) > 255) {
            return std::nullopt;
        }
        address = address << 8 | static_cast<uint32_t>(std::stoul(digits));
        text.erase(0, dot + 1);
    }
    return text.empty() ? std::optional(address) : std::nullopt;
}

std::vector<Endpoint> expected_addrs(const std::string& text, const Mark& mark) {
    std::vector<Endpoint> expected;
    for (const std::string& item : filled_pieces_of(text, ',')) {
        const std::vector<std::string> pieces = pieces_of(item, ':');
        if (pieces.size() != 2) {
            expected.push_back({trimmed(pieces[0]), 0});
            mark("addrs: entry without a port");
            continue;
        }
        const std::vector<std::string> range = pieces_of(pieces[1], '-');
        const std::optional<unsigned> port = range.empty() ? std::nullopt : strict_port(range[0]);
        // Ranges do not work in node lists, and what comes of one is odd: the upper bound decides alone, and
        // only 0 is none too many.
        const bool is_range_to_zero = range.size() > 1 && strict_port(range[1]) == 0U;
        if (!port || (range.size() > 1 && !is_range_to_zero)) {
            mark("addrs: item dropped");
            continue;
        }
        expected.push_back({trimmed(pieces[0]), is_range_to_zero ? 0 : *port});
        mark("addrs: entry with a port");
    }
    return expected;
}

std::optional<std::vector<Endpoint>> expected_hosts(const std::string& text, std::size_t most,
                                                    const Mark& mark) {
    std::vector<Endpoint> expected;
    for (const std::string& item : filled_pieces_of(text, ',')) {
        const std::vector<std::string> pieces = pieces_of(item, ':');
        const std::vector<std::string> range =
            pieces.size() == 2 ? pieces_of(pieces[1], '-') : std::vector<std::string>();
        if (range.empty()) {
            mark("hosts: item dropped");
            continue;
        }
        const unsigned first = lenient_port(range[0], mark);
        const unsigned last = range.size() > 1 ? lenient_port(range[1], mark) : first;
        if (first > last) {
            mark("hosts: range that falls");
            continue;
        }
        if (last > first) {
            mark("hosts: range");
        }
        if (last == LAST_PORT && first < last) {
            mark("hosts: range up to the last port");
        }
        if (expected.size() + (last - first + 1) > most) {
            return std::nullopt;
        }
        const unsigned end = planted("range") && last > first ? last : last + 1;
        for (unsigned port = first; port < end; ++port) {
            expected.push_back({trimmed(pieces[0]), port});
        }
    }
    return expected;
}

} // namespace corvalin::fuzz
