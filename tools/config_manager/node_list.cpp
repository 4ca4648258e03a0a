#include "tools/config_manager/node_list.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "corvalin_lib/json.h"

namespace corvalin::tools {

namespace {

constexpr unsigned PORT_MAX = 65535;

using Bytes = rapidjson::MemoryStream;
using Input = rapidjson::EncodedInputStream<rapidjson::UTF8<>, Bytes>;

class LineCounter {
public:
    explicit LineCounter(const std::string& text) : m_text(text) {}

    std::size_t line_of(std::size_t offset) const {
        const auto end = m_text.begin() + static_cast<std::ptrdiff_t>(std::min(offset, m_text.size()));
        return 1 + static_cast<std::size_t>(std::count(m_text.begin(), end, '\n'));
    }

private:
    const std::string& m_text; // borrowed
};

// Follows the parser's events, because a parsed document does not know its lines any more.
class Checker : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Checker> {
public:
    Checker(const Input& input, const LineCounter& lines) : m_input(input), m_lines(lines) {}

    bool StartArray() {
        if (m_depth != 0) {
            value_of_other_kind();
        }
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
        } else {
            value_of_other_kind();
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
        if (std::find(result.nodes.begin(), result.nodes.end(), node) != result.nodes.end()) {
            result.warnings.push_back(
                {m_node_line, node.ip + ":" + std::to_string(node.port) +
                                  " is listed again: it gets a double share of sessions"});
        }
        result.nodes.push_back(node);
    }

    // A value where another kind is wanted. Within members that routers do not use, anything goes.
    bool value_of_other_kind() {
        if (m_depth == 0) {
            fault("the list is no array of nodes");
        } else if (m_depth == NODE_DEPTH) {
            fault("a node is no object");
        } else if (m_depth == MEMBER_DEPTH && m_key == "ip") {
            fault("\"ip\" is no string");
        } else if (m_depth == MEMBER_DEPTH && m_key == "port") {
            fault("\"port\" is no whole number from 1 to 65535");
        }
        return true;
    }

    std::size_t line() const { return m_lines.line_of(m_input.Tell()); }
    void fault(std::string text) { result.faults.push_back({line(), std::move(text)}); }
    void warn(std::string text) { result.warnings.push_back({line(), std::move(text)}); }

    const Input& m_input;       // borrowed
    const LineCounter& m_lines; // borrowed
    int m_depth = 0;
    std::size_t m_node_line = 0;
    std::string m_key;
    std::string m_ip;
    uint16_t m_port = 0;
    bool m_has_ip = false;
    bool m_has_port = false;
};

} // namespace

CheckedNodeList check_node_list(const std::string& text) {
    const LineCounter lines(text);
    Bytes bytes(text.data(), text.size());
    Input input(bytes);
    Checker checker(input, lines);
    rapidjson::Reader reader;
    const rapidjson::ParseResult parsed = reader.Parse(input, checker);
    if (parsed.IsError()) {
        checker.result.faults.push_back(
            {lines.line_of(parsed.Offset()), rapidjson::GetParseError_En(parsed.Code())});
    }
    return std::move(checker.result);
}

CheckedNodeList read_node_list(const std::string& path) {
    return check_node_list(read_text(path));
}

std::string read_text(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(file), {}};
    if (!file.is_open() || file.bad()) {
        throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
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
    std::vector<std::string> lines;
    const auto append_missing = [&lines](const char* mark, const NodeList& nodes, const NodeList& others) {
        for (const Node& node : nodes) {
            const auto in_nodes = std::count(nodes.begin(), nodes.end(), node);
            if (in_nodes > std::count(others.begin(), others.end(), node)) {
                lines.push_back(mark + node.ip + ":" + std::to_string(node.port));
            }
        }
    };
    append_missing("- ", from, to);
    append_missing("+ ", to, from);
    return lines;
}

} // namespace corvalin::tools
