// fuzz_support: what the fuzz targets share: a cutter of input bytes, the oracle's verdict, planted faults,
// and the account of what a corpus has reached.
//
// Threads    one: libFuzzer calls its target on the main thread.
// Errors     a verdict against the code under test ends the process by abort, which libFuzzer reports and
//            answers by writing the input to a file.
//
// Two settings of the environment turn a target on itself:
//   CORVALIN_FUZZ_PLANT=<fault>   the oracle expects something wrong on purpose, so that a replay of the
//                                 corpus must end in a verdict. A target names its faults where it calls
//                                 `planted`.
//   CORVALIN_FUZZ_REACH=1         a replay: the process fails at its end unless the inputs have reached all
//                                 that the target lists, so that seeds cannot rot unnoticed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <sstream>
#include <string>
#include <string_view>

namespace corvalin::fuzz {

/// Cuts the input into numbers and blocks from front to back. Behind the end there are zeros.
class ByteSource {
public:
    ByteSource(const uint8_t* data, std::size_t size) : m_next(data), m_end(data + size) {}

    bool empty() const { return m_next == m_end; }
    /// Little-endian, like packets.
    template <class Number>
    Number take() {
        uint64_t number = 0;
        for (std::size_t index = 0; index < sizeof(Number); ++index) {
            number |= uint64_t{take_byte()} << (8 * index);
        }
        return static_cast<Number>(number);
    }
    /// Always `size` bytes.
    std::string take_block(std::size_t size);
    /// Passes over `prefix` and returns true if the rest begins with it.
    bool skip(std::string_view prefix);

private:
    uint8_t take_byte() { return empty() ? uint8_t{0} : *m_next++; }

    const uint8_t* m_next; // borrowed, like the end
    const uint8_t* m_end;
};

/// Writes "ORACLE: " and `text`, with its unprintable bytes in hexadecimal, to the standard error stream and
/// aborts.
[[noreturn]] void fail(const std::string& text);

/// Fails unless `holds`. `what` names the property, since the text is the whole report.
inline void require(bool holds, const char* what) {
    if (!holds) {
        fail(what);
    }
}

/// Fails unless both are equal, and shows them.
template <class Expected, class Actual>
void require_equal(std::string_view what, const Expected& expected, const Actual& actual) {
    if (expected == actual) {
        return;
    }
    std::ostringstream text;
    text << what << ": expected [" << expected << "], is [" << actual << "]";
    fail(text.str());
}

/// True if the environment asks for this planted fault.
bool planted(std::string_view fault);

/// True if CORVALIN_FUZZ_REACH is set: the inputs are those of a corpus, each once, and may take their time.
bool is_replay();

/// Accounts for what the inputs of this process have reached. One static object for each target.
class Reach {
public:
    explicit Reach(std::initializer_list<const char*> required);
    /// In a replay: ends the process with status 1 if anything is missing.
    ~Reach();
    Reach(const Reach&) = delete;
    Reach& operator=(const Reach&) = delete;

    /// `what` must be on the list. Does nothing in a search, which would learn these words as if they were
    /// the parser's.
    void mark(std::string_view what);

private:
    std::map<std::string, bool, std::less<>> m_reached;
};

} // namespace corvalin::fuzz
