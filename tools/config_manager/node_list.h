// node_list: lists of nodes as operators write them, checked as strictly as routers are lenient.
//
// A router takes what it is sent: an address that is no dotted IPv4 address becomes 0.0.0.0 and is used, and a member of
// the wrong type ends every router at once. So each list is checked here before anything is sent.
//
// Threads    any.
// Errors     every fault of a text is told with its line. read_text throws std::runtime_error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace corvalin::tools {

struct Node {
    std::string ip; // dotted IPv4
    uint16_t port = 0;

    bool operator==(const Node&) const = default;
};

using NodeList = std::vector<Node>;

struct Remark {
    std::size_t line = 0; // from 1; 0 if it is about the whole list
    std::string text;
};

struct CheckedNodeList {
    NodeList nodes; // complete if there are no faults
    std::vector<Remark> faults;
    std::vector<Remark> warnings;
};

/// Checks a JSON array of objects with "ip", a dotted IPv4 address that packets can be sent to, and "port", 1 to 65535.
CheckedNodeList check_node_list(const std::string& text);

/// The whole text of a file. Throws std::runtime_error if it cannot be read.
std::string read_text(const std::string& path);

/// The list as JSON, as it stands in an event.
std::string to_json(const NodeList& nodes);

/// One line for each node that only one of the lists has: "- ip:port" for `from`, then "+ ip:port" for `to`.
std::vector<std::string> difference(const NodeList& from, const NodeList& to);

} // namespace corvalin::tools
