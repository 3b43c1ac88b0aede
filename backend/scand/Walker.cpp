#include "Walker.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "UniqueFd.h"

namespace kuv {
namespace scand {

std::string errnoReason(int error)
{
    switch (error) {
    case EACCES:
    case EPERM:
        return "permission denied";
    case ENOENT:
    case ENOTDIR:
        return "vanished";
    default:
        return strerror(error);
    }
}

const char* Walker::kindName(unsigned int mode)
{
    switch (mode & S_IFMT) {
    case S_IFIFO:
        return "fifo";
    case S_IFSOCK:
        return "socket";
    case S_IFCHR:
    case S_IFBLK:
        return "device";
    case S_IFLNK:
        return "symbolic link";
    case S_IFDIR:
        return "directory";
    case S_IFREG:
        return "file";
    default:
        return "special file";
    }
}

namespace {
bool virtualMagic(unsigned long type)
{
    switch (type) {
    case PROC_SUPER_MAGIC:
    case SYSFS_MAGIC:
    case DEVPTS_SUPER_MAGIC:
    case DEBUGFS_MAGIC:
    case SECURITYFS_MAGIC:
    case CGROUP_SUPER_MAGIC:
    case CGROUP2_SUPER_MAGIC:
        return true;
    default:
        return false;
    }
}

bool onVirtualFs(const std::string& path)
{
    struct statfs fs;
    return ::statfs(path.c_str(), &fs) == 0 && virtualMagic(static_cast<unsigned long>(fs.f_type));
}
} // namespace

bool Walker::isVirtualDir(const std::string& path, int dirFd)
{
    if (path == "/proc" || path == "/sys" || path == "/dev") {
        return true;
    }
    struct statfs fs;
    return dirFd >= 0 && ::fstatfs(dirFd, &fs) == 0 && virtualMagic(static_cast<unsigned long>(fs.f_type));
}

bool Walker::excluded(const std::string& path) const
{
    for (const std::string& ex : m_exclude) {
        if (path.size() >= ex.size() && path.compare(0, ex.size(), ex) == 0 &&
            (path.size() == ex.size() || path[ex.size()] == '/' || (!ex.empty() && ex.back() == '/'))) {
            return true;
        }
    }
    return false;
}

bool Walker::walk(const std::vector<std::string>& roots, const Visit& visit)
{
    for (const std::string& rawRoot : roots) {
        if (cancelled()) {
            return false;
        }
        std::string root = rawRoot;
        while (root.size() > 1 && root.back() == '/') {
            root.pop_back(); // "dir/" and "dir" name the same folder; keeps joined paths single-slashed
        }
        WalkEntry entry;
        entry.path = root;
        if (root.empty() || root[0] != '/') {
            // The back end has no working directory of the requester's to resolve it against.
            entry.kind = WalkEntry::Kind::Error;
            entry.reason = "not an absolute path";
            if (!visit(std::move(entry))) {
                return false;
            }
            continue;
        }
        if (excluded(root)) {
            entry.kind = WalkEntry::Kind::Skipped;
            entry.reason = "excluded";
            if (!visit(std::move(entry))) {
                return false;
            }
            continue;
        }
        struct stat st;
        if (::stat(root.c_str(), &st) != 0) {
            const int error = errno;
            struct stat lst;
            entry.kind = WalkEntry::Kind::Error;
            // A link that points nowhere is not worth an error: there is nothing to scan.
            if (::lstat(root.c_str(), &lst) == 0 && S_ISLNK(lst.st_mode)) {
                entry.kind = WalkEntry::Kind::Skipped;
                entry.reason = "symbolic link";
            } else {
                entry.reason = error == ENOENT ? std::string("no such file or directory") : errnoReason(error);
            }
            if (!visit(std::move(entry))) {
                return false;
            }
            continue;
        }
        if (S_ISDIR(st.st_mode)) {
            if (!walkDir(root, visit)) {
                return false;
            }
            continue;
        }
        if (isVirtualDir(root, -1) || root.rfind("/proc/", 0) == 0 || root.rfind("/sys/", 0) == 0 ||
            root.rfind("/dev/", 0) == 0 || onVirtualFs(root)) {
            entry.kind = WalkEntry::Kind::Skipped;
            entry.reason = "virtual file system";
        } else if (S_ISREG(st.st_mode)) {
            entry.size = static_cast<uint64_t>(st.st_size);
        } else {
            entry.kind = WalkEntry::Kind::Skipped;
            entry.reason = kindName(st.st_mode);
        }
        if (!visit(std::move(entry))) {
            return false;
        }
    }
    return !cancelled();
}

// Depth first with an explicit stack of paths, so deep trees need neither recursion nor a descriptor per
// level: a directory is read whole and closed before its children are entered.
bool Walker::walkDir(const std::string& root, const Visit& visit)
{
    std::vector<std::string> stack{root};
    std::vector<std::string> children;
    while (!stack.empty()) {
        if (cancelled()) {
            return false;
        }
        const std::string dir = std::move(stack.back());
        stack.pop_back();
        // The root was named by the user and may be a link; nothing below it is followed.
        const int follow = dir.size() == root.size() && dir == root ? 0 : O_NOFOLLOW;
        kuv::UniqueFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | follow | O_CLOEXEC | O_NOCTTY));
        if (!fd.valid()) {
            WalkEntry entry;
            entry.path = dir;
            if (errno == ELOOP || errno == ENOTDIR) {
                entry.kind = WalkEntry::Kind::Error;
                entry.reason = "vanished"; // replaced by something else since it was listed
            } else {
                entry.kind = WalkEntry::Kind::Error;
                entry.reason = errnoReason(errno);
            }
            if (!visit(std::move(entry))) {
                return false;
            }
            continue;
        }
        if (isVirtualDir(dir, fd.get())) {
            WalkEntry entry;
            entry.path = dir;
            entry.kind = WalkEntry::Kind::Skipped;
            entry.reason = "virtual file system";
            if (!visit(std::move(entry))) {
                return false;
            }
            continue;
        }
        const int dirFd = fd.get();
        DIR* d = ::fdopendir(fd.release());
        if (d == nullptr) {
            ::close(dirFd);
            continue;
        }
        const std::string prefix = dir == "/" ? std::string("/") : dir + "/";
        children.clear();
        bool stop = false;
        errno = 0;
        while (dirent* e = ::readdir(d)) {
            if (cancelled()) {
                stop = true;
                break;
            }
            const char* name = e->d_name;
            if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) {
                continue;
            }
            WalkEntry entry;
            entry.path = prefix + name;
            if (excluded(entry.path)) {
                entry.kind = WalkEntry::Kind::Skipped;
                entry.reason = "excluded";
            } else {
                struct stat st;
                if (::fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
                    entry.kind = WalkEntry::Kind::Error;
                    entry.reason = errnoReason(errno);
                } else if (S_ISDIR(st.st_mode)) {
                    children.push_back(std::move(entry.path));
                    continue;
                } else if (S_ISREG(st.st_mode)) {
                    entry.size = static_cast<uint64_t>(st.st_size);
                } else {
                    entry.kind = WalkEntry::Kind::Skipped;
                    entry.reason = kindName(st.st_mode);
                }
            }
            if (!visit(std::move(entry))) {
                stop = true;
                break;
            }
            errno = 0;
        }
        ::closedir(d);
        if (stop) {
            return false;
        }
        // Reversed, so the children are entered in directory order.
        for (auto it = children.rbegin(); it != children.rend(); ++it) {
            stack.push_back(std::move(*it));
        }
    }
    return true;
}

} // namespace scand
} // namespace kuv
