// SPDX-License-Identifier: GPL-2.0-or-later
// Where a user's own files go: the installation when the user owns it, else the user's state directory.
#include "FileUtils.h"

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

// "a//b/./c/../d" as "a/b/d", without asking the file system; a final "/" is kept.
std::string lexicalPath(const std::string& path)
{
    if (path.empty() || path[0] != '/') {
        return path;
    }
    std::vector<std::string> parts;
    size_t pos = 0;
    while (pos <= path.size()) {
        size_t next = path.find('/', pos);
        if (next == std::string::npos) {
            next = path.size();
        }
        const std::string part = path.substr(pos, next - pos);
        if (part == "..") {
            if (!parts.empty()) {
                parts.pop_back();
            }
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        pos = next + 1;
    }
    std::string out;
    for (const auto& part : parts) {
        out += '/';
        out += part;
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

} // namespace

namespace kuv {

std::string installDir()
{
    const char* env = std::getenv("KUV_INSTALL_DIR");
    if (env != nullptr && env[0] != '\0') {
        return withSlash(env);
    }
    // DIR/bin/program: the installation is the parent of the executable's directory.
    const std::filesystem::path bin = std::filesystem::path(CDir::currentDir());
    const std::filesystem::path parent = (bin.has_filename() ? bin : bin.parent_path()).parent_path();
    return parent.empty() ? std::string() : withSlash(parent.string());
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

std::string userStatePath(const std::string& path)
{
    const std::string install = installDir();
    if (install.empty() || path.empty() || path[0] != '/') {
        return path;
    }
    const std::string root = withSlash(lexicalPath(install));
    const std::string wanted = lexicalPath(path);
    for (const char* area : kUserAreas) {
        const std::string prefix = root + area;
        if (wanted.compare(0, prefix.size(), prefix) != 0 ||
            (wanted.size() > prefix.size() && wanted[prefix.size()] != '/')) {
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

} // namespace kuv
