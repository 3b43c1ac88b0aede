// SPDX-License-Identifier: GPL-2.0-or-later
// CFile, CFileInfo, CDir and CStr on plain POSIX calls.
#include "FileUtils.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <sstream>

#include "SafeIo.h"

// A user's own files in a shared installation live in the user's state directory.
CFile::CFile(const std::string& path) : m_strPath(kuv::userStatePath(path)) {}

CFile::~CFile()
{
    closeFd();
}

void CFile::closeFd()
{
    m_fd.reset();
}

bool CFile::exists() const
{
    struct stat st;
    return !m_strPath.empty() && ::lstat(m_strPath.c_str(), &st) == 0;
}

bool CFile::remove()
{
    closeFd();
    return !m_strPath.empty() && ::unlink(m_strPath.c_str()) == 0;
}

bool CFile::open(std::ios_base::openmode mode)
{
    closeFd();
    if ((mode & (std::ios::in | std::ios::out)) == 0 || m_strPath.empty()) {
        return false;
    }
    int flags = 0;
    if ((mode & std::ios::in) && (mode & std::ios::out)) {
        flags |= O_RDWR | O_CREAT;
    } else if (mode & std::ios::out) {
        flags |= O_WRONLY | O_CREAT;
        // An output-only open truncates, as the callers expect of "create".
        flags |= (mode & std::ios::app) ? O_APPEND : O_TRUNC;
    } else {
        flags |= O_RDONLY;
    }
    if (mode & std::ios::app) {
        flags |= O_APPEND;
    }
    if (flags == O_RDONLY) {
        // Only a regular file is kept, and O_NONBLOCK means nothing to one: it stays set rather
        // than costing two more system calls on every read.
        flags |= O_NONBLOCK;
    }
    struct stat st;
    m_fd = kuv::openNoFollow(m_strPath, flags, 0600, &st);
    m_openSize = m_fd.valid() ? static_cast<unsigned long long>(st.st_size) : 0;
    return m_fd.valid();
}

void CFile::close(std::ios_base::openmode /*mode*/)
{
    closeFd();
}

bool CFile::isOpen() const
{
    return m_fd.valid();
}

bool CFile::ReadAll(std::string& content)
{
    content.clear();
    if (!m_fd.valid()) {
        return false;
    }
    if (m_openSize > kMaxReadAll) {
        errno = EFBIG;
        return false;
    }
    // One read of the size seen at open plus a byte: coming back short at exactly that size is the
    // end of the file. A file that changed since the open (or reports no size, as /proc does) is
    // read on until a read returns 0, never past the cap.
    const size_t expected = static_cast<size_t>(m_openSize);
    std::string buffer(expected + 1, '\0');
    size_t total = 0;
    for (;;) {
        if (total == buffer.size()) {
            buffer.resize(std::min<size_t>(std::max<size_t>(buffer.size() * 2, 16384), kMaxReadAll + 1));
        }
        char* at = &buffer[total];
        const size_t room = buffer.size() - total;
        const ssize_t n =
            kuv::retryEintr([&] { return ::pread(m_fd.get(), at, room, static_cast<off_t>(total)); });
        if (n < 0) {
            return false;
        }
        if (n == 0) {
            break;
        }
        total += static_cast<size_t>(n);
        if (total > kMaxReadAll) {
            errno = EFBIG;
            return false;
        }
        if (total == expected && static_cast<size_t>(n) < room) {
            break;
        }
    }
    buffer.resize(total);
    content.swap(buffer);
    return true;
}

bool CFile::Write(const std::string& content)
{
    return m_fd.valid() && kuv::safeWrite(m_fd.get(), content.data(), content.size()) ==
                               static_cast<ssize_t>(content.size());
}

CFileInfo::CFileInfo(const std::string& path) : m_strPath(path)
{
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) {
        return;
    }
    m_bSymLink = S_ISLNK(st.st_mode);
    if (m_bSymLink && ::stat(path.c_str(), &st) != 0) {
        return; // dangling link: neither file nor directory
    }
    m_bDir = S_ISDIR(st.st_mode);
    m_bFile = S_ISREG(st.st_mode);
}

std::string CFileInfo::fileName() const
{
    return std::filesystem::path(m_strPath).filename().string();
}

std::string CDir::currentDir()
{
    char buffer[PATH_MAX + 1];
    const ssize_t n = ::readlink("/proc/self/exe", buffer, PATH_MAX);
    if (n <= 0) {
        return std::string();
    }
    std::string exe(buffer, static_cast<size_t>(n));
    // A replaced executable still runs from its old directory.
    static const std::string deleted = " (deleted)";
    if (exe.size() > deleted.size() && exe.compare(exe.size() - deleted.size(), deleted.size(), deleted) == 0) {
        exe.erase(exe.size() - deleted.size());
    }
    return std::filesystem::path(exe).parent_path().string();
}

bool CDir::getAllFilesInDir(std::list<CFileInfo>& out, const char* dir)
{
    out.clear();
    if (dir == nullptr || dir[0] == '\0') {
        return false;
    }
    std::unique_ptr<DIR, int (*)(DIR*)> handle(::opendir(dir), &::closedir);
    if (!handle) {
        return false;
    }
    std::string base(dir);
    if (base.back() != '/') {
        base += '/';
    }
    for (;;) {
        errno = 0;
        const struct dirent* entry = ::readdir(handle.get());
        if (entry == nullptr) {
            return errno == 0;
        }
        const char* name = entry->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) {
            continue;
        }
        std::string path = base;
        path += name;
        // The listing's own type spares an lstat per entry; a link still needs its target's kind,
        // and a file system that gives no type is asked.
        switch (entry->d_type) {
        case DT_REG:
            out.push_back(CFileInfo(std::move(path), false, false, true));
            break;
        case DT_DIR:
            out.push_back(CFileInfo(std::move(path), false, true, false));
            break;
        case DT_FIFO:
        case DT_CHR:
        case DT_BLK:
        case DT_SOCK:
            out.push_back(CFileInfo(std::move(path), false, false, false));
            break;
        default:
            out.emplace_back(path);
            break;
        }
    }
}

bool CDir::mkpath(const std::string& dir, unsigned int mode)
{
    if (dir.empty()) {
        return false;
    }
    // Component by component, so that every directory made gets mode (create_directories would not).
    std::filesystem::path partial;
    for (const std::filesystem::path& part : std::filesystem::path(dir)) {
        partial /= part;
        if (part.empty() || part == partial.root_path()) {
            continue;
        }
        if (::mkdir(partial.c_str(), static_cast<mode_t>(mode)) != 0 && errno != EEXIST) {
            return false;
        }
    }
    struct stat st;
    return ::stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

namespace kuv {

UniqueFd openNoFollow(const std::string& path, int flags, unsigned int mode, struct stat* info)
{
    // O_NONBLOCK only for the open itself: a FIFO or device must not block it.
    UniqueFd fd(::open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, static_cast<mode_t>(mode)));
    if (!fd.valid()) {
        return fd;
    }
    struct stat st;
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        fd.reset();
        errno = EINVAL;
        return fd;
    }
    if ((flags & O_NONBLOCK) == 0) {
        ::fcntl(fd.get(), F_SETFL, ::fcntl(fd.get(), F_GETFL) & ~O_NONBLOCK);
    }
    if (info != nullptr) {
        *info = st;
    }
    return fd;
}

} // namespace kuv

void CStr::toLower(std::string& text)
{
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
}

void CStr::toUpper(std::string& text)
{
    for (char& c : text) {
        if (c >= 'a' && c <= 'z') {
            c = static_cast<char>(c - 'a' + 'A');
        }
    }
}

std::string CStr::trim(const std::string& text)
{
    static const char* blanks = " \t\r\n\v\f";
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string::npos) {
        return std::string();
    }
    const auto last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}
