#include "tools/tool_support/summary.h"

#include <cstdio>
#include <fstream>
#include <iostream>
#include <stdexcept>

namespace corvalin::tools {
namespace {

constexpr std::size_t INDENT = 2;

std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            result += '\\';
            result += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escape[7];
            std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned int>(c));
            result += escape;
        } else {
            result += c;
        }
    }
    return result + '"';
}

} // namespace

Summary& Summary::add(const std::string& name, uint64_t value) {
    add_single(name, std::to_string(value), std::to_string(value));
    return *this;
}

Summary& Summary::add(const std::string& name, double value) {
    char text[400]; // the largest double has 309 digits before the point
    std::snprintf(text, sizeof(text), "%.1f", value);
    add_single(name, text, text);
    return *this;
}

Summary& Summary::add(const std::string& name, bool value) {
    add_single(name, value ? "yes" : "no", value ? "true" : "false");
    return *this;
}

Summary& Summary::add(const std::string& name, const std::string& value) {
    add_single(name, value, quoted(value));
    return *this;
}

Summary& Summary::add(const std::string& name, Summary value) {
    Item item;
    item.name = name;
    item.parts.push_back(std::move(value));
    m_items.push_back(std::move(item));
    return *this;
}

Summary& Summary::add(const std::string& name, std::vector<Summary> values) {
    Item item;
    item.name = name;
    item.parts = std::move(values);
    item.is_list = true;
    m_items.push_back(std::move(item));
    return *this;
}

void Summary::add_single(const std::string& name, const std::string& text, const std::string& json) {
    Item item;
    item.name = name;
    item.text = text;
    item.json = json;
    item.is_single = true;
    m_items.push_back(std::move(item));
}

std::string Summary::text() const {
    std::string text;
    append_text(text, 0);
    return text;
}

std::string Summary::json() const {
    std::string json;
    append_json(json, 0);
    return json + "\n";
}

void Summary::append_text(std::string& text, std::size_t depth) const {
    const std::string indent(depth * INDENT, ' ');
    for (const Item& item : m_items) {
        if (item.is_single) {
            text += indent + item.name + ": " + item.text + "\n";
        }
        for (const Summary& part : item.parts) {
            text += indent + item.name + ":\n";
            part.append_text(text, depth + 1);
        }
    }
}

void Summary::append_json(std::string& json, std::size_t depth) const {
    const std::string indent((depth + 1) * INDENT, ' ');
    json += "{";
    const char* separator = "\n";
    for (const Item& item : m_items) {
        json += separator + indent + quoted(item.name) + ": " + item.json + (item.is_list ? "[" : "");
        const char* part_separator = "";
        for (const Summary& part : item.parts) {
            json += part_separator;
            part.append_json(json, depth + 1);
            part_separator = ", ";
        }
        json += item.is_list ? "]" : "";
        separator = ",\n";
    }
    json += "\n" + std::string(depth * INDENT, ' ') + "}";
}

void write_summary(const Summary& summary, const SummaryTarget& target) {
    const std::string text = target.as_json ? summary.json() : summary.text();
    if (target.file.empty()) {
        std::cout << text << std::flush;
        return;
    }
    std::ofstream file(target.file);
    file << text << std::flush;
    if (!file) {
        throw std::runtime_error("cannot write " + target.file);
    }
}

} // namespace corvalin::tools
