#include "tools/config_manager/node_list.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <unordered_set>
#include <utility>

#include "corvalin_lib/json.h"

namespace corvalin::tools {

namespace {

constexpr unsigned PORT_MAX = 65535;

std::string text_of(const Node& node) {
    return node.ip + ":" + std::to_string(node.port);
}

using Bytes = rapidjson::MemoryStream;
using Input = rapidjson::EncodedInputStream<rapidjson::UTF8<>, Bytes>;

// Counts on from the last place, so that a long list is gone through once. Offsets must not go back.
class LineCounter {
public:
    explicit LineCounter(const std::string& text) : m_text(text) {}

    std::size_t line_of(std::size_t offset) {
        const std::size_t end = std::min(offset, m_text.size());
        for (; m_counted < end; ++m_counted) {
            m_line += m_text[m_counted] == '\n' ? 1 : 0;
        }
        return m_line;
    }

private:
    const std::string& m_text; // borrowed
    std::size_t m_counted = 0;
    std::size_t m_line = 1;
};

// Follows the parser's events, because a parsed document does not know its lines any more.
class Checker : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Checker> {
public:
    Checker(const Input& input, LineCounter& lines) : m_input(input), m_lines(lines) {}

    bool StartArray() {
        if (m_depth != 0) {
            value_of_other_kind();
        }
        m_key.clear();
        ++m_depth;
        return true;
    }
    bool EndArray(rapidjson::SizeType /*count*/) {
        --m_depth;
        return true;
    }
    bool StartObject() {
        if (m_depth == NODE_DEPTH) {
            m_ip.clear();
            m_port = 0;
            m_has_ip = false;
            m_has_port = false;
            m_node_line = line();
        } else if (!value_of_other_kind()) {
            return false;
        }
        ++m_depth;
        return true;
    }
    bool EndObject(rapidjson::SizeType /*count*/) {
        --m_depth;
        if (m_depth == NODE_DEPTH) {
            end_node();
        }
        return true;
    }
    bool Key(const char* text, rapidjson::SizeType length, bool /*copy*/) {
        if (m_depth != MEMBER_DEPTH) {
            return true;
        }
        m_key.assign(text, length);
        bool* const has = m_key == "ip" ? &m_has_ip : m_key == "port" ? &m_has_port : nullptr;
        if (has == nullptr) {
            warn("member \"" + m_key + "\" is not used by routers");
        } else if (*has) {
            fault("member \"" + m_key + "\" is given twice");
        } else {
            *has = true;
        }
        return true;
    }
    bool String(const char* text, rapidjson::SizeType length, bool /*copy*/) {
        if (m_depth == MEMBER_DEPTH && m_key == "ip") {
            check_ip(std::string(text, length));
            return true;
        }
        return value_of_other_kind();
    }
    bool Uint(unsigned number) {
        if (m_depth == MEMBER_DEPTH && m_key == "port") {
            check_port(number);
            return true;
        }
        return value_of_other_kind();
    }
    // Null, true, false, and numbers that are no small unsigned ones.
    bool Default() { return value_of_other_kind(); }

    CheckedNodeList result;

private:
    static constexpr int NODE_DEPTH = 1;   // within the array
    static constexpr int MEMBER_DEPTH = 2; // within a node

    void check_ip(const std::string& ip) {
        in_addr address{};
        // inet_pton stops at a zero byte, which a JSON string may hold.
        if (ip.find('\0') != std::string::npos || inet_pton(AF_INET, ip.c_str(), &address) != 1) {
            fault("\"ip\" is no dotted IPv4 address: \"" + ip + "\"");
        } else if (address.s_addr == INADDR_ANY || address.s_addr == INADDR_BROADCAST) {
            fault("\"ip\" is no address of a node: \"" + ip + "\"");
        }
        m_ip = ip;
    }

    void check_port(unsigned port) {
        if (port == 0 || port > PORT_MAX) {
            fault("\"port\" is not in 1 to 65535: " + std::to_string(port));
            return;
        }
        m_port = static_cast<uint16_t>(port);
    }

    void end_node() {
        if (!m_has_ip) {
            result.faults.push_back({m_node_line, "node without \"ip\""});
        }
        if (!m_has_port) {
            result.faults.push_back({m_node_line, "node without \"port\""});
        }
        const Node node{m_ip, m_port};
        if (!m_seen.insert(text_of(node)).second) {
            result.warnings.push_back(
                {m_node_line, text_of(node) + " is listed again: it gets a double share of sessions"});
        }
        result.nodes.push_back(node);
    }

    // A value where another kind is wanted. Within members that routers do not use, anything goes. A list that is none
    // is not looked at any further.
    bool value_of_other_kind() {
        if (m_depth == 0) {
            fault("the list is no array of nodes");
            return false;
        }
        if (m_depth == NODE_DEPTH) {
            fault("a node is no object");
        } else if (m_depth == MEMBER_DEPTH && m_key == "ip") {
            fault("\"ip\" is no string");
        } else if (m_depth == MEMBER_DEPTH && m_key == "port") {
            fault("\"port\" is no whole number from 1 to 65535");
        }
        return true;
    }

    std::size_t line() { return m_lines.line_of(m_input.Tell()); }
    void fault(std::string text) { result.faults.push_back({line(), std::move(text)}); }
    void warn(std::string text) { result.warnings.push_back({line(), std::move(text)}); }

    const Input& m_input; // borrowed
    LineCounter& m_lines; // borrowed
    int m_depth = 0;
    std::size_t m_node_line = 0;
    std::string m_key;
    std::string m_ip;
    uint16_t m_port = 0;
    bool m_has_ip = false;
    bool m_has_port = false;
    std::unordered_set<std::string> m_seen;
};

} // namespace

CheckedNodeList check_node_list(const std::string& text) {
    LineCounter lines(text);
    Bytes bytes(text.data(), text.size());
    Input input(bytes);
    Checker checker(input, lines);
    rapidjson::Reader reader;
    // Iterative: a text that is nothing but opening brackets would use up the stack otherwise.
    const rapidjson::ParseResult parsed = reader.Parse<rapidjson::kParseIterativeFlag>(input, checker);
    // The checker has told its own reason if it was the one to end the parse.
    if (parsed.IsError() && parsed.Code() != rapidjson::kParseErrorTermination) {
        checker.result.faults.push_back(
            {lines.line_of(parsed.Offset()), rapidjson::GetParseError_En(parsed.Code())});
    }
    return std::move(checker.result);
}

std::string read_text(const std::string& path) {
    const auto fail = [&path]() {
        throw std::runtime_error("cannot read " + path + ": " + std::generic_category().message(errno));
    };
    struct Closer {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    const std::unique_ptr<std::FILE, Closer> file(std::fopen(path.c_str(), "rbe"));
    if (!file) {
        fail();
    }
    std::string text;
    std::array<char, 65536> piece;
    while (const std::size_t size = std::fread(piece.data(), 1, piece.size(), file.get())) {
        text.append(piece.data(), size);
    }
    if (std::ferror(file.get()) != 0) {
        fail();
    }
    return text;
}

std::string to_json(const NodeList& nodes) {
    std::ostringstream text;
    const char* separator = "";
    text << "[";
    for (const Node& node : nodes) {
        text << separator << R"({"ip":")" << node.ip << R"(","port":)" << node.port << "}";
        separator = ",";
    }
    text << "]";
    return text.str();
}

std::vector<std::string> difference(const NodeList& from, const NodeList& to) {
    // How often each node is to be added; below zero: removed.
    std::map<std::string, int> changes;
    for (const Node& node : to) {
        ++changes[text_of(node)];
    }
    for (const Node& node : from) {
        --changes[text_of(node)];
    }
    std::vector<std::string> lines;
    const auto take = [&changes, &lines](const char* mark, int sign, const NodeList& nodes) {
        for (const Node& node : nodes) {
            int& left = changes[text_of(node)];
            if (left * sign > 0) {
                lines.push_back(mark + text_of(node));
                left -= sign;
            }
        }
    };
    take("- ", -1, from);
    take("+ ", 1, to);
    return lines;
}

} // namespace corvalin::tools
