// log_recorder: keeps what the code under test tells its surroundings, as a list of texts.
//
// Threads    one.
// Ownership  the record is static: a process has one logger.
#pragma once

#include <string>
#include <vector>

namespace corvalin::fuzz {

/// In the order of their happening, as a model tells them: "log <level> <text>" for a line.
using Events = std::vector<std::string>;

/// Makes the logger hand its lines to this record.
void install_log_recorder();

/// Adds an event of another kind.
void record_event(std::string event);

/// Everything since the last call.
Events take_recorded_events();

/// Fails at the first event that differs.
void require_same_events(const Events& expected, const Events& actual);

} // namespace corvalin::fuzz
