#include "corvalin_lib/conf_configuration.h"

#include "corvalin_lib/log.h"
#include "corvalin_lib/utils_str.h"

#include <fstream>
#include <vector>

namespace corvalin::conf {

namespace {

constexpr const char* SOURCE = "conf_configuration";

// A comma within a value is written twice; while the text is cut at commas, this pair stands in for it. A pair that was
// in the text from the start comes out as a comma as well: the two cannot be told apart.
const std::string DOUBLE_COMMA = ",,";
const std::string COMMA_STAND_IN = "_;";
const std::string COMMA = ",";

constexpr char COMMENT_MARK = '#';
constexpr char VALUE_SEPARATOR = '=';

// The piece or the two pieces of one option. A name with nothing behind its "=" is a flag.
bool apply_pieces(Configuration& configuration, const std::vector<std::string>& pieces) {
    const std::string name = utils::str::trim_right(pieces[0]);
    const std::string value = pieces.size() == 2 ? utils::str::trim_left(pieces[1]) : std::string();
    return value.empty() ? configuration.parse_option(name) : configuration.parse_option(name, value);
}

bool is_option(const std::vector<std::string>& pieces) {
    return pieces.size() == 1 || pieces.size() == 2;
}

// The words of a kind of option: how a log line speaks of it.
struct Wording {
    std::string unknown; // "flag [name]"
    std::string applied; // "flag [name] applied"
    std::string failed;  // "failed to apply flag [name]"
    const char* bad_format;
};

bool act_on_status(int status, const Wording& wording, const std::stringstream& message) {
    switch (status) {
    case option_applied:
        log::write(SOURCE, __LINE__, log::SystemMessage() << "CONFIGURATION: " << wording.applied);
        return true;
    case option_unknown:
        log::write(SOURCE, __LINE__,
                   log::WarningMessage() << "CONFIGURATION: " << wording.unknown << " is unknown");
        return true;
    case option_bad_format:
        log::write(SOURCE, __LINE__,
                   log::ErrorMessage() << "CONFIGURATION: " << wording.failed << ": " << wording.bad_format);
        return false;
    case option_failed_with_message:
        log::write(SOURCE, __LINE__,
                   log::ErrorMessage() << "CONFIGURATION: " << wording.failed << ": " << message.str());
        return false;
    default:
        log::write(SOURCE, __LINE__, log::ErrorMessage() << "CONFIGURATION: " << wording.failed);
        return status > 0;
    }
}

} // namespace

const std::string default_conf_ext = ".conf";
const std::string default_base_directory = "/etc/tolvaine";
const std::string default_directory = default_base_directory + "/corvalin";
const std::string default_kafka_config_path = default_directory + "/kafka" + default_conf_ext;

int Configuration::set_flag(const std::string& /*name*/, std::stringstream& /*message*/) {
    return option_unknown;
}

int Configuration::set_value(const std::string& /*name*/, const std::string& /*value*/,
                             std::stringstream& /*message*/) {
    return option_unknown;
}

// Lines are counted from 0. Behind the last line feed stands one more, empty line.
bool Configuration::parse_file(const std::string& path) {
    if (path.empty()) {
        log::write(SOURCE, __LINE__,
                   log::InfoMessage() << "CONFIGURATION: file is not specified, default values are used");
        return true;
    }
    std::ifstream file(path);
    if (!file.is_open()) {
        log::write(SOURCE, __LINE__,
                   log::ErrorMessage() << "CONFIGURATION: failed to open file [" << path << "]");
        return false;
    }
    log::write(SOURCE, __LINE__, log::SystemMessage() << "CONFIGURATION: reading from file [" << path << "]");
    std::string line;
    for (unsigned long line_number = 0; file.good(); ++line_number) {
        std::getline(file, line);
        if (!parse_line(line, line_number)) {
            return false;
        }
    }
    return true;
}

// A piece is not trimmed as a whole, unlike a line: a blank in front of a name belongs to the name, and blanks behind a
// value belong to the value.
bool Configuration::parse_args(const std::string& args) {
    log::write(SOURCE, __LINE__, log::SystemMessage() << "CONFIGURATION: reading from args: " << args);
    std::vector<std::string> options;
    utils::str::split(utils::str::replace(args, DOUBLE_COMMA, COMMA_STAND_IN), ',', options, false);
    unsigned long position = 0;
    for (std::string& option : options) {
        ++position;
        utils::str::replace(option, COMMA_STAND_IN, COMMA);
        std::vector<std::string> pieces;
        utils::str::split(option, VALUE_SEPARATOR, pieces, true);
        if (!is_option(pieces)) {
            log::write(SOURCE, __LINE__,
                       log::ErrorMessage()
                           << "CONFIGURATION: incorrect option format at position [" << position << "]");
            return false;
        }
        if (!apply_pieces(*this, pieces)) {
            return false;
        }
    }
    return true;
}

bool Configuration::parse_line(const std::string& line, unsigned long line_number) {
    const std::string text = utils::str::trim_left(utils::str::trim_right(line));
    if (text.empty() || text.front() == COMMENT_MARK) {
        return true;
    }
    std::vector<std::string> pieces;
    utils::str::split(text, VALUE_SEPARATOR, pieces, false);
    if (!is_option(pieces)) {
        log::write(SOURCE, __LINE__,
                   log::ErrorMessage() << "CONFIGURATION: incorrect option format at line " << line_number
                                       << ": \"" << line << "\"");
        return false;
    }
    return apply_pieces(*this, pieces);
}

bool Configuration::parse_option(const std::string& name) {
    std::stringstream message;
    const int status = set_flag(name, message);
    const std::string flag = "flag [" + name + "]";
    return act_on_status(status, {flag, flag + " applied", "failed to apply " + flag, "unexpected format"},
                         message);
}

bool Configuration::parse_option(const std::string& name, const std::string& value) {
    std::stringstream message;
    const int status = set_value(name, value, message);
    const std::string option = "option [" + name + "]";
    const std::string value_text = " to [" + value + "]";
    return act_on_status(status,
                         {option, option + " is set" + value_text, "failed to set " + option + value_text,
                          "unexpected value format"},
                         message);
}

} // namespace corvalin::conf
