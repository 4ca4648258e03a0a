// consumer_group: names of Kafka groups that were never used before.
//
// A broker holds the members of a group that were killed for many seconds, and a new member of the same group hears
// nothing as long. What the tools hear begins at the end of a topic anyway, so each process has a group of its own.
#pragma once

#include <string>

namespace corvalin::tools {

/// "corvalin_config_manager", `purpose` and a random number.
std::string make_consumer_group(const std::string& purpose);

} // namespace corvalin::tools
