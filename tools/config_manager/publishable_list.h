// publishable_list: the guard in front of everything that goes to routers.
//
// Threads    main thread.
// Errors     what is wrong with a list is told on standard error as "file:line: reason".
#pragma once

#include "tools/config_manager/node_list.h"

#include <optional>
#include <string>

namespace corvalin::tools {

/// The list in the text of a file. Empty if it must not reach a router.
std::optional<NodeList> publishable_list(const std::string& path, const std::string& text);

/// An empty list takes every node of its kind away from new sessions, so a person at a terminal is asked for it, and a
/// script must have said so before. `origin` is where the list comes from. True for a list that is not empty.
bool is_emptiness_wanted(const NodeList& nodes, const std::string& origin, bool allow_empty);

} // namespace corvalin::tools
