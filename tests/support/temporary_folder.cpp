#include "tests/support/temporary_folder.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace corvalin::test {

std::string read_file(const std::filesystem::path& path) {
    const std::ifstream file(path, std::ios_base::binary);
    if (!file) {
        throw std::runtime_error("cannot open " + path.string());
    }
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

void write_file(const std::filesystem::path& path, const std::string& content) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream file(path, std::ios_base::binary);
    if (!(file << content << std::flush)) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

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
    test::write_file(file_path, content);
    return file_path;
}

} // namespace corvalin::test
