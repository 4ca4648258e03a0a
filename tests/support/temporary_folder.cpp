#include "tests/support/temporary_folder.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace corvalin::test {

TemporaryFolder::TemporaryFolder()
    : m_path((std::filesystem::temp_directory_path() / "corvalin_XXXXXX").string()) {
    if (mkdtemp(m_path.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), m_path);
    }
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored; // a destructor has nobody to tell
    std::filesystem::remove_all(m_path, ignored);
}

std::string TemporaryFolder::write_file(const std::string& name, const std::string& content) const {
    std::string file_path = m_path + "/" + name;
    std::ofstream file(file_path, std::ios_base::binary);
    if (!(file << content << std::flush)) {
        throw std::runtime_error("cannot write " + file_path);
    }
    return file_path;
}

} // namespace corvalin::test
