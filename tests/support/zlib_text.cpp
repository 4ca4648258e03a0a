#include "tests/support/zlib_text.h"

#include <zlib.h>

#include <stdexcept>

namespace corvalin::test {

std::string deflated(const std::string& text, int level) {
    uLongf size = compressBound(text.size());
    std::string stream(size, '\0');
    if (compress2(reinterpret_cast<Bytef*>(stream.data()), &size, reinterpret_cast<const Bytef*>(text.data()),
                  text.size(), level) != Z_OK) {
        throw std::runtime_error("cannot deflate");
    }
    stream.resize(size);
    return stream;
}

std::string inflated(const std::string& stream) {
    std::string text(100'000, '\0');
    uLongf size = text.size();
    if (uncompress(reinterpret_cast<Bytef*>(text.data()), &size,
                   reinterpret_cast<const Bytef*>(stream.data()), stream.size()) != Z_OK) {
        throw std::runtime_error("no zlib stream");
    }
    text.resize(size);
    return text;
}

} // namespace corvalin::test
