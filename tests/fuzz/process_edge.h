// process_edge: records what would leave the process: trace lines to syslog, and datagrams to nodes.
//
// The linker turns the calls of `syslog` and `sendto` in the code under test into calls of this file
// (--wrap), so a search floods neither the system log nor a network, depends on neither, and can make a send
// fail. They become events of log_recorder: "syslog <priority> <line>" and "send <host>:<port> <bytes>".
//
// Threads    one.
// Ownership  the results to come are static: there is one edge of the process.
#pragma once

#include "tests/fuzz/packet_model.h"

#include <deque>

namespace corvalin::fuzz {

/// Results of the sends to come. Without any, a send takes all.
std::deque<SendResult>& scripted_sends();

} // namespace corvalin::fuzz
