// SPDX-License-Identifier: GPL-2.0-or-later
#include "StorePaths.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <vector>

#include "SafeIo.h"

namespace kuv {
namespace store {

namespace {

std::string xdgBase(const char* var, const char* fallback)
{
    const char* v = std::getenv(var);
    // Relative values are ignored, as the XDG rules ask.
    if (v != nullptr && v[0] == '/') {
        return v;
    }
    const char* home = std::getenv("HOME");
    std::string base = (home != nullptr && home[0] == '/') ? home : "/";
    if (base.size() > 1 && base.back() == '/') {
        base.pop_back();
    }
    return base + fallback;
}

std::vector<std::string> components(const std::string& path)
{
    std::vector<std::string> out;
    for (const std::filesystem::path& part : std::filesystem::path(path).relative_path()) {
        if (!part.empty()) {
            out.push_back(part.string());
        }
    }
    return out;
}

} // namespace

std::string userDataDir()
{
    std::string base = xdgBase("XDG_DATA_HOME", "/.local/share");
    while (base.size() > 1 && base.back() == '/') {
        base.pop_back();
    }
    return base + "/kuv";
}

std::string userConfigDir()
{
    std::string base = xdgBase("XDG_CONFIG_HOME", "/.config");
    while (base.size() > 1 && base.back() == '/') {
        base.pop_back();
    }
    return base + "/kuv";
}

kuv::UniqueFd openPrivateDir(const std::string& dir, int ownCount, std::string* error)
{
    auto fail = [&](const std::string& what) {
        if (error != nullptr) {
            *error = what;
        }
        return kuv::UniqueFd();
    };
    if (dir.empty() || dir[0] != '/') {
        return fail("not an absolute path: " + dir);
    }
    const std::vector<std::string> parts = components(dir);
    kuv::UniqueFd cur(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!cur.valid()) {
        return fail(std::string("cannot open /: ") + std::strerror(errno));
    }
    const int ownFrom = static_cast<int>(parts.size()) - ownCount;
    std::string walked;
    for (int i = 0; i < static_cast<int>(parts.size()); ++i) {
        const std::string& name = parts[i];
        walked += "/" + name;
        const bool own = i >= ownFrom;
        if (name == "." || name == "..") {
            return fail("refusing a path with . or ..: " + dir);
        }
        if (::mkdirat(cur.get(), name.c_str(), own ? 0700 : 0755) != 0 && errno != EEXIST) {
            return fail("cannot create " + walked + ": " + std::strerror(errno));
        }
        int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
        if (own) {
            flags |= O_NOFOLLOW;
        }
        kuv::UniqueFd next(::openat(cur.get(), name.c_str(), flags));
        if (!next.valid()) {
            if (errno == ELOOP || errno == ENOTDIR) {
                return fail(walked + " is not a directory of its own (a link or a file stands there)");
            }
            return fail("cannot open " + walked + ": " + std::strerror(errno));
        }
        if (own) {
            struct stat st {};
            if (::fstat(next.get(), &st) != 0) {
                return fail("cannot stat " + walked + ": " + std::strerror(errno));
            }
            if (st.st_uid != ::geteuid()) {
                return fail(walked + " belongs to another user; refusing to use it");
            }
            if ((st.st_mode & 077) != 0 && ::fchmod(next.get(), st.st_mode & 0700) != 0) {
                return fail("cannot make " + walked + " private: " + std::strerror(errno));
            }
        }
        cur = std::move(next);
    }
    return cur;
}

bool syncDir(int dirFd)
{
    // Some file systems (tmpfs on old kernels, fuse) answer EINVAL: nothing to flush there.
    return ::fsync(dirFd) == 0 || errno == EINVAL || errno == EROFS;
}

bool splitPath(const std::string& path, std::string& parent, std::string& name)
{
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') {
        p.pop_back();
    }
    const std::filesystem::path split(p);
    if (!split.has_parent_path()) {
        return false;
    }
    name = split.filename().string();
    parent = split.parent_path().string();
    return !name.empty() && name != "." && name != "..";
}

bool readUpTo(int fd, size_t cap, std::string& out)
{
    std::string data;
    char buf[8192];
    for (;;) {
        const ssize_t n = kuv::safeRead(fd, buf, sizeof buf);
        if (n <= 0) {
            break;
        }
        data.append(buf, size_t(n));
        if (data.size() > cap) {
            return false;
        }
    }
    out = std::move(data);
    return true;
}

std::string randomId()
{
    unsigned char bytes[16];
    // Up to 256 bytes come whole once the kernel's pool is ready.
    const ssize_t got = kuv::retryEintr([&] { return ::getrandom(bytes, sizeof bytes, 0); });
    if (got != static_cast<ssize_t>(sizeof bytes)) {
        // No kernel randomness: ids stay unique through the clock and pid, which is all they need.
        std::random_device rd;
        for (unsigned char& b : bytes) {
            b = static_cast<unsigned char>(rd());
        }
    }
    return hexEncode(std::string(reinterpret_cast<const char*>(bytes), sizeof bytes));
}

std::string hexEncode(const std::string& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (unsigned char c : bytes) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

bool hexDecode(const std::string& text, std::string& out)
{
    if (text.size() % 2 != 0) {
        return false;
    }
    auto val = [](char c) -> int {
        if (c >= '0' && c <= '9') {
            return c - '0';
        }
        if (c >= 'a' && c <= 'f') {
            return c - 'a' + 10;
        }
        if (c >= 'A' && c <= 'F') {
            return c - 'A' + 10;
        }
        return -1;
    };
    std::string r;
    r.reserve(text.size() / 2);
    for (size_t i = 0; i < text.size(); i += 2) {
        const int hi = val(text[i]);
        const int lo = val(text[i + 1]);
        if (hi < 0 || lo < 0) {
            return false;
        }
        r += static_cast<char>((hi << 4) | lo);
    }
    out = std::move(r);
    return true;
}

} // namespace store
} // namespace kuv
