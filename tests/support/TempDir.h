// SPDX-License-Identifier: GPL-2.0-or-later
// The one temporary-directory helper for every test: a fresh directory under $TMPDIR (or /tmp),
// removed with everything in it when the owner goes out of scope.
#pragma once

#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace kuv::test {

class TempDir {
public:
    // prefix names the directory (prefix-XXXXXX) so a leftover one tells which test made it.
    explicit TempDir(const std::string& prefix = "kuvtest") : TempDir(prefix, defaultRoot()) {}
    // Under root instead (another file system, e.g. /dev/shm); throws std::runtime_error when it cannot.
    TempDir(const std::string& prefix, const std::string& root)
    {
        std::string pattern = root + "/" + prefix + "-XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        if (::mkdtemp(buffer.data()) == nullptr) {
            throw std::runtime_error("mkdtemp " + pattern + ": " + std::strerror(errno));
        }
        m_path = buffer.data();
    }

    ~TempDir() { remove(); }

    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    TempDir(TempDir&& other) noexcept : m_path(std::exchange(other.m_path, std::string())) {}
    TempDir& operator=(TempDir&& other) noexcept
    {
        if (this != &other) {
            remove();
            m_path = std::exchange(other.m_path, std::string());
        }
        return *this;
    }

    const std::string& path() const { return m_path; }
    std::filesystem::path fsPath() const { return std::filesystem::path(m_path); }

    // dir / "name": the path of an entry inside the directory, as a string.
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

    // Removes the directory now (the destructor then does nothing).
    void remove() noexcept
    {
        if (m_path.empty()) {
            return;
        }
        // Kept for a look after a failure.
        if (std::getenv("KUV_KEEP_TEMP") != nullptr) {
            m_path.clear();
            return;
        }
        std::error_code ec;
        makeWritable(std::filesystem::path(m_path));
        std::filesystem::remove_all(m_path, ec);
        m_path.clear();
    }

private:
    static std::string defaultRoot()
    {
        const char* base = std::getenv("TMPDIR");
        return base != nullptr && base[0] != '\0' ? base : "/tmp";
    }

    // Tests sometimes drop write or search permission on a subdirectory; give it back so that
    // remove_all can enter it. Symbolic links are not followed.
    static void makeWritable(const std::filesystem::path& dir) noexcept
    {
        std::error_code ec;
        std::filesystem::permissions(dir, std::filesystem::perms::owner_all, std::filesystem::perm_options::add, ec);
        for (auto it = std::filesystem::directory_iterator(dir, ec); !ec && it != std::filesystem::directory_iterator();
             it.increment(ec)) {
            std::error_code typeError;
            if (it->is_directory(typeError) && !it->is_symlink(typeError)) {
                makeWritable(it->path());
            }
        }
    }

    std::string m_path;
};

} // namespace kuv::test
