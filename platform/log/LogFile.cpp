// SPDX-License-Identifier: GPL-2.0-or-later
// The record formatter and the rotating log file shared by every log of the platform, on spdlog: each
// LogFile owns an spdlog::logger (never registered, synchronous, never flushed on a timer) with one
// LogSink, whose RecordFormatter writes the record layout of the platform's logs.
#include "KuvLogFile.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <vector>

#include "FileUtils.h"
#include "SafeIo.h"
#include "UniqueFd.h"

namespace kuv {

namespace {

// Whether the log rule leaves text as it stands: well-formed UTF-8 without C0 controls, DEL, backslash,
// C1 controls, U+2028 or U+2029. Most records are, and skip the escaper.
bool plainLogText(std::string_view text)
{
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const auto* end = p + text.size();
    auto cont = [&](const unsigned char* q) { return q < end && (*q & 0xc0) == 0x80; };
    while (p < end) {
        const unsigned char b = *p;
        if (b < 0x80) {
            if (b < 0x20 || b == 0x7f || b == '\\') {
                return false;
            }
            ++p;
        } else if (b >= 0xc2 && b <= 0xdf) {
            // 0xc2 0x80..0x9f are the C1 controls.
            if (!cont(p + 1) || (b == 0xc2 && p[1] < 0xa0)) {
                return false;
            }
            p += 2;
        } else if (b >= 0xe0 && b <= 0xef) {
            if (!cont(p + 1) || !cont(p + 2) || (b == 0xe0 && p[1] < 0xa0) || (b == 0xed && p[1] > 0x9f) ||
                (b == 0xe2 && p[1] == 0x80 && (p[2] == 0xa8 || p[2] == 0xa9))) {
                return false;
            }
            p += 3;
        } else if (b >= 0xf0 && b <= 0xf4) {
            if (!cont(p + 1) || !cont(p + 2) || !cont(p + 3) || (b == 0xf0 && p[1] < 0x90) ||
                (b == 0xf4 && p[1] > 0x8f)) {
                return false;
            }
            p += 4;
        } else {
            return false;
        }
    }
    return true;
}

// std::string and spdlog's memory buffer alike.
template <typename Buffer>
void put(Buffer& out, std::string_view text)
{
    out.append(text.data(), text.data() + text.size());
}

template <typename Buffer>
void appendEscaped(Buffer& out, const char* text)
{
    if (text == nullptr) {
        return;
    }
    const std::string_view view(text);
    if (plainLogText(view)) {
        put(out, view);
    } else {
        put(out, escapeControl(std::string(view)));
    }
}

// The message as a record carries it (kuv::logMessage); plain text as it stands, without a copy. The
// rule needs what the caller cut, which spdlog's message does not carry, so it is applied before the
// message is handed to the logger.
std::string_view ruledMessage(std::string_view message, size_t alreadyCut, std::string& scratch)
{
    std::string_view body = message;
    if (alreadyCut == 0 && !body.empty() && body.back() == '\n') {
        body.remove_suffix(1);
    }
    if (alreadyCut == 0 && body.size() <= kMaxLogMessage && plainLogText(body)) {
        return body;
    }
    scratch = logMessage(std::string(message), kMaxLogMessage, alreadyCut);
    return scratch;
}

template <typename Buffer, typename Int>
void appendNumber(Buffer& out, Int value)
{
    char digits[24];
    const auto result = std::to_chars(digits, digits + sizeof digits, value);
    out.append(digits, result.ptr);
}

// "YYYY-MM-DD HH:MM:SS.mmm" in local time. The calendar part changes once a second, so each thread keeps
// it and writes only the milliseconds afresh.
template <typename Buffer>
void appendTimestamp(Buffer& out, std::chrono::system_clock::time_point time)
{
    struct Cache {
        std::time_t secs = -1;
        char text[32] = {0};
        size_t size = 0;
    };
    thread_local Cache cache;
    const auto sinceEpoch = time.time_since_epoch();
    const auto secs = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
    const std::time_t now = static_cast<std::time_t>(secs.count());
    if (now != cache.secs) {
        struct tm local {};
        localtime_r(&now, &local);
        const int n = std::snprintf(cache.text, sizeof cache.text, "%04d-%02d-%02d %02d:%02d:%02d.",
                                    local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                                    local.tm_min, local.tm_sec);
        cache.size = n > 0 ? std::min(static_cast<size_t>(n), sizeof cache.text - 1) : 0;
        cache.secs = now;
    }
    out.append(cache.text, cache.text + cache.size);
    const long ms = static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch - secs).count());
    out.push_back(static_cast<char>('0' + ms / 100));
    out.push_back(static_cast<char>('0' + ms / 10 % 10));
    out.push_back(static_cast<char>('0' + ms % 10));
}

// The process id, asked once and again only in a forked child.
std::atomic<pid_t> g_pid{::getpid()};
const bool g_pidAtFork = [] {
    pthread_atfork(nullptr, nullptr, [] { g_pid.store(::getpid(), std::memory_order_relaxed); });
    return true;
}();

// "<pid>:<tid>" of the calling thread, made once per thread (and again in a forked child, where spdlog's
// own cached thread id would still be the parent's).
template <typename Buffer>
void appendIds(Buffer& out)
{
    struct Ids {
        pid_t pid = -1;
        char text[32] = {0};
        size_t size = 0;
    };
    thread_local Ids ids;
    const pid_t pid = g_pid.load(std::memory_order_relaxed);
    if (ids.pid != pid) {
        const int n = std::snprintf(ids.text, sizeof ids.text, "%d:%d", static_cast<int>(pid),
                                    static_cast<int>(::gettid()));
        ids.size = n > 0 ? std::min(static_cast<size_t>(n), sizeof ids.text - 1) : 0;
        ids.pid = pid;
    }
    out.append(ids.text, ids.text + ids.size);
}

// One record from a message already under the log rule.
template <typename Buffer>
void appendRecord(Buffer& out, std::chrono::system_clock::time_point time, LogLevel level, const char* source,
                  const char* function, unsigned int line, std::string_view message)
{
    (void)g_pidAtFork;
    out.push_back('[');
    appendTimestamp(out, time);
    put(out, "] [");
    appendIds(out);
    put(out, "] [");
    put(out, logLevelName(level));
    put(out, "] [");
    appendEscaped(out, source);
    out.push_back(':');
    appendEscaped(out, function);
    out.push_back(':');
    appendNumber(out, line);
    put(out, "] ");
    put(out, message);
    out.push_back('\n');
}

// kuv::LogLevel and spdlog's levels count alike from trace to error; past either end is the nearest.
spdlog::level::level_enum toSpdlog(LogLevel level)
{
    return static_cast<spdlog::level::level_enum>(std::clamp<int>(static_cast<int>(level), LOG_LEVEL_TRACE, LOG_LEVEL_ERROR));
}

LogLevel fromSpdlog(spdlog::level::level_enum level)
{
    return static_cast<LogLevel>(std::clamp<int>(static_cast<int>(level), LOG_LEVEL_TRACE, LOG_LEVEL_ERROR));
}

// The record layout of the platform's logs. The payload is the message under the log rule.
class RecordFormatter final : public spdlog::formatter {
public:
    void format(const spdlog::details::log_msg& msg, spdlog::memory_buf_t& dest) override
    {
        appendRecord(dest, msg.time, fromSpdlog(msg.level), msg.source.filename, msg.source.funcname,
                     static_cast<unsigned int>(msg.source.line), std::string_view(msg.payload.data(), msg.payload.size()));
    }
    std::unique_ptr<spdlog::formatter> clone() const override { return std::make_unique<RecordFormatter>(); }
};

// What the sink made of the calling thread's last record: spdlog's logger returns nothing, and the
// sink runs on the caller's thread.
struct SinkResult {
    long written = -1;
    int error = 0;
};
thread_local SinkResult t_result;

// Writes the whole record or leaves the file as it was: a fragment would join the next record.
long appendWhole(int fd, std::string_view record, bool cutBack)
{
    const ssize_t n = safeWrite(fd, record.data(), record.size());
    if (n == static_cast<ssize_t>(record.size())) {
        return n;
    }
    const int failure = n < 0 ? errno : (errno != 0 ? errno : ENOSPC);
    if (n > 0 && cutBack) {
        // With O_APPEND the offset now ends the fragment.
        const off_t end = ::lseek(fd, 0, SEEK_CUR);
        if (end < n || ::ftruncate(fd, end - n) != 0) {
            const char lf = '\n';
            (void)!::write(fd, &lf, 1);
        }
    }
    errno = failure;
    return -1;
}

std::string directoryOf(const std::string& path)
{
    const std::filesystem::path dir = std::filesystem::path(path).parent_path();
    return dir.empty() ? std::string(".") : dir.string() + "/";
}

} // namespace

// The file under the logger: one write(2) per record and nothing held back, size rotation into
// numbered backups, private files never opened through a link; or stderr.
class LogSink final : public spdlog::sinks::base_sink<std::mutex> {
public:
    LogSink() : base_sink(std::make_unique<RecordFormatter>()) {}

    bool open(const std::string& path, const std::string& backupDir, uint64_t maxSize, size_t backups,
              std::string* error);
    void openStderr();
    bool isOpen();
    void close();
    long writeRecord(std::string_view record);

protected:
    void sink_it_(const spdlog::details::log_msg& msg) override
    {
        m_record.clear();
        formatter_->format(msg, m_record);
        t_result.written = appendLocked(std::string_view(m_record.data(), m_record.size()));
        t_result.error = errno;
    }
    // Nothing is held back.
    void flush_() override {}

private:
    bool openLocked(std::string* error);
    void rotateLocked();
    long appendLocked(std::string_view record);
    std::string backupName(size_t index) const;

    spdlog::memory_buf_t m_record; // reused: no allocation per record
    UniqueFd m_fd;
    bool m_stderr = false;
    std::string m_path;
    std::string m_backupStem; // backup directory and stem: "<dir>/<stem>."
    uint64_t m_maxSize = 0;
    uint64_t m_size = 0;
    size_t m_backups = 0;
};

void formatLogRecord(std::string& out, LogLevel level, const char* source, const char* function, unsigned int line,
                     std::string_view message, size_t alreadyCut)
{
    std::string scratch;
    appendRecord(out, std::chrono::system_clock::now(), level, source, function, line,
                 ruledMessage(message, alreadyCut, scratch));
}

bool LogSink::open(const std::string& path, const std::string& backupDir, uint64_t maxSize, size_t backups,
                   std::string* error)
{
    std::lock_guard<std::mutex> lock(mutex_);
    m_fd.reset();
    m_stderr = false;
    m_path = userStatePath(path);
    const std::filesystem::path file(m_path);
    const std::string stem = file.extension() == ".log" ? file.stem().string() : file.filename().string();
    std::string dir = backupDir.empty() ? directoryOf(m_path) : userStatePath(backupDir);
    if (!dir.empty() && dir.back() != '/') {
        dir += '/';
    }
    m_backupStem = dir + stem + '.';
    m_maxSize = maxSize;
    m_backups = backups;
    if (stem.empty()) {
        if (error != nullptr) {
            *error = "no log file name in " + escapeControl(m_path);
        }
        return false;
    }
    return openLocked(error);
}

// Never through a planted link, never anything but a regular file, private to the user.
bool LogSink::openLocked(std::string* error)
{
    const std::string dir = directoryOf(m_path);
    if (!CDir::mkpath(dir, 0700)) {
        if (error != nullptr) {
            *error = "cannot open " + escapeControl(m_path) + ": cannot create its directory: " + std::strerror(errno);
        }
        return false;
    }
    UniqueFd fd(::open(m_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600));
    struct stat st {};
    if (!fd.valid() || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        const int why = fd.valid() ? EINVAL : errno;
        if (error != nullptr) {
            *error = "cannot open " + escapeControl(m_path) + ": " +
                     (why == EINVAL ? std::string("not a regular file") : std::string(std::strerror(why)));
        }
        errno = why;
        return false;
    }
    m_fd = std::move(fd);
    m_size = static_cast<uint64_t>(st.st_size);
    return true;
}

void LogSink::openStderr()
{
    std::lock_guard<std::mutex> lock(mutex_);
    m_fd.reset();
    m_stderr = true;
    m_maxSize = 0;
}

bool LogSink::isOpen()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return m_stderr || m_fd.valid();
}

void LogSink::close()
{
    std::lock_guard<std::mutex> lock(mutex_);
    m_fd.reset();
    m_stderr = false;
}

std::string LogSink::backupName(size_t index) const
{
    return m_backupStem + std::to_string(index) + ".log";
}

void LogSink::rotateLocked()
{
    if (m_backups > 0) {
        CDir::mkpath(directoryOf(m_backupStem), 0700);
        ::unlink(backupName(m_backups).c_str());
        for (size_t i = m_backups; i > 1; --i) {
            ::rename(backupName(i - 1).c_str(), backupName(i).c_str());
        }
        if (::rename(m_path.c_str(), backupName(1).c_str()) == 0) {
            m_fd.reset();
            openLocked(nullptr);
            return;
        }
    }
    // No backups, or the old file cannot be kept (another file system): start it afresh rather than let
    // it grow without end.
    if (::ftruncate(m_fd.get(), 0) == 0) {
        m_size = 0;
    }
}

long LogSink::appendLocked(std::string_view record)
{
    if (m_stderr) {
        return appendWhole(STDERR_FILENO, record, false);
    }
    if (!m_fd.valid()) {
        errno = EBADF;
        return -1;
    }
    if (m_maxSize > 0 && m_size > 0 && m_size + record.size() > m_maxSize) {
        rotateLocked();
        if (!m_fd.valid()) {
            return -1;
        }
    }
    const long n = appendWhole(m_fd.get(), record, true);
    if (n > 0) {
        m_size += static_cast<uint64_t>(n);
    }
    return n;
}

long LogSink::writeRecord(std::string_view record)
{
    std::lock_guard<std::mutex> lock(mutex_);
    return appendLocked(record);
}

LogFile::LogFile()
{
    try {
        auto sink = std::make_shared<LogSink>();
        auto logger = std::make_shared<spdlog::logger>("kuv", sink);
        logger->set_level(spdlog::level::trace); // LogFile filters before it formats
        logger->flush_on(spdlog::level::off);
        // A record that fails is reported to the caller by write(); nothing goes to stderr.
        logger->set_error_handler([](const std::string&) {});
        m_sink = std::move(sink);
        m_logger = std::move(logger);
    } catch (...) {
        m_sink.reset();
        m_logger.reset();
    }
}

LogFile::~LogFile() = default;

bool LogFile::open(const std::string& path, const std::string& backupDir, uint64_t maxSize, size_t backups,
                   std::string* error)
{
    try {
        if (m_sink == nullptr) {
            if (error != nullptr) {
                *error = "cannot open " + escapeControl(path) + ": out of memory";
            }
            return false;
        }
        return m_sink->open(path, backupDir, maxSize, backups, error);
    } catch (...) {
        errno = ENOMEM;
        return false;
    }
}

void LogFile::openStderr()
{
    if (m_sink != nullptr) {
        m_sink->openStderr();
    }
}

bool LogFile::isOpen() const
{
    return m_sink != nullptr && m_sink->isOpen();
}

void LogFile::close()
{
    if (m_sink != nullptr) {
        m_sink->close();
    }
}

long LogFile::writeRecord(std::string_view record)
{
    if (m_sink == nullptr) {
        errno = EBADF;
        return -1;
    }
    return m_sink->writeRecord(record);
}

long LogFile::write(LogLevel level, const char* source, const char* function, unsigned int line,
                    std::string_view message, size_t alreadyCut)
{
    if (!enabled(level)) {
        return 0;
    }
    if (m_logger == nullptr) {
        errno = EBADF;
        return -1;
    }
    try {
        thread_local std::string scratch;
        const std::string_view text = ruledMessage(message, alreadyCut, scratch);
        t_result = SinkResult{-1, ENOMEM}; // what stays when spdlog's error handler took the record
        m_logger->log(spdlog::source_loc{source, static_cast<int>(line), function}, toSpdlog(level),
                      spdlog::string_view_t(text.data(), text.size()));
        errno = t_result.error;
        return t_result.written;
    } catch (...) {
        errno = ENOMEM;
        return -1;
    }
}

bool formatLogMessage(std::string& text, size_t& cut, const char* format, va_list args)
{
    cut = 0;
    if (format == nullptr) {
        return false;
    }
    va_list copy;
    va_copy(copy, args);
    char small[1024];
    const int n = std::vsnprintf(small, sizeof small, format, copy);
    va_end(copy);
    if (n < 0) {
        return false;
    }
    if (static_cast<size_t>(n) < sizeof small) {
        text.assign(small, static_cast<size_t>(n));
        return true;
    }
    // Only what a record can carry is formatted; the rest is counted as cut.
    const size_t keep = std::min(static_cast<size_t>(n), 4 * kMaxLogMessage);
    std::vector<char> big(keep + 1);
    std::vsnprintf(big.data(), big.size(), format, args);
    text.assign(big.data(), keep);
    cut = static_cast<size_t>(n) - keep;
    return true;
}

int logPrintV(LogFile* log, _LOG_LEVEL level, const char* source, const char* function, unsigned int line,
              const char* format, va_list args)
{
    const auto kuvLevel = static_cast<LogLevel>(level);
    if (log == nullptr || !log->enabled(kuvLevel)) {
        return 0;
    }
    try {
        thread_local std::string text;
        size_t cut = 0;
        if (!formatLogMessage(text, cut, format, args)) {
            return 0;
        }
        const long n = log->write(kuvLevel, source, function, line, text, cut);
        return n > 0 ? static_cast<int>(n) : 0;
    } catch (...) {
        return 0;
    }
}

int logPrint(LogFile* log, _LOG_LEVEL level, const char* source, const char* function, unsigned int line,
             const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int n = logPrintV(log, level, source, function, line, format, args);
    va_end(args);
    return n;
}

} // namespace kuv
