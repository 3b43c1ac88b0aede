// CFile, CFileInfo, CDir and CStr on plain POSIX calls.
#include "FileUtils.h"

#include <dirent.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <sstream>

CFile::CFile(const std::string& path) : m_strPath(path) {}

CFile::~CFile()
{
    if (m_stream.is_open()) {
        m_stream.close();
    }
}

bool CFile::exists() const
{
    struct stat st;
    return !m_strPath.empty() && ::lstat(m_strPath.c_str(), &st) == 0;
}

bool CFile::remove()
{
    if (m_stream.is_open()) {
        m_stream.close();
    }
    return !m_strPath.empty() && ::unlink(m_strPath.c_str()) == 0;
}

bool CFile::open(std::ios_base::openmode mode)
{
    if (m_stream.is_open()) {
        m_stream.close();
    }
    if ((mode & (std::ios::in | std::ios::out)) == 0 || m_strPath.empty()) {
        return false;
    }
    // An output-only open truncates, as the callers expect of "create".
    if ((mode & std::ios::out) && !(mode & std::ios::in) && !(mode & std::ios::app)) {
        mode |= std::ios::trunc;
    }
    m_stream.clear();
    m_stream.open(m_strPath, mode | std::ios::binary);
    return m_stream.is_open();
}

void CFile::close(std::ios_base::openmode /*mode*/)
{
    if (m_stream.is_open()) {
        m_stream.close();
    }
    m_stream.clear();
}

bool CFile::isOpen() const
{
    return m_stream.is_open();
}

bool CFile::ReadAll(std::string& content)
{
    content.clear();
    if (!m_stream.is_open()) {
        return false;
    }
    m_stream.clear();
    m_stream.seekg(0, std::ios::beg);
    std::ostringstream buffer;
    if (m_stream.peek() != std::char_traits<char>::eof()) {
        buffer << m_stream.rdbuf();
    }
    if (m_stream.bad()) {
        return false;
    }
    content = buffer.str();
    m_stream.clear();
    return true;
}

bool CFile::Write(const std::string& content)
{
    if (!m_stream.is_open()) {
        return false;
    }
    m_stream.write(content.data(), static_cast<std::streamsize>(content.size()));
    m_stream.flush();
    return m_stream.good();
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
    const auto slash = m_strPath.rfind('/');
    return slash == std::string::npos ? m_strPath : m_strPath.substr(slash + 1);
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
    const auto slash = exe.rfind('/');
    if (slash == std::string::npos) {
        return std::string();
    }
    return slash == 0 ? std::string("/") : exe.substr(0, slash);
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
        const std::string name(entry->d_name);
        if (name == "." || name == "..") {
            continue;
        }
        out.emplace_back(base + name);
    }
}

bool CDir::mkpath(const std::string& dir, unsigned int mode)
{
    if (dir.empty()) {
        return false;
    }
    std::string partial;
    size_t pos = 0;
    while (pos != std::string::npos) {
        const size_t next = dir.find('/', pos + 1);
        partial = dir.substr(0, next);
        pos = next;
        if (partial.empty() || partial == "/") {
            continue;
        }
        if (::mkdir(partial.c_str(), static_cast<mode_t>(mode)) != 0 && errno != EEXIST) {
            return false;
        }
    }
    struct stat st;
    return ::stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

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
