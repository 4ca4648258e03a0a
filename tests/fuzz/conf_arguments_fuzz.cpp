// conf_arguments_fuzz: argument strings of any bytes, on a fresh object and on one that a file has filled.
//
// The input is the string. The object must accept or refuse it, fill its fields and log as the second reading
// in option_model says. Commas ahead of the string must change nothing, but for an odd comma that would pair
// up with one of its own.
#include "router/configuration.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/fuzz/log_recorder.h"
#include "tests/fuzz/option_checks.h"
#include "tests/fuzz/option_model.h"

#include <string>

namespace {

using namespace corvalin;
using fuzz::require_equal;

fuzz::Reach reach({CORVALIN_FUZZ_OPTION_REACH, "comma in a value", "comma ahead changes nothing"});

// What a file has set before, by the lines that the service frame would have read.
constexpr const char* LINES[] = {"port = 5000", "media_node = 10.0.0.9:9", "log_level=ERROR",
                                 "statistic_transfer_enabled=true"};

void check(const std::string& args, bool is_filled) {
    fuzz::RouterOptionModel model(reach);
    router::Configuration configuration;
    if (is_filled) {
        std::string text;
        unsigned long number = 0;
        for (const char* line : LINES) {
            text += std::string(line) + "\n";
            configuration.parse_line(line, number++);
        }
        model.parse_file("a file", text);
        model.take_events();
        fuzz::take_recorded_events();
        require_fields(model, configuration);
    }
    const bool expected = model.parse_args(args);
    if (model.is_too_large()) {
        return;
    }
    if (expected && args.find(",,") != std::string::npos) {
        reach.mark("comma in a value");
    }
    const bool accepted = configuration.parse_args(args);
    require_same(model, expected, configuration, accepted);

    if (!is_filled && !args.starts_with(',')) {
        router::Configuration with_comma;
        require_equal("string behind a comma accepted", expected, with_comma.parse_args("," + args));
        fuzz::take_recorded_events();
        require_fields(model, with_comma);
        reach.mark("comma ahead changes nothing");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::install_log_recorder();
    const std::string args(reinterpret_cast<const char*>(data), size);
    check(args, false);
    check(args, true);
    return 0;
}
