// SPDX-License-Identifier: GPL-2.0-or-later
// The private per-user runtime directory, atomic file replacement and control-character escaping.
#include "FileUtils.h"
#include "SafeIo.h"
#include "UniqueFd.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <cstddef>
#include <filesystem>

namespace {

using Fd = kuv::UniqueFd;

void setError(std::string* error, const std::string& text)
{
    if (error != nullptr) {
        *error = text;
    }
}

std::string octal(unsigned int mode)
{
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "%04o", mode & 07777u);
    return buffer;
}

// Whether a base directory from the environment is good enough to hold our own directory.
bool privateDir(const char* path, uid_t uid)
{
    struct stat st;
    return path != nullptr && path[0] == '/' && ::lstat(path, &st) == 0 && S_ISDIR(st.st_mode) &&
           st.st_uid == uid && (st.st_mode & 07777) == 0700;
}

} // namespace

namespace kuv {

namespace {

// Creates dir (0700) when missing and accepts it only as a real directory of uid with mode 0700.
// taken: it exists but belongs to someone else (or is not a directory of ours at all).
bool usableDir(const std::string& dir, uid_t uid, std::string* error, bool* taken, uid_t* owner)
{
    struct stat st;
    if (::lstat(dir.c_str(), &st) != 0) {
        if (errno != ENOENT) {
            setError(error, "runtime directory " + dir + "/ cannot be examined: " + std::strerror(errno));
            return false;
        }
        if (::mkdir(dir.c_str(), 0700) == 0) {
            // mkdir honours the umask; make the mode exact.
            ::chmod(dir.c_str(), 0700);
        } else if (errno != EEXIST) {
            setError(error, "runtime directory " + dir + "/ cannot be created: " + std::strerror(errno));
            return false;
        }
        if (::lstat(dir.c_str(), &st) != 0) {
            setError(error, "runtime directory " + dir + "/ cannot be examined: " + std::strerror(errno));
            return false;
        }
    }
    if (owner != nullptr) {
        *owner = st.st_uid;
    }
    if (S_ISLNK(st.st_mode)) {
        setError(error, "runtime directory " + dir + "/ is a symbolic link; refused");
        if (taken != nullptr) {
            *taken = st.st_uid != uid;
        }
        return false;
    }
    if (!S_ISDIR(st.st_mode)) {
        setError(error, "runtime directory " + dir + "/ is not a directory; refused");
        if (taken != nullptr) {
            *taken = st.st_uid != uid;
        }
        return false;
    }
    if (st.st_uid != uid) {
        setError(error, "runtime directory " + dir + "/ is owned by uid " + std::to_string(st.st_uid) +
                            ", not by uid " + std::to_string(uid) + "; refused");
        if (taken != nullptr) {
            *taken = true;
        }
        return false;
    }
    if ((st.st_mode & 07777) != 0700) {
        setError(error, "runtime directory " + dir + "/ has mode " + octal(st.st_mode) + ", not 0700; refused");
        return false;
    }
    return true;
}

std::string userName(uid_t uid)
{
    struct passwd pw;
    struct passwd* found = nullptr;
    char buffer[4096];
    if (::getpwuid_r(uid, &pw, buffer, sizeof buffer, &found) == 0 && found != nullptr && found->pw_name != nullptr) {
        return found->pw_name;
    }
    return "?";
}

std::string homeOf(uid_t uid)
{
    const char* home = std::getenv("HOME");
    if (home != nullptr && home[0] == '/') {
        return home;
    }
    struct passwd pw;
    struct passwd* found = nullptr;
    char buffer[16384];
    if (::getpwuid_r(uid, &pw, buffer, sizeof buffer, &found) == 0 && found != nullptr && found->pw_dir != nullptr &&
        found->pw_dir[0] == '/') {
        return found->pw_dir;
    }
    return std::string();
}

std::mutex g_noticeMutex;
std::string g_notice;
bool g_noticePrinted = false;

void setNotice(const std::string& text)
{
    std::lock_guard<std::mutex> lock(g_noticeMutex);
    g_notice = text;
    if (!g_noticePrinted) {
        g_noticePrinted = true;
        std::fprintf(stderr, "kuv: %s\n", kuv::escapeControl(text).c_str());
    }
}

} // namespace

std::string runtimeDirNotice()
{
    std::lock_guard<std::mutex> lock(g_noticeMutex);
    return g_notice;
}

std::string runtimeDir(std::string* error)
{
    const uid_t uid = ::geteuid();
    const char* xdg = std::getenv("XDG_RUNTIME_DIR");
    if (privateDir(xdg, uid)) {
        std::string dir = xdg;
        if (dir.back() != '/') {
            dir += '/';
        }
        dir += "kuv";
        return usableDir(dir, uid, error, nullptr, nullptr) ? dir + '/' : std::string();
    }

    // Without XDG_RUNTIME_DIR: /tmp/kuv-<uid>, unless another user took that name first. Then a
    // directory under the user's home that nobody else can create or enter, and once it exists every
    // later process of the user goes there too, so they all still find each other.
    const std::string home = homeOf(uid);
    const std::string cache = home.empty() ? std::string() : home + "/.cache/kuv";
    const std::string fallback = cache.empty() ? std::string() : cache + "/runtime";
    const std::string dir = "/tmp/kuv-" + std::to_string(uid);
    struct stat st;
    if (!fallback.empty() && ::lstat(fallback.c_str(), &st) == 0 &&
        usableDir(fallback, uid, nullptr, nullptr, nullptr)) {
        struct stat squat;
        if (::lstat(dir.c_str(), &squat) == 0 && squat.st_uid != uid) {
            setNotice(dir + "/ is taken by uid " + std::to_string(squat.st_uid) + " (" + userName(squat.st_uid) +
                      "); using " + fallback + "/ instead");
        }
        return fallback + '/';
    }
    bool taken = false;
    uid_t owner = uid;
    std::string why;
    if (usableDir(dir, uid, &why, &taken, &owner)) {
        return dir + '/';
    }
    if (!taken || fallback.empty()) {
        setError(error, why);
        return std::string();
    }
    const std::string notice = dir + "/ is taken by uid " + std::to_string(owner) + " (" + userName(owner) +
                               "); using " + fallback + "/ instead";
    if (!CDir::mkpath(home + "/.cache", 0700) || !usableDir(cache, uid, error, nullptr, nullptr) ||
        !usableDir(fallback, uid, error, nullptr, nullptr)) {
        if (error != nullptr) {
            *error = dir + "/ is taken by uid " + std::to_string(owner) + " (" + userName(owner) + "), and " + *error;
        }
        return std::string();
    }
    setNotice(notice);
    return fallback + '/';
}

std::string runtimePath(const std::string& logicalName, std::string* error)
{
    std::string name = logicalName;
    while (!name.empty() && name.back() == '/') {
        name.pop_back();
    }
    name = std::filesystem::path(name).filename().string();
    if (name.empty() || name == "." || name == "..") {
        setError(error, "\"" + escapeControl(logicalName) + "\" names no runtime entry");
        return std::string();
    }
    const std::string dir = runtimeDir(error);
    return dir.empty() ? std::string() : dir + name;
}

bool writeFileAtomic(const std::string& path, const std::string& content, unsigned int mode)
{
    if (path.empty() || path.back() == '/') {
        return false;
    }
    static std::atomic<unsigned> counter{0};
    std::string tmp;
    Fd fd;
    for (int attempt = 0; attempt < 16 && fd.get() < 0; ++attempt) {
        tmp = path + ".tmp-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
        fd.reset(::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (fd.get() < 0 && errno != EEXIST) {
            return false;
        }
    }
    if (fd.get() < 0) {
        return false;
    }
    bool ok = ::fchmod(fd.get(), static_cast<mode_t>(mode & 07777)) == 0;
    ok = ok && kuv::safeWrite(fd.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size());
    ok = ok && ::fsync(fd.get()) == 0;
    // Closed by hand on purpose: close() can report a write error that fsync() did not (network file
    // systems), and then the old file must stay.
    const int raw = fd.release();
    ok = (::close(raw) == 0) && ok;
    if (ok && ::rename(tmp.c_str(), path.c_str()) == 0) {
        return true;
    }
    ::unlink(tmp.c_str());
    return false;
}

} // namespace kuv
