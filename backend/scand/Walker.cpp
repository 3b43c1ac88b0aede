// SPDX-License-Identifier: GPL-2.0-or-later
#include "Walker.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

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

namespace {

// An entry that is not scanned: skipped, or an error, with why.
void setNotScanned(WalkEntry& entry, WalkEntry::Kind kind, std::string reason)
{
    entry.kind = kind;
    entry.reason = std::move(reason);
}

// What stat says of something that is not a folder: a file to scan (with its size), or skipped by kind.
void describeNonDir(const struct stat& st, WalkEntry& entry)
{
    if (S_ISREG(st.st_mode)) {
        entry.size = static_cast<uint64_t>(st.st_size);
    } else {
        setNotScanned(entry, WalkEntry::Kind::Skipped, Walker::kindName(st.st_mode));
    }
}

bool isVirtualPath(const std::string& path)
{
    return Walker::isVirtualDir(path, -1) || path.rfind("/proc/", 0) == 0 || path.rfind("/sys/", 0) == 0 ||
           path.rfind("/dev/", 0) == 0 || onVirtualFs(path);
}

struct DirCloser {
    void operator()(DIR* d) const { ::closedir(d); }
};
using UniqueDir = std::unique_ptr<DIR, DirCloser>;

} // namespace

bool Walker::walk(const std::vector<std::string>& roots, const Visit& visit)
{
    for (const std::string& root : roots) {
        if (cancelled() || !walkRoot(root, visit)) {
            return false;
        }
    }
    return !cancelled();
}

// A path the request names: a folder is walked, anything else is one entry.
bool Walker::walkRoot(const std::string& rawRoot, const Visit& visit)
{
    std::string root = rawRoot;
    while (root.size() > 1 && root.back() == '/') {
        root.pop_back(); // "dir/" and "dir" name the same folder; keeps joined paths single-slashed
    }
    WalkEntry entry;
    entry.path = root;
    struct stat st;
    if (root.empty() || root[0] != '/') {
        // The back end has no working directory of the requester's to resolve it against.
        setNotScanned(entry, WalkEntry::Kind::Error, "not an absolute path");
    } else if (excluded(root)) {
        setNotScanned(entry, WalkEntry::Kind::Skipped, "excluded");
    } else if (::stat(root.c_str(), &st) != 0) {
        const int error = errno;
        struct stat lst;
        // A link that points nowhere is not worth an error: there is nothing to scan.
        if (::lstat(root.c_str(), &lst) == 0 && S_ISLNK(lst.st_mode)) {
            setNotScanned(entry, WalkEntry::Kind::Skipped, "symbolic link");
        } else {
            setNotScanned(entry, WalkEntry::Kind::Error,
                          error == ENOENT ? std::string("no such file or directory") : errnoReason(error));
        }
    } else if (S_ISDIR(st.st_mode)) {
        return walkDir(root, visit);
    } else if (isVirtualPath(root)) {
        setNotScanned(entry, WalkEntry::Kind::Skipped, "virtual file system");
    } else {
        describeNonDir(st, entry);
    }
    return visit(std::move(entry));
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
        children.clear();
        if (!readDir(dir, dir.size() == root.size() && dir == root, visit, children)) {
            return false;
        }
        // Reversed, so the children are entered in directory order.
        for (auto it = children.rbegin(); it != children.rend(); ++it) {
            stack.push_back(std::move(*it));
        }
    }
    return true;
}

// Visits what dir holds and collects its subfolders in children; false when cancelled or stopped by visit.
bool Walker::readDir(const std::string& dir, bool isRoot, const Visit& visit, std::vector<std::string>& children)
{
    // The root was named by the user and may be a link; nothing below it is followed.
    const int follow = isRoot ? 0 : O_NOFOLLOW;
    kuv::UniqueFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | follow | O_CLOEXEC | O_NOCTTY));
    WalkEntry problem;
    problem.path = dir;
    if (!fd.valid()) {
        // ELOOP, ENOTDIR: replaced by something else since it was listed.
        setNotScanned(problem, WalkEntry::Kind::Error,
                      errno == ELOOP || errno == ENOTDIR ? std::string("vanished") : errnoReason(errno));
        return visit(std::move(problem));
    }
    if (isVirtualDir(dir, fd.get())) {
        setNotScanned(problem, WalkEntry::Kind::Skipped, "virtual file system");
        return visit(std::move(problem));
    }
    const int dirFd = fd.get();
    const UniqueDir d(::fdopendir(dirFd));
    if (!d) {
        return true; // fd still owns the descriptor
    }
    (void)fd.release(); // now d's
    const std::string prefix = dir == "/" ? std::string("/") : dir + "/";
    errno = 0;
    while (dirent* e = ::readdir(d.get())) {
        if (cancelled()) {
            return false;
        }
        const char* name = e->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) {
            continue;
        }
        WalkEntry entry;
        entry.path = prefix + name;
        struct stat st;
        if (excluded(entry.path)) {
            setNotScanned(entry, WalkEntry::Kind::Skipped, "excluded");
        } else if (::fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            setNotScanned(entry, WalkEntry::Kind::Error, errnoReason(errno));
        } else if (S_ISDIR(st.st_mode)) {
            children.push_back(std::move(entry.path));
            continue;
        } else {
            describeNonDir(st, entry);
        }
        if (!visit(std::move(entry))) {
            return false;
        }
        errno = 0;
    }
    return true;
}

} // namespace scand
} // namespace kuv
