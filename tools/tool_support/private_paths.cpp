#include "tools/tool_support/private_paths.h"

#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <string_view>
#include <system_error>
#include <utility>

namespace corvalin::tools {
namespace {

constexpr const char* ETC = "/etc";
constexpr const char* VAR_LOG = "/var/log";
constexpr const char* DEV = "/dev";
// Where the covered directory stays reachable, inside the tmpfs that covers it.
constexpr const char* MACHINE_DIR = ".machine";
constexpr mode_t DIR_MODE = 0755;

[[noreturn]] void fail(const std::string& step) {
    throw std::system_error(errno, std::generic_category(), step);
}

class Descriptor {
public:
    explicit Descriptor(int fd) noexcept : m_fd(fd) {}
    Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Descriptor& operator=(Descriptor&&) = delete;
    ~Descriptor() {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    int get() const noexcept { return m_fd; }

private:
    int m_fd;
};

void write_proc_file(const char* path, const std::string& text) {
    const Descriptor file(open(path, O_WRONLY | O_CLOEXEC));
    if (file.get() < 0 || write(file.get(), text.data(), text.size()) < 0) {
        fail(std::string("cannot write ") + path);
    }
}

void enter_user_namespace(int namespaces) {
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (unshare(CLONE_NEWUSER | namespaces) != 0) {
        fail("cannot create a user namespace (run as root, or let users create them: sysctl "
             "kernel.unprivileged_userns_clone, user.max_user_namespaces)");
    }
    // The group map is refused to a process that could still drop groups, so that right goes first.
    write_proc_file("/proc/self/setgroups", "deny");
    write_proc_file("/proc/self/uid_map", std::to_string(uid) + " " + std::to_string(uid) + " 1");
    write_proc_file("/proc/self/gid_map", std::to_string(gid) + " " + std::to_string(gid) + " 1");
}

void enter_namespaces(int namespaces) {
    // Root inside a container may lack the right to mount, so the answer of the kernel counts, not the uid.
    if (unshare(namespaces) != 0) {
        if (errno != EPERM) {
            fail("cannot create a mount namespace");
        }
        enter_user_namespace(namespaces);
    }
    // Without this a mount would propagate to every namespace that shares the tree.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        fail("cannot make the mounts private");
    }
}

void bring_loopback_up() {
    const Descriptor socket_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", sizeof(request.ifr_name) - 1);
    if (socket_fd.get() < 0 || ioctl(socket_fd.get(), SIOCGIFFLAGS, &request) != 0) {
        fail("cannot read the flags of the loopback interface");
    }
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    if (ioctl(socket_fd.get(), SIOCSIFFLAGS, &request) != 0) {
        fail("cannot bring the loopback interface up");
    }
}

// A detached copy of a directory with all mounts below it. It stays usable whatever covers its path later.
Descriptor clone_tree(const std::string& path) {
    Descriptor tree(
        open_tree(AT_FDCWD, path.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | unsigned{AT_RECURSIVE}));
    if (tree.get() < 0) {
        fail("cannot open " + path);
    }
    struct stat status {};
    if (fstat(tree.get(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        errno = ENOTDIR;
        fail("cannot use " + path);
    }
    return tree;
}

void make_dir(const std::string& path) {
    if (mkdir(path.c_str(), DIR_MODE) != 0 || chmod(path.c_str(), DIR_MODE) != 0) { // whatever the umask
        fail("cannot make " + path);
    }
}

void mount_tmpfs(const char* path) {
    if (mount("tmpfs", path, "tmpfs", MS_NOSUID, "mode=0755,size=1m") != 0) {
        fail(std::string("cannot mount a tmpfs on ") + path);
    }
}

void attach(const Descriptor& tree, const std::string& path) {
    make_dir(path);
    if (move_mount(tree.get(), "", AT_FDCWD, path.c_str(), MOVE_MOUNT_F_EMPTY_PATH) != 0) {
        fail("cannot mount on " + path);
    }
}

void make_link(const std::string& target, const std::string& path) {
    if (symlink(target.c_str(), path.c_str()) != 0) {
        fail("cannot make the link " + path);
    }
}

// A link is copied and not linked to: programs look at what /etc/localtime and /etc/mtab point at, and the
// path of a relative link is the same in the copy.
void show_entry(int machine_fd, const std::string& covered, const std::string& name) {
    char target[PATH_MAX];
    const ssize_t length = readlinkat(machine_fd, name.c_str(), target, sizeof(target));
    const std::string path = covered + "/" + name;
    if (length >= 0) {
        make_link({target, static_cast<std::size_t>(length)}, path);
    } else if (errno == EINVAL) { // not a link
        make_link(std::string(MACHINE_DIR) + "/" + name, path);
    } else {
        fail("cannot read " + path);
    }
}

// Covers a directory with a tmpfs in which every entry is that of the machine, except for `hidden`.
void cover(const char* path, std::string_view hidden, bool read_only) {
    const Descriptor machine = clone_tree(path);
    if (read_only) {
        mount_attr attributes{};
        attributes.attr_set = MOUNT_ATTR_RDONLY;
        if (mount_setattr(machine.get(), "", AT_EMPTY_PATH | unsigned{AT_RECURSIVE}, &attributes,
                          sizeof(attributes)) != 0) {
            fail(std::string("cannot make read-only ") + path);
        }
    }
    mount_tmpfs(path);
    attach(machine, std::string(path) + "/" + MACHINE_DIR);

    const std::string machine_path = std::string(path) + "/" + MACHINE_DIR;
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(machine_path.c_str()), closedir);
    if (dir == nullptr) {
        fail("cannot list " + machine_path);
    }
    errno = 0;
    while (const dirent* const entry = readdir(dir.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != ".." && name != hidden && name != MACHINE_DIR) {
            show_entry(dirfd(dir.get()), path, name);
        }
        errno = 0;
    }
    if (errno != 0) {
        fail("cannot list " + machine_path);
    }
}

// Links resolve when they are followed, so the path must hold from any directory.
std::string absolute_socket_path(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    char resolved[PATH_MAX];
    if (realpath(dir.c_str(), resolved) == nullptr) {
        fail("cannot use the directory of " + path);
    }
    return std::string(resolved) + "/" + path.substr(slash == std::string::npos ? 0 : slash + 1);
}

} // namespace

void enter_private_paths(const PrivatePaths& paths) {
    const std::string socket_path =
        paths.dev_log_socket.empty() ? std::string() : absolute_socket_path(paths.dev_log_socket);

    enter_namespaces(CLONE_NEWNS | (paths.own_network ? CLONE_NEWNET : 0));
    if (paths.own_network) {
        bring_loopback_up();
    }

    // All trees are taken first: one of the directories may lie below a path that is about to be covered.
    const Descriptor etc = paths.etc_dir.empty() ? Descriptor(-1) : clone_tree(paths.etc_dir);
    const Descriptor log = paths.log_dir.empty() ? Descriptor(-1) : clone_tree(paths.log_dir);
    if (etc.get() >= 0) {
        cover(ETC, "tolvaine", true);
        attach(etc, "/etc/tolvaine");
    }
    if (log.get() >= 0) {
        mount_tmpfs(VAR_LOG);
        attach(log, "/var/log/tolvaine");
    }
    if (!socket_path.empty()) {
        // Read-only would do no harm to the devices, but shared memory lives below /dev too.
        cover(DEV, "log", false);
        make_link(socket_path, "/dev/log");
    }
}

} // namespace corvalin::tools
