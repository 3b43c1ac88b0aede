#include "ZellLogFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>

#include "FileUtils.h"

namespace zell {

namespace {

std::string dirName(const std::string& path)
{
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string baseName(const std::string& path)
{
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

} // namespace

bool makePath(const std::string& dir)
{
    if (dir.empty()) {
        return false;
    }
    struct stat st;
    if (::stat(dir.c_str(), &st) == 0) {
        return S_ISDIR(st.st_mode);
    }
    const std::string parent = dirName(dir);
    if (parent != dir && parent != "." && parent != "/") {
        if (!makePath(parent)) {
            return false;
        }
    }
    // "x/.." components are left as they are: mkdir resolves them against what exists.
    if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
        return false;
    }
    return ::stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

LogFile::~LogFile() { close(); }

bool LogFile::open(const std::string& path, const std::string& backupDir, uint64_t maxSize, int backups,
                   std::string* error)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fd >= 0 && !m_stderr) {
        ::close(m_fd);
    }
    m_fd = -1;
    m_stderr = false;
    m_path = kuv::userStatePath(path);
    m_backupDir = backupDir.empty() ? dirName(m_path) : kuv::userStatePath(backupDir);
    while (m_backupDir.size() > 1 && m_backupDir.back() == '/') {
        m_backupDir.pop_back();
    }
    m_stem = baseName(m_path);
    if (m_stem.size() > 4 && m_stem.compare(m_stem.size() - 4, 4, ".log") == 0) {
        m_stem.resize(m_stem.size() - 4);
    }
    m_maxSize = maxSize;
    m_backups = backups < 0 ? 0 : backups;
    if (m_path.empty() || m_stem.empty()) {
        if (error != nullptr) {
            *error = "no log file name";
        }
        return false;
    }
    if (!makePath(dirName(m_path))) {
        if (error != nullptr) {
            *error = "cannot create " + dirName(m_path) + ": " + strerror(errno);
        }
        return false;
    }
    if (!openLocked()) {
        if (error != nullptr) {
            *error = "cannot open " + m_path + ": " + strerror(errno);
        }
        return false;
    }
    return true;
}

// Never through a planted link, never anything but a regular file, private to the user.
bool LogFile::openLocked()
{
    const int fd = ::open(m_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
    if (fd < 0) {
        return false;
    }
    struct stat st;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        errno = EINVAL;
        return false;
    }
    m_fd = fd;
    m_size = static_cast<uint64_t>(st.st_size);
    return true;
}

void LogFile::openStderr()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fd >= 0 && !m_stderr) {
        ::close(m_fd);
    }
    m_fd = STDERR_FILENO;
    m_stderr = true;
    m_maxSize = 0;
}

bool LogFile::isOpen() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_fd >= 0;
}

void LogFile::close()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fd >= 0 && !m_stderr) {
        ::close(m_fd);
    }
    m_fd = -1;
    m_stderr = false;
}

std::string LogFile::format(const char* levelName, const char* source, const char* function, int line,
                            const std::string& message)
{
    const auto now = std::chrono::system_clock::now();
    const time_t seconds = std::chrono::system_clock::to_time_t(now);
    const long millis = static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000);
    struct tm local;
    localtime_r(&seconds, &local);
    char stamp[64];
    snprintf(stamp, sizeof(stamp), "%04d-%02d-%02d %02d:%02d:%02d.%03ld", local.tm_year + 1900, local.tm_mon + 1,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, millis);
    char head[256];
    snprintf(head, sizeof(head), "[%s] [%d:%ld] [%s] [%s:%s:%d] ", stamp, static_cast<int>(getpid()),
             static_cast<long>(syscall(SYS_gettid)), levelName, source, function, line);
    return head + kuv::logMessage(message);
}

void LogFile::write(const char* levelName, const char* source, const char* function, int line,
                    const std::string& message)
{
    std::string record = format(levelName, source, function, line, message);
    record += '\n';
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fd < 0) {
        return;
    }
    if (!m_stderr && m_maxSize > 0 && m_size > 0 && m_size + record.size() > m_maxSize) {
        rotateLocked();
        if (m_fd < 0) {
            return;
        }
    }
    if (kuv::appendRecord(m_fd, record) >= 0) {
        m_size += record.size();
    }
}

void LogFile::rotateLocked()
{
    ::close(m_fd);
    m_fd = -1;
    makePath(m_backupDir);
    auto backup = [&](int index) { return m_backupDir + "/" + m_stem + "." + std::to_string(index) + ".log"; };
    if (m_backups > 0) {
        ::unlink(backup(m_backups).c_str());
        for (int i = m_backups - 1; i >= 1; --i) {
            ::rename(backup(i).c_str(), backup(i + 1).c_str());
        }
        if (::rename(m_path.c_str(), backup(1).c_str()) != 0) {
            // A backup directory on another file system: start the file afresh rather than grow it.
            ::unlink(m_path.c_str());
        }
    } else {
        ::unlink(m_path.c_str());
    }
    m_size = 0;
    openLocked();
}

} // namespace zell
