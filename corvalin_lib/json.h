// json: RapidJSON, with its assertions active in every build.
//
// RapidJSON tells a wrong access (a member of something that is no object, the string of a number) by an assertion and
// nothing else. Events come from outside, and their handlers rest on it: an event of a wrong shape must end the process
// and not read whatever lies behind a value. RapidJSON's own assertion is `assert`, which NDEBUG takes away, so it gets
// one here that stays.
//
// Every file includes RapidJSON through this header: a file with the other assertion would give the same inline
// functions another body, and the linker keeps one of the two.
//
// Threads    a document belongs to one thread at a time.
// Errors     a failed assertion prints its expression and place to the standard error stream and aborts.
#pragma once

#if defined(RAPIDJSON_ASSERT) || defined(RAPIDJSON_RAPIDJSON_H_)
#error "corvalin_lib/json.h comes before any header of RapidJSON"
#endif

#include <cstdio>
#include <cstdlib>

namespace corvalin::json {

/// Ends the process by SIGABRT.
[[noreturn]] inline void assertion_failed(const char* expression, const char* file, int line) noexcept {
    std::fprintf(stderr, "RapidJSON assertion failed: %s at %s:%d\n", expression, file, line);
    std::abort();
}

} // namespace corvalin::json

#define RAPIDJSON_ASSERT(condition)                                                                          \
    (static_cast<bool>(condition) ? static_cast<void>(0)                                                     \
                                  : ::corvalin::json::assertion_failed(#condition, __FILE__, __LINE__))

#include <rapidjson/document.h>
#include <rapidjson/encodedstream.h>
#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
