#include "corvalin_lib/utils_str.h"

#include <cstddef>
#include <cstring>
#include <iomanip>
#include <sstream>

namespace corvalin::utils::str {

namespace {

constexpr std::size_t UUID_BYTES = 16;
constexpr std::size_t UUID_TEXT_CHARS = 36; // two digits for each byte and four dashes
constexpr const char* DIGITS = "0123456789abcdef";
constexpr const char* DEFAULT_TRIM_CHARS =
    "\t\n\r "; // no vertical tab and no form feed: these belong to the text

bool stands_behind_dash(std::size_t index) {
    return index == 4 || index == 6 || index == 8 || index == 10;
}

std::vector<std::string>& split_by(const std::string& text, const char* delimiter, std::size_t length,
                                   std::vector<std::string>& pieces, bool keep_empty) {
    std::size_t position = 0;
    for (std::size_t match = text.find(delimiter, position, length); match != std::string::npos;
         match = text.find(delimiter, position, length)) {
        if (match != position || keep_empty) {
            pieces.push_back(text.substr(position, match - position));
        }
        position = match + length;
    }
    if (keep_empty || position < text.size()) {
        pieces.push_back(text.substr(position));
    }
    return pieces;
}

} // namespace

std::string print_uuid(const unsigned char* bytes) {
    std::string text;
    text.reserve(UUID_TEXT_CHARS);
    for (std::size_t index = 0; index < UUID_BYTES; ++index) {
        if (stands_behind_dash(index)) {
            text += '-';
        }
        text += DIGITS[bytes[index] >> 4];
        text += DIGITS[bytes[index] & 0x0F];
    }
    return text;
}

std::ostream& print_uuid(std::ostream& stream, const unsigned char* bytes) {
    const std::ios_base::fmtflags flags = stream.flags();
    const char fill = stream.fill('0');
    const std::streamsize precision = stream.precision();
    stream << std::hex << std::right;
    for (std::size_t index = 0; index < UUID_BYTES; ++index) {
        if (stands_behind_dash(index)) {
            stream << '-';
        }
        stream << std::setw(2) << static_cast<unsigned int>(bytes[index]);
    }
    stream.flags(flags);
    stream.fill(fill);
    stream.precision(precision);
    return stream;
}

std::string& replace(std::string& text, const std::string& from, const std::string& to) {
    for (std::size_t match = text.find(from); match != std::string::npos;
         match = text.find(from, match + to.size())) {
        text.replace(match, from.size(), to);
    }
    return text;
}

std::string replace(const std::string& text, const std::string& from, const std::string& to) {
    std::string copy = text;
    replace(copy, from, to);
    return copy;
}

std::string trim_left(const std::string& text) {
    return trim_left(text, DEFAULT_TRIM_CHARS);
}

std::string trim_right(const std::string& text) {
    return trim_right(text, DEFAULT_TRIM_CHARS);
}

std::string trim_left(const std::string& text, const std::string& chars) {
    const std::size_t first = text.find_first_not_of(chars);
    return first == std::string::npos ? std::string() : text.substr(first);
}

std::string trim_right(const std::string& text, const std::string& chars) {
    const std::size_t last = text.find_last_not_of(chars);
    return last == std::string::npos ? std::string() : text.substr(0, last + 1);
}

std::vector<std::string>& split(const std::string& text, char delimiter, std::vector<std::string>& pieces,
                                bool keep_empty) {
    std::istringstream stream(text);
    std::string piece;
    while (std::getline(stream, piece, delimiter)) {
        if (keep_empty || !piece.empty()) {
            pieces.push_back(piece);
        }
    }
    return pieces;
}

std::vector<std::string>& split(const std::string& text, const char* delimiter,
                                std::vector<std::string>& pieces, bool keep_empty) {
    return split_by(text, delimiter, std::strlen(delimiter), pieces, keep_empty);
}

std::vector<std::string>& split(const std::string& text, const std::string& delimiter,
                                std::vector<std::string>& pieces, bool keep_empty) {
    return split_by(text, delimiter.data(), delimiter.size(), pieces, keep_empty);
}

std::vector<std::string>& split_any(const std::string& text, const std::string& delimiters,
                                    std::vector<std::string>& pieces, bool keep_empty) {
    if (text.empty()) {
        return pieces;
    }
    std::size_t start = 0;
    for (std::size_t index = 0; index < text.size(); ++index) {
        if (delimiters.find(text[index]) == std::string::npos) {
            continue;
        }
        if (keep_empty || index != start) {
            pieces.push_back(text.substr(start, index - start));
        }
        start = index + 1;
    }
    if (keep_empty || start != text.size()) {
        pieces.push_back(text.substr(start));
    }
    return pieces;
}

} // namespace corvalin::utils::str
