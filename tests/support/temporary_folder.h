// temporary_folder: a folder of a test's own, which is gone with everything in it when the test is over; and whole files
// as texts.
//
// Errors     throws std::system_error if the folder cannot be made, and std::runtime_error if a file cannot be opened or
//            written.
#pragma once

#include <filesystem>
#include <string>

namespace corvalin::test {

/// The whole content, as it is.
std::string read_file(const std::filesystem::path& path);
/// Writes `content` byte for byte. Makes the folders above the file too.
void write_file(const std::filesystem::path& path, const std::string& content);

class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    /// Absolute, without a "/" at its end.
    const std::string& path() const { return m_path; }
    /// Writes `content` byte for byte to the file `name` in the folder and returns its path.
    std::string write_file(const std::string& name, const std::string& content) const;

private:
    std::string m_path;
};

} // namespace corvalin::test
