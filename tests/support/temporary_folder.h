// temporary_folder: a folder of a test's own, which is gone with everything in it when the test is over.
//
// Errors     throws std::system_error if the folder cannot be made, and std::runtime_error if a file cannot be written.
#pragma once

#include <string>

namespace corvalin::test {

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
