#include "tests/fuzz/fuzz_support.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace corvalin::fuzz {

std::string ByteSource::take_block(std::size_t size) {
    const std::size_t left = static_cast<std::size_t>(m_end - m_next);
    const std::size_t taken = std::min(size, left);
    std::string block(m_next, m_next + taken);
    m_next += taken;
    block.resize(size, '\0');
    return block;
}

bool ByteSource::skip(std::string_view prefix) {
    const std::size_t left = static_cast<std::size_t>(m_end - m_next);
    if (left < prefix.size() || std::memcmp(m_next, prefix.data(), prefix.size()) != 0) {
        return false;
    }
    m_next += prefix.size();
    return true;
}

void fail(const std::string& text) {
    std::fputs("ORACLE: ", stderr);
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        std::fprintf(stderr, byte >= ' ' && byte <= '~' ? "%c" : "\\x%02x", byte);
    }
    std::fputs("\n", stderr);
    std::abort();
}

bool planted(std::string_view fault) {
    static const char* const plant = std::getenv("CORVALIN_FUZZ_PLANT");
    return plant != nullptr && fault == plant;
}

bool is_replay() {
    static const bool replay = std::getenv("CORVALIN_FUZZ_REACH") != nullptr;
    return replay;
}

Reach::Reach(std::initializer_list<const char*> required) {
    for (const char* what : required) {
        m_reached.emplace(what, false);
    }
}

Reach::~Reach() {
    if (!is_replay()) {
        return;
    }
    bool complete = true;
    for (const auto& [what, is_reached] : m_reached) {
        if (!is_reached) {
            std::fprintf(stderr, "REACH: no input has reached \"%s\"\n", what.c_str());
            complete = false;
        }
    }
    if (!complete) {
        std::_Exit(1); // exit handlers are running: exit itself cannot be called any more
    }
    std::fprintf(stderr, "REACH: all %zu reached\n", m_reached.size());
}

void Reach::mark(std::string_view what) {
    if (!is_replay()) {
        return;
    }
    const auto position = m_reached.find(what);
    if (position == m_reached.end()) {
        fail("not on the list of what inputs reach: " + std::string(what));
    }
    position->second = true;
}

} // namespace corvalin::fuzz

// What a program has freed is kept for a while, so that a use of it is seen. The default of 256 MiB is for
// processes that run once; here it would only push the caches over, thousands of times a second.
// NOLINTNEXTLINE(readability-identifier-naming): the name that the runtime asks for
extern "C" const char* __asan_default_options() {
    return "quarantine_size_mb=16";
}
