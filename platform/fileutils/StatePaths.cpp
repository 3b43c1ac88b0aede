// SPDX-License-Identifier: GPL-2.0-or-later
// Where a user's own files go: the installation when the user owns it, else the user's state directory.
#include "FileUtils.h"
#include "ThreadObject.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

namespace {

std::string withSlash(std::string dir)
{
    if (!dir.empty() && dir.back() != '/') {
        dir += '/';
    }
    return dir;
}

// Whether an absolute path has an empty, "." or ".." component, the only things lexicalPath changes.
bool needsLexical(const std::string& path)
{
    const size_t n = path.size();
    for (size_t i = 0; i < n; ++i) {
        if (path[i] != '/' || i + 1 == n) {
            continue;
        }
        const char next = path[i + 1];
        if (next == '/') {
            return true;
        }
        if (next == '.') {
            const char after = i + 2 < n ? path[i + 2] : '/';
            if (after == '/' || (after == '.' && (i + 3 >= n || path[i + 3] == '/'))) {
                return true;
            }
        }
    }
    return false;
}

// "a//b/./c/../d" as "a/b/d", without asking the file system; a final "/" is kept.
std::string lexicalPath(const std::string& path)
{
    if (path.empty() || path[0] != '/' || !needsLexical(path)) {
        return path;
    }
    std::string out;
    out.reserve(path.size());
    const size_t n = path.size();
    size_t pos = 0;
    while (pos < n) {
        while (pos < n && path[pos] == '/') {
            ++pos;
        }
        size_t next = path.find('/', pos);
        if (next == std::string::npos) {
            next = n;
        }
        const size_t length = next - pos;
        if (length == 2 && path[pos] == '.' && path[pos + 1] == '.') {
            const size_t cut = out.rfind('/');
            if (cut != std::string::npos) {
                out.erase(cut);
            }
        } else if (length != 0 && !(length == 1 && path[pos] == '.')) {
            out += '/';
            out.append(path, pos, length);
        }
        pos = next;
    }
    if (out.empty()) {
        return "/";
    }
    if (path.back() == '/') {
        out += '/';
    }
    return out;
}

std::string homeDir()
{
    const char* home = std::getenv("HOME");
    if (home != nullptr && home[0] == '/') {
        return home;
    }
    struct passwd pw;
    struct passwd* found = nullptr;
    std::vector<char> buffer(16384);
    if (::getpwuid_r(::geteuid(), &pw, buffer.data(), buffer.size(), &found) == 0 && found != nullptr &&
        found->pw_dir != nullptr && found->pw_dir[0] == '/') {
        return found->pw_dir;
    }
    return std::string();
}

// The areas of an installation that hold a user's own files.
const char* const kUserAreas[] = {"log", "data/pubcfg"};

// Whether name is one of the path's components.
bool hasComponent(const std::string& path, const char* name)
{
    const size_t length = std::strlen(name);
    for (size_t at = path.find(name); at != std::string::npos; at = path.find(name, at + 1)) {
        const bool starts = at == 0 || path[at - 1] == '/';
        const bool ends = at + length == path.size() || path[at + length] == '/';
        if (starts && ends) {
            return true;
        }
    }
    return false;
}

// Normalising only drops components, so a path that lacks the last component of every area is in
// none of them, however it is spelt: most paths are told apart without building anything.
bool mayBeInUserArea(const std::string& path)
{
    for (const char* area : kUserAreas) {
        const char* slash = std::strrchr(area, '/');
        if (hasComponent(path, slash != nullptr ? slash + 1 : area)) {
            return true;
        }
    }
    return false;
}

// The installation directory, in scratch when it comes from the environment.
const std::string& installDirOf(std::string& scratch)
{
    // Read at every call: tests and tools point it elsewhere while the process runs.
    const char* env = std::getenv("KUV_INSTALL_DIR");
    if (env != nullptr && env[0] != '\0') {
        scratch.assign(env);
        if (scratch.back() != '/') {
            scratch += '/';
        }
        return scratch;
    }
    // The executable does not move while it runs, so /proc/self/exe is resolved once.
    static const std::string fromExecutable = [] {
        // DIR/bin/program: the installation is the parent of the executable's directory.
        const std::filesystem::path bin = std::filesystem::path(CDir::currentDir());
        const std::filesystem::path parent = (bin.has_filename() ? bin : bin.parent_path()).parent_path();
        return parent.empty() ? std::string() : withSlash(parent.string());
    }();
    return fromExecutable;
}

} // namespace

namespace kuv {

std::string installDir()
{
    std::string scratch;
    return installDirOf(scratch);
}

bool ownInstallation(const std::string& dir)
{
    struct stat st;
    return !dir.empty() && ::stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == ::geteuid() &&
           ::access(dir.c_str(), W_OK) == 0;
}

std::string userStateDir(std::string* error)
{
    std::string base;
    const char* xdg = std::getenv("XDG_STATE_HOME");
    if (xdg != nullptr && xdg[0] == '/') {
        base = xdg;
    } else {
        const std::string home = homeDir();
        if (home.empty()) {
            if (error != nullptr) {
                *error = "no home directory for the state directory";
            }
            return std::string();
        }
        base = home + "/.local/state";
    }
    while (base.size() > 1 && base.back() == '/') {
        base.pop_back();
    }
    if (!CDir::mkpath(base, 0700)) {
        if (error != nullptr) {
            *error = "cannot create " + base + ": " + std::strerror(errno);
        }
        return std::string();
    }
    const std::string dir = base + "/kuv";
    if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
        if (error != nullptr) {
            *error = "cannot create " + dir + ": " + std::strerror(errno);
        }
        return std::string();
    }
    struct stat st;
    if (::lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != ::geteuid()) {
        if (error != nullptr) {
            *error = dir + " is not a directory of this user; refused";
        }
        return std::string();
    }
    if ((st.st_mode & 07777) != 0700 && ::chmod(dir.c_str(), 0700) != 0) {
        if (error != nullptr) {
            *error = "cannot make " + dir + " private: " + std::strerror(errno);
        }
        return std::string();
    }
    return dir + '/';
}

namespace {

// Every CFile asks, mostly with the same installation: its normal form is kept per thread.
struct InstallCache {
    std::string scratch;
    std::string lastInstall;
    std::string root;
};

std::string userStatePathWith(const std::string& path, InstallCache& cache)
{
    const std::string& install = installDirOf(cache.scratch);
    if (install.empty()) {
        return path;
    }
    if (install != cache.lastInstall) {
        cache.root = withSlash(lexicalPath(install));
        cache.lastInstall = install;
    }
    const std::string& root = cache.root;
    std::string normal;
    if (needsLexical(path)) {
        normal = lexicalPath(path);
    }
    const std::string& wanted = normal.empty() ? path : normal;
    if (wanted.size() < root.size() || wanted.compare(0, root.size(), root) != 0) {
        return path;
    }
    for (const char* area : kUserAreas) {
        const size_t areaSize = std::strlen(area);
        const size_t prefixSize = root.size() + areaSize;
        if (wanted.compare(root.size(), areaSize, area) != 0 || wanted.size() < prefixSize ||
            (wanted.size() > prefixSize && wanted[prefixSize] != '/')) {
            continue;
        }
        if (ownInstallation(install)) {
            return path;
        }
        const std::string state = userStateDir();
        if (state.empty()) {
            return path;
        }
        return state + wanted.substr(root.size());
    }
    return path;
}

} // namespace

std::string userStatePath(const std::string& path)
{
    if (path.empty() || path[0] != '/' || !mayBeInUserArea(path)) {
        return path;
    }
    return kuv::withThreadObject<InstallCache>(
        [&](InstallCache& cache) { return userStatePathWith(path, cache); });
}

} // namespace kuv
