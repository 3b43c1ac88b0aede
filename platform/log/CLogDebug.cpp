// CLogDebug: one record per line, escaped, leveled, on a rotating file opened at the first write.
#include "CLogDebug.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include <spdlog/details/log_msg.h>
#include <spdlog/details/null_mutex.h>
#include <spdlog/formatter.h>
#include <spdlog/sinks/base_sink.h>

#include "FileUtils.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kDefaultSize = 1024 * 1024;
constexpr size_t kDefaultBackups = 5;
constexpr size_t kMaxBackups = 200000; // spdlog's own limit
constexpr int kDefaultLevel = LOG_LEVEL_INFO;

// Lines arrive fully formatted; the sink only appends the line feed.
class LineFormatter final : public spdlog::formatter {
public:
    void format(const spdlog::details::log_msg& msg, spdlog::memory_buf_t& dest) override
    {
        dest.append(msg.payload.data(), msg.payload.data() + msg.payload.size());
        dest.push_back('\n');
    }
    std::unique_ptr<spdlog::formatter> clone() const override { return std::make_unique<LineFormatter>(); }
};

// A size-rotated file that takes each record with one write(): a record is in the file whole or not
// at all, whatever the disk or the file size limit says (ENOSPC, EFBIG). Backups are NAME.1.log ..
// NAME.N.log beside the file; no backups means the file starts afresh. Files are created 0600 and
// never through a symbolic link.
class RecordFileSink final : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
public:
    RecordFileSink(std::string file, size_t maxSize, size_t backups)
        : m_file(std::move(file)), m_maxSize(maxSize), m_backups(backups)
    {
        openFile();
    }
    ~RecordFileSink() override
    {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }

protected:
    void sink_it_(const spdlog::details::log_msg& msg) override
    {
        spdlog::memory_buf_t formatted;
        formatter_->format(msg, formatted);
        const std::string record(formatted.data(), formatted.size());
        if (m_size > 0 && m_size + record.size() > m_maxSize) {
            rotate();
        }
        if (kuv::appendRecord(m_fd, record) < 0) {
            throw spdlog::spdlog_ex("cannot write " + m_file, errno);
        }
        m_size += record.size();
    }
    void flush_() override {}

private:
    std::string backupName(size_t index) const
    {
        std::string stem = m_file;
        if (stem.size() > 4 && stem.compare(stem.size() - 4, 4, ".log") == 0) {
            stem.resize(stem.size() - 4);
        }
        return stem + "." + std::to_string(index) + ".log";
    }

    void openFile()
    {
        const int fd = ::open(m_file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (fd < 0) {
            throw spdlog::spdlog_ex("cannot open " + m_file, errno);
        }
        struct stat st;
        if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
            ::close(fd);
            throw spdlog::spdlog_ex("cannot open " + m_file + ": not a regular file");
        }
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        m_fd = fd;
        m_size = static_cast<size_t>(st.st_size);
    }

    void rotate()
    {
        if (m_backups == 0) {
            if (::ftruncate(m_fd, 0) == 0) {
                m_size = 0;
            }
            return;
        }
        ::unlink(backupName(m_backups).c_str());
        for (size_t i = m_backups; i > 1; --i) {
            ::rename(backupName(i - 1).c_str(), backupName(i).c_str());
        }
        if (::rename(m_file.c_str(), backupName(1).c_str()) != 0) {
            // Cannot keep the old file: start it afresh rather than let it grow without end.
            if (::ftruncate(m_fd, 0) == 0) {
                m_size = 0;
            }
            return;
        }
        openFile();
    }

    std::string m_file;
    size_t m_maxSize;
    size_t m_backups;
    int m_fd = -1;
    size_t m_size = 0;
};

bool parseLong(const char* text, long long min, long long max, long long& out)
{
    if (text == nullptr) {
        return false;
    }
    std::string s = CStr::trim(text);
    if (s.empty()) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const long long v = std::strtoll(s.c_str(), &end, 10);
    if (errno != 0 || end == nullptr || *end != '\0' || v < min || v > max) {
        return false;
    }
    out = v;
    return true;
}

const char* levelName(int level)
{
    switch (level) {
    case LOG_LEVEL_TRACE:
        return "TRACE";
    case LOG_LEVEL_DEBUG:
        return "DEBUG";
    case LOG_LEVEL_INFO:
        return "INFO";
    case LOG_LEVEL_WARN:
        return "WARN";
    default:
        return level < LOG_LEVEL_TRACE ? "TRACE" : "ERROR";
    }
}

// "YYYY-MM-DD HH:MM:SS.mmm" in local time. The calendar part changes once a second, so it is kept per
// thread and only the milliseconds are written for each record.
std::string timestamp()
{
    struct Cache {
        std::time_t secs = -1;
        char text[64] = {0};
    };
    thread_local Cache cache;
    const auto now = std::chrono::system_clock::now();
    const std::time_t secs = std::chrono::system_clock::to_time_t(now);
    long ms =
        static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000);
    if (ms < 0) {
        ms = 0;
    }
    if (secs != cache.secs) {
        struct tm tmv;
        localtime_r(&secs, &tmv);
        std::snprintf(cache.text, sizeof cache.text, "%04d-%02d-%02d %02d:%02d:%02d.", tmv.tm_year + 1900,
                      tmv.tm_mon + 1, tmv.tm_mday, tmv.tm_hour, tmv.tm_min, tmv.tm_sec);
        cache.secs = secs;
    }
    std::string out(cache.text);
    out += static_cast<char>('0' + ms / 100);
    out += static_cast<char>('0' + ms / 10 % 10);
    out += static_cast<char>('0' + ms % 10);
    return out;
}

// "<pid>:<tid>" of the calling thread, made once per thread; a forked child makes its own afresh.
const std::string& processThreadIds()
{
    struct Ids {
        pid_t pid = -1;
        std::string text;
    };
    thread_local Ids ids;
    static std::atomic<pid_t> s_pid{::getpid()};
    static const bool s_atFork = [] {
        pthread_atfork(nullptr, nullptr, [] { s_pid.store(::getpid()); });
        return true;
    }();
    (void)s_atFork;
    const pid_t pid = s_pid.load(std::memory_order_relaxed);
    if (ids.pid != pid) {
        ids.pid = pid;
        ids.text = std::to_string(pid) + ':' + std::to_string(::gettid());
    }
    return ids.text;
}

std::string escaped(const char* text)
{
    return text == nullptr ? std::string() : kuv::escapeControl(text);
}

} // namespace

struct CLogDebug::Impl {
    std::mutex mutex;
    std::atomic<int> level{kDefaultLevel};
    std::string name;
    std::string path;
    size_t size = kDefaultSize;
    size_t backups = kDefaultBackups;
    std::unique_ptr<RecordFileSink> sink;
    bool haveReported = false;
    Clock::time_point lastReport;
    bool haveFailedOpen = false;
    Clock::time_point lastFailedOpen;

    // In a shared installation the user's log lives in the user's state directory.
    std::string fileName() const { return kuv::userStatePath(path) + name + ".log"; }

    void reset()
    {
        flush();
        sink.reset();
        level = kDefaultLevel;
        name.clear();
        path.clear();
        size = kDefaultSize;
        backups = kDefaultBackups;
        haveFailedOpen = false;
    }

    void flush()
    {
        if (!sink) {
            return;
        }
        try {
            sink->flush();
        } catch (...) {
        }
    }

    // At most one line a minute on stderr, whatever goes wrong and however often.
    void report(const std::string& what)
    {
        const auto now = Clock::now();
        if (haveReported && now - lastReport < std::chrono::minutes(1)) {
            return;
        }
        haveReported = true;
        lastReport = now;
        std::fprintf(stderr, "kuv log: %s\n", kuv::escapeControl(what).c_str());
    }

    bool open()
    {
        if (sink) {
            return true;
        }
        if (name.empty() || path.empty()) {
            return false;
        }
        // A failed open is retried at most once a second so a dead directory costs little.
        const auto now = Clock::now();
        if (haveFailedOpen && now - lastFailedOpen < std::chrono::seconds(1)) {
            return false;
        }
        const std::string file = fileName();
        std::string reason;
        const std::string dir = kuv::userStatePath(path);
        if (!CDir::mkpath(dir, 0700)) {
            reason = "cannot create log directory " + dir + ": " + std::strerror(errno);
        } else {
            try {
                sink = std::make_unique<RecordFileSink>(file, size, backups);
                sink->set_formatter(std::make_unique<LineFormatter>());
            } catch (const std::exception& e) {
                sink.reset();
                reason = e.what();
            } catch (...) {
                sink.reset();
                reason = "cannot open " + file;
            }
        }
        if (sink) {
            haveFailedOpen = false;
            return true;
        }
        haveFailedOpen = true;
        lastFailedOpen = now;
        report(reason);
        return false;
    }

    int write(const std::string& line)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!open()) {
            return 0;
        }
        try {
            spdlog::details::log_msg msg(spdlog::source_loc{}, spdlog::string_view_t(),
                                         spdlog::level::info, spdlog::string_view_t(line.data(), line.size()));
            sink->log(msg);
            sink->flush();
            return static_cast<int>(line.size() + 1);
        } catch (const std::exception& e) {
            report(std::string("cannot write ") + fileName() + ": " + e.what());
        } catch (...) {
            report("cannot write " + fileName());
        }
        // Start over with a fresh file at a later write.
        sink.reset();
        return 0;
    }
};

CLogDebug::CLogDebug() : m_impl(std::make_unique<Impl>()) {}

CLogDebug::~CLogDebug()
{
    if (m_impl) {
        std::lock_guard<std::mutex> lock(m_impl->mutex);
        m_impl->flush();
    }
}

namespace {
// Never freed: a thread that still logs during exit must not find it destroyed.
std::mutex g_instanceMutex;
CLogDebug* g_instance = nullptr;
} // namespace

CLogDebug* CLogDebug::Instance()
{
    std::lock_guard<std::mutex> lock(g_instanceMutex);
    if (g_instance == nullptr) {
        try {
            g_instance = new CLogDebug();
        } catch (...) {
            return nullptr;
        }
    }
    return g_instance;
}

void CLogDebug::Close()
{
    CLogDebug* log = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_instanceMutex);
        log = g_instance;
    }
    if (log != nullptr) {
        // Closed and reset in place, so a pointer another thread still holds stays valid.
        std::lock_guard<std::mutex> lock(log->m_impl->mutex);
        log->m_impl->reset();
    }
}

int CLogDebug::SetProperty(_LOG_PROPERTY property, const char* value)
{
    if (value == nullptr) {
        return 0;
    }
    Impl& d = *m_impl;
    std::lock_guard<std::mutex> lock(d.mutex);
    long long number = 0;
    switch (property) {
    case LOG_PROPERTY_NAME: {
        const std::string name(value);
        if (name.empty() || name.find('/') != std::string::npos || kuv::escapeControl(name) != name) {
            return 0;
        }
        if (name != d.name) {
            d.flush();
            d.sink.reset();
            d.haveFailedOpen = false;
            d.name = name;
        }
        return 1;
    }
    case LOG_PROPERTY_PATH: {
        std::string path(value);
        if (path.empty()) {
            return 0;
        }
        if (path.back() != '/') {
            path += '/';
        }
        if (path != d.path) {
            d.flush();
            d.sink.reset();
            d.haveFailedOpen = false;
            d.path = path;
        }
        return 1;
    }
    case LOG_PROPERTY_LEVEL:
        if (!parseLong(value, INT_MIN, INT_MAX, number)) {
            return 0;
        }
        d.level = static_cast<int>(number);
        return 1;
    case LOG_PROPERTY_SIZE:
        if (!parseLong(value, 1, LLONG_MAX, number)) {
            return 0;
        }
        if (static_cast<size_t>(number) != d.size) {
            d.flush();
            d.sink.reset(); // the sink takes its limits at construction
            d.size = static_cast<size_t>(number);
        }
        return 1;
    case LOG_PROPERTY_BACKUP:
        if (!parseLong(value, 0, static_cast<long long>(kMaxBackups), number)) {
            return 0;
        }
        if (static_cast<size_t>(number) != d.backups) {
            d.flush();
            d.sink.reset();
            d.backups = static_cast<size_t>(number);
        }
        return 1;
    }
    return 0;
}

bool CLogDebug::CheckLogLevel(_LOG_LEVEL level, int /*unused*/)
{
    return static_cast<int>(level) >= m_impl->level.load(std::memory_order_relaxed);
}

int CLogDebug::LogPrintV(_LOG_LEVEL level, const char* file, const char* function, unsigned int line,
                         const char* format, va_list args)
{
    if (format == nullptr || !CheckLogLevel(level, 0)) {
        return 0;
    }
    try {
        va_list copy;
        va_copy(copy, args);
        char small[1024];
        const int n = std::vsnprintf(small, sizeof small, format, copy);
        va_end(copy);
        if (n < 0) {
            return 0;
        }
        if (static_cast<size_t>(n) < sizeof small) {
            return LogPrintStr(level, file, function, line, small);
        }
        // Only what a record can carry is formatted; the rest is counted as cut.
        const size_t keep = std::min(static_cast<size_t>(n), 4 * kuv::kMaxLogMessage);
        std::vector<char> big(keep + 1);
        std::vsnprintf(big.data(), big.size(), format, args);
        return printRecord(level, file, function, line, std::string(big.data(), keep), static_cast<size_t>(n) - keep);
    } catch (...) {
        return 0;
    }
}

int CLogDebug::LogPrint(_LOG_LEVEL level, const char* file, const char* function, unsigned int line,
                        const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int n = LogPrintV(level, file, function, line, format, args);
    va_end(args);
    return n;
}

int CLogDebug::LogPrintStr(_LOG_LEVEL level, const char* file, const char* function, unsigned int line,
                           const char* text)
{
    if (text == nullptr || !CheckLogLevel(level, 0)) {
        return 0;
    }
    try {
        return printRecord(level, file, function, line, std::string(text), 0);
    } catch (...) {
        return 0;
    }
}

int CLogDebug::printRecord(_LOG_LEVEL level, const char* file, const char* function, unsigned int line,
                           const std::string& text, size_t alreadyCut)
{
    try {
        const std::string message = kuv::logMessage(text, kuv::kMaxLogMessage, alreadyCut);
        std::string record;
        record.reserve(message.size() + 128);
        record += '[';
        record += timestamp();
        record += "] [";
        record += processThreadIds();
        record += "] [";
        record += levelName(level);
        record += "] [";
        record += escaped(file);
        record += ':';
        record += escaped(function);
        record += ':';
        record += std::to_string(line);
        record += "] ";
        record += message;
        return m_impl->write(record);
    } catch (...) {
        return 0;
    }
}

void CLogDebug::Flush()
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->flush();
}

CLogDebug* LogInit(const char* name)
{
    CLogDebug* log = nullptr;
    try {
        log = new CLogDebug();
    } catch (...) {
        return nullptr;
    }
    if (name != nullptr && name[0] != '\0') {
        log->SetProperty(LOG_PROPERTY_NAME, name);
    }
    return log;
}

void LogUninit(CLogDebug* log)
{
    delete log;
}

int LogPrintStrEx(CLogDebug* log, _LOG_LEVEL level, const char* file, const char* function, unsigned int line,
                  const char* text)
{
    return log == nullptr ? 0 : log->LogPrintStr(level, file, function, line, text);
}
