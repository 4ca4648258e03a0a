// line_splitter: cuts a stream of bytes into lines without copying those that lie whole in the buffer.
//
// Threads    one thread.
// Errors     a line longer than MAX_LINE_BYTES is cut there; its rest is dropped and counted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string_view>
#include <vector>

namespace corvalin::watch {

class LineSplitter {
public:
    /// Far above the longest line there is: a report in the journal's JSON.
    static constexpr std::size_t MAX_LINE_BYTES = 256UL * 1024;
    static constexpr std::size_t BUFFER_BYTES = 1024UL * 1024;

    using LineFunction = std::function<void(std::string_view)>;

    /// Where the next bytes are to be read to, and how many there is room for: never 0.
    char* room() { return m_buffer.data() + m_filled; }
    std::size_t room_bytes() const { return m_buffer.size() - m_filled; }

    /// Takes what was read, and calls `on_line` for each line that is whole, without its line feed.
    void commit(std::size_t bytes, const LineFunction& on_line) {
        m_filled += bytes;
        std::size_t begin = 0;
        while (const void* const found = std::memchr(m_buffer.data() + begin, '\n', m_filled - begin)) {
            const auto end = static_cast<std::size_t>(static_cast<const char*>(found) - m_buffer.data());
            emit(std::string_view(m_buffer.data() + begin, end - begin), on_line);
            begin = end + 1;
        }
        std::memmove(m_buffer.data(), m_buffer.data() + begin, m_filled - begin);
        m_filled -= begin;
        if (m_filled > MAX_LINE_BYTES) {
            finish(on_line);
            m_drops_rest = true;
        }
    }

    /// The end of the stream: what has no line feed is a line too.
    void finish(const LineFunction& on_line) {
        if (m_filled != 0) {
            emit(std::string_view(m_buffer.data(), m_filled), on_line);
        }
        m_filled = 0;
        m_drops_rest = false;
    }

    uint64_t cut_lines() const { return m_cut_lines; }

private:
    void emit(std::string_view line, const LineFunction& on_line) {
        if (m_drops_rest) {
            m_drops_rest = false;
            return;
        }
        if (line.size() > MAX_LINE_BYTES) {
            ++m_cut_lines;
            line = line.substr(0, MAX_LINE_BYTES);
        }
        on_line(line);
    }

    std::vector<char> m_buffer = std::vector<char>(BUFFER_BYTES);
    std::size_t m_filled = 0;
    bool m_drops_rest = false; // of a line that was cut
    uint64_t m_cut_lines = 0;
};

} // namespace corvalin::watch
