// utils_path: clean absolute paths out of what a user writes, and the creation of directories.
//
// A path is plain text. Apart from the current directory and the creation of directories nothing here looks
// at the file system, and symbolic links are not resolved.
//
// Threads    every function may be called on any thread, as long as none changes the current directory.
// Ownership  arguments are only read during the call, except for the path that is normalized in place.
// Errors     check_or_create_directory answers false and leaves the reason in errno. A path that cannot be
//            made absolute is the empty string. A current directory that cannot be told ends in
//            std::logic_error.
#pragma once

#include <string>

namespace corvalin::utils::path {

// NOLINTBEGIN(readability-identifier-naming): a group of constants is named like a constant
struct CURRENT_DIR {
    static constexpr const char* C_STR = ".";
    static inline const std::string STR = C_STR;
};

struct PARENT_DIR {
    static constexpr const char* C_STR = "..";
    static inline const std::string STR = C_STR;
};

struct LINUX_PATH_SEPARATOR {
    static constexpr const char* C_STR = "/";
    static inline const std::string STR = C_STR;
    static constexpr char CHAR = '/';
};

struct WINDOWS_PATH_SEPARATOR {
    static constexpr const char* C_STR = "\\";
    static inline const std::string STR = LINUX_PATH_SEPARATOR::C_STR; // on purpose the separator of Linux
    static constexpr char CHAR = '\\';
};

struct FILE_EXTENSION_SEPARATOR {
    static constexpr char CHAR = '.';
};
// NOLINTEND(readability-identifier-naming)

/// The current directory without a slash at its end, so that the root is empty.
std::string get_current_directory();

/// Turns each backslash into a slash. Returns `path`.
std::string& normalize_path_separator(std::string& path);
/// The same in a copy.
std::string normalize_path_separator(const std::string& path);

/// What stands behind the last separator: everything if there is none, nothing if the path ends in one.
std::string get_file_name(const std::string& path);

/// The absolute path of `path`, free of ".", ".." and needless slashes; without a slash at its end but for
/// the root. A relative path starts at the current directory, but a path of white space only is the root. A
/// path that climbs above the root has no answer: it gives the empty string.
std::string get_absolute_path(const std::string& path);

enum class create_policy {
    create_directory_optimistic =
        0, // looks from the full path upwards for what exists, then creates downwards
    create_directory_pessimistic = 1, // has a name only
};

/// Makes sure that the directory `path` exists, and those above it. With `is_file_path` the last name is that
/// of a file and is left out. `mode` is handed to `mkdir`, which takes the umask off. Returns false if there
/// is no directory left to create, and if the system refuses. Throws std::runtime_error for the pessimistic
/// policy and std::invalid_argument for one that has no name.
bool check_or_create_directory(const std::string& path, bool is_file_path, unsigned int mode,
                               create_policy policy);

} // namespace corvalin::utils::path
