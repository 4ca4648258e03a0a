// conf_configuration: reads options from a file and from an argument string.
//
// An option is a name with a value or a bare name (a flag). The base class knows none: each class of a service's chain
// compares its own keys and passes the rest on to its base.
//
// Threads    the main thread, before others exist. Read-only afterwards; the reference count is all that
//            others touch.
// Ownership  held by rc_ptr for the life of the service.
// Errors     logged with their place and told by a false result: the object is not usable then. Unknown
//            options are only warned about, so that one text can serve several objects. Nothing here throws
//            on bad input.
#pragma once

#include "corvalin_lib/reference_countable.h"

#include <sstream>
#include <string>

namespace corvalin::conf {

extern const std::string default_conf_ext;          // ".conf"
extern const std::string default_base_directory;    // "/etc/tolvaine"
extern const std::string default_directory;         // "/etc/tolvaine/corvalin"
extern const std::string default_kafka_config_path; // "/etc/tolvaine/corvalin/kafka.conf"

/// What set_flag and set_value answer. Any other number is a failure without a reason, which ends the parse only if it
/// is negative.
enum option_status : int {
    option_applied = 0,
    option_unknown = 1,
    option_bad_format = -1,
    option_failed_with_message = -255, // the reason is in the message stream
};

class Configuration : public ReferenceCountable {
public:
    /// Applies a bare name. `message` is empty and may be given a reason.
    virtual int set_flag(const std::string& name, std::stringstream& message);
    /// Applies a name with a value.
    virtual int set_value(const std::string& name, const std::string& value, std::stringstream& message);

    /// Reads one option per line. An empty path is no error and leaves the defaults.
    bool parse_file(const std::string& path);
    /// Reads options joined by commas. ",," stands for a comma within a value.
    bool parse_args(const std::string& args);
    /// `line_number` is for messages only.
    bool parse_line(const std::string& line, unsigned long line_number);
    bool parse_option(const std::string& name);
    bool parse_option(const std::string& name, const std::string& value);
};

} // namespace corvalin::conf
