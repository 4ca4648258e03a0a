// summary: what a tool reports at its end, as text for people or as JSON for programs.
//
// Threads    one thread.
// Errors     write_summary throws std::runtime_error if the file cannot be written.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace corvalin::tools {

/// Named values in the order in which they were added, with other summaries and lists of them among them.
class Summary {
public:
    Summary& add(const std::string& name, uint64_t value);
    /// With one digit after the point.
    Summary& add(const std::string& name, double value);
    Summary& add(const std::string& name, bool value);
    Summary& add(const std::string& name, const std::string& value);
    Summary& add(const std::string& name, const char* value) { return add(name, std::string(value)); }
    Summary& add(const std::string& name, Summary value);
    Summary& add(const std::string& name, std::vector<Summary> values);

    /// One line for each value, "name: value", the values of a summary within indented.
    std::string text() const;
    /// One object, with line breaks, and one behind it.
    std::string json() const;

private:
    struct Item {
        std::string name;
        std::string text;           // of a single value
        std::string json;           // of a single value
        std::vector<Summary> parts; // of all others
        bool is_list = false;
        bool is_single = false;
    };

    void add_single(const std::string& name, const std::string& text, const std::string& json);
    void append_text(std::string& text, std::size_t depth) const;
    void append_json(std::string& json, std::size_t depth) const;

    std::vector<Item> m_items;
};

/// How a tool's summary is wanted.
struct SummaryTarget {
    bool as_json = false;
    std::string file; // empty: standard output
};

void write_summary(const Summary& summary, const SummaryTarget& target);

} // namespace corvalin::tools
