#include "tools/config_manager/publishable_list.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <iterator>
#include <stdexcept>

#include "tools/config_manager/event_payload.h"
#include "tools/config_manager/manager.h"

namespace corvalin::tools {

namespace {

void print(const std::string& path, const Remark& remark, const char* severity) {
    std::cerr << path << ":";
    if (remark.line != 0) {
        std::cerr << remark.line << ":";
    }
    std::cerr << " " << severity << remark.text << "\n";
}

// With the longest name and the longest version, so that the list fits as whatever it is published.
std::optional<Remark> find_excess(const NodeList& nodes) {
    const ListKind& longest = *std::max_element(
        std::begin(LIST_KINDS), std::end(LIST_KINDS),
        [](const auto& left, const auto& right) { return std::strlen(left.name) < std::strlen(right.name); });
    try {
        make_payload(node_list_event(longest.name, UINT64_MAX, nodes));
    } catch (const std::length_error& error) {
        return Remark{0, error.what()};
    }
    return std::nullopt;
}

} // namespace

std::optional<NodeList> publishable_list(const std::string& path, const std::string& text) {
    CheckedNodeList checked = check_node_list(text);
    if (checked.faults.empty()) {
        if (const auto excess = find_excess(checked.nodes)) {
            checked.faults.push_back(*excess);
        }
    }
    for (const Remark& warning : checked.warnings) {
        print(path, warning, "warning: ");
    }
    for (const Remark& fault : checked.faults) {
        print(path, fault, "");
    }
    return checked.faults.empty() ? std::optional(std::move(checked.nodes)) : std::nullopt;
}

bool is_emptiness_wanted(const NodeList& nodes, const std::string& origin, bool allow_empty) {
    if (!nodes.empty() || allow_empty) {
        return true;
    }
    if (isatty(STDIN_FILENO) == 0) {
        std::cerr << origin << ": the list is empty, and --allow-empty was not given\n";
        return false;
    }
    std::cerr << origin << ": the list is empty: new sessions get no node of this kind. Publish it? [y/N] "
              << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "Y" || answer == "yes";
}

} // namespace corvalin::tools
