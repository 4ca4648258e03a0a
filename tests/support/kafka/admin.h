// admin: what an administrator does with a broker, by the client library's C interface, which alone has it.
//
// Errors     std::runtime_error.
#pragma once

#include <string>

namespace corvalin::test {

/// Creates the topic and waits until the broker leads all its partitions.
void create_topic_as_admin(const std::string& broker, const std::string& name, int partitions);

} // namespace corvalin::test
