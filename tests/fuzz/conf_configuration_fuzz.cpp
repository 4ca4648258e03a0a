// conf_configuration_fuzz: option files of any bytes, read as the router's and as the Kafka configuration.
//
// The input is the text of the file. Both objects must accept or refuse it, fill their fields and log as
// their second reading in option_model says. Three changes of the text must change nothing but line numbers:
// line ends of CR LF, a comment or a blank line ahead of each line, and a last line feed.
#include "corvalin_lib/conf_extensions.h"
#include "router/configuration.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/fuzz/log_recorder.h"
#include "tests/fuzz/option_checks.h"
#include "tests/fuzz/option_model.h"

#include <sys/mman.h>
#include <unistd.h>

#include <string>

namespace {

using namespace corvalin;
using fuzz::require;
using fuzz::require_equal;

fuzz::Reach reach({CORVALIN_FUZZ_OPTION_REACH, "kafka option"});

// A file in memory, with a path that can be opened again and again.
class MemoryFile {
public:
    MemoryFile()
        : m_fd(memfd_create("options", MFD_CLOEXEC)), m_path("/proc/self/fd/" + std::to_string(m_fd)) {
        require(m_fd >= 0, "there is a file in memory");
    }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    ~MemoryFile() { close(m_fd); }

    void write(const std::string& text) const {
        require(ftruncate(m_fd, 0) == 0 &&
                    pwrite(m_fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()),
                "the file in memory takes the text");
    }
    const std::string& path() const { return m_path; }

private:
    const int m_fd;
    const std::string m_path;
};

const MemoryFile& file() {
    static const MemoryFile memory_file;
    return memory_file;
}

std::string with_crlf(const std::string& text) {
    std::string changed;
    for (const char character : text) {
        changed += character == '\n' ? "\r\n" : std::string(1, character);
    }
    return changed;
}

std::string with_more_lines(const std::string& text) {
    const std::string more = " # port=1=2\n\t\r\n";
    std::string changed = more;
    for (const char character : text) {
        changed += character;
        if (character == '\n') {
            changed += more;
        }
    }
    return changed;
}

// Reads `text` in the place of what `model` has read: the outcome must be the same.
template <class Configuration, class Model>
void require_same_outcome(const std::string& text, const Model& model, bool expected) {
    file().write(text);
    Configuration configuration;
    require_equal("changed text accepted", expected, configuration.parse_file(file().path()));
    fuzz::take_recorded_events();
    require_fields(model, configuration);
}

template <class Configuration, class Model>
void check(const std::string& text) {
    Model model(reach);
    const bool expected = model.parse_file(file().path(), text);
    if constexpr (requires { model.is_too_large(); }) {
        if (model.is_too_large()) {
            return;
        }
    }
    file().write(text);
    Configuration configuration;
    const bool accepted = configuration.parse_file(file().path());
    require_same(model, expected, configuration, accepted);

    require_same_outcome<Configuration>(with_crlf(text), model, expected);
    require_same_outcome<Configuration>(with_more_lines(text), model, expected);
    require_same_outcome<Configuration>(text + "\n", model, expected);
    if constexpr (requires { model.broker; }) {
        if (!model.broker.empty() && !model.topic_request.empty() && !model.topic_broadcast.empty()) {
            reach.mark("kafka option");
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::install_log_recorder();
    const std::string text(reinterpret_cast<const char*>(data), size);
    check<router::Configuration, fuzz::RouterOptionModel>(text);
    check<conf::KafkaConfiguration, fuzz::KafkaOptionModel>(text);
    return 0;
}
