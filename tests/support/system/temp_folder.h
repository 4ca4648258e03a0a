// temp_folder: a folder of one test, gone with all its content at its end.
#pragma once

#include <filesystem>
#include <string>

namespace corvalin::test {

class TempFolder {
public:
    /// Throws std::system_error.
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

/// The whole content, as it is. Throws std::runtime_error if it cannot be opened.
std::string read_file(const std::filesystem::path& path);
/// Makes the folders above it too.
void write_file(const std::filesystem::path& path, const std::string& content);

} // namespace corvalin::test
