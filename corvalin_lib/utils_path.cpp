#include "corvalin_lib/utils_path.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <vector>

#include "corvalin_lib/utils_str.h"

namespace corvalin::utils::path {

namespace {

constexpr char SEPARATOR = LINUX_PATH_SEPARATOR::CHAR;

struct Free {
    void operator()(char* text) const noexcept { std::free(text); }
};

} // namespace

std::string get_current_directory() {
    const std::unique_ptr<char, Free> name(get_current_dir_name());
    std::string directory =
        name.get(); // throws on null: a process without a current directory is not guarded against
    if (directory.ends_with(SEPARATOR)) {
        directory.pop_back();
    }
    return directory;
}

std::string& normalize_path_separator(std::string& path) {
    std::replace(path.begin(), path.end(), WINDOWS_PATH_SEPARATOR::CHAR, SEPARATOR);
    return path;
}

std::string normalize_path_separator(const std::string& path) {
    std::string copy = path;
    normalize_path_separator(copy);
    return copy;
}

std::string get_file_name(const std::string& path) {
    const std::string normalized = normalize_path_separator(path);
    const std::size_t separator = normalized.rfind(SEPARATOR);
    return separator == std::string::npos ? normalized : normalized.substr(separator + 1);
}

std::string get_absolute_path(const std::string& path) {
    std::string whole = str::trim_right(str::trim_left(path));
    normalize_path_separator(whole);
    if (!whole.empty() && !whole.starts_with(SEPARATOR)) {
        whole = get_current_directory() + SEPARATOR + whole;
    }

    std::vector<std::string> components;
    str::split(whole, SEPARATOR, components, false);
    std::vector<std::string> kept;
    for (const std::string& component : components) {
        if (component == CURRENT_DIR::C_STR) {
            continue;
        }
        if (component != PARENT_DIR::C_STR) {
            kept.push_back(component);
        } else if (kept.empty()) {
            return {}; // above the root; not clamped to it
        } else {
            kept.pop_back();
        }
    }

    if (kept.empty()) {
        return LINUX_PATH_SEPARATOR::C_STR;
    }
    std::string absolute;
    for (const std::string& component : kept) {
        absolute += SEPARATOR + component;
    }
    return absolute;
}

bool check_or_create_directory(const std::string& path, bool is_file_path, unsigned int mode,
                               create_policy policy) {
    std::string directory = get_absolute_path(path);
    if (is_file_path && !directory.empty()) {
        directory.erase(directory.rfind(SEPARATOR));
    }
    if (directory.empty()) {
        return false;
    }
    if (policy == create_policy::create_directory_pessimistic) {
        throw std::runtime_error("not implemented:create_directory_pessimistic");
    }
    if (policy != create_policy::create_directory_optimistic) {
        throw std::invalid_argument("policy");
    }

    // The deepest ancestor that exists is the first `end` characters. With 0 none was seen, and creation
    // starts at the top: the text ahead of the first separator is empty, so the root itself is not asked.
    std::size_t end = directory.size();
    struct stat status {};
    while (end != 0 && stat(directory.substr(0, end).c_str(), &status) != 0) {
        end = directory.rfind(SEPARATOR, end - 1);
    }
    if (end != 0 && !S_ISDIR(status.st_mode)) {
        errno = ENOTDIR;
        return false;
    }

    // EEXIST is no failure, here and below: another process may create the same directories at this moment.
    for (end = directory.find(SEPARATOR, end + 1); end != std::string::npos;
         end = directory.find(SEPARATOR, end + 1)) {
        if (mkdir(directory.substr(0, end).c_str(), mode) != 0 && errno != EEXIST) {
            return false;
        }
    }
    return mkdir(directory.c_str(), mode) == 0 || errno == EEXIST;
}

} // namespace corvalin::utils::path
