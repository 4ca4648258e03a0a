// zlib_text: zlib streams of texts and back, by zlib alone: no code under test has a hand in it.
//
// Errors     throws std::runtime_error.
#pragma once

#include <string>

namespace corvalin::test {

/// A zlib stream of `text`. Level -1 is zlib's default, 0 stores.
std::string deflated(const std::string& text, int level = -1);
/// The text of a zlib stream, of up to 100000 bytes.
std::string inflated(const std::string& stream);

} // namespace corvalin::test
