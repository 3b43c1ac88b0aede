// SPDX-License-Identifier: GPL-2.0-or-later
// CLogDebug: the process log and the service's other logs, on the shared rotating log file, opened at
// the first write. Staged: a record costs a copy into the stage, not a system call, and still survives a
// killed process.
#include "CLogDebug.h"

#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "FileUtils.h"
#include "KuvLogFile.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kDefaultSize = 1024 * 1024;
constexpr size_t kDefaultBackups = 5;
constexpr size_t kMaxBackups = 200000; // a rotation renames every backup
constexpr int kDefaultLevel = LOG_LEVEL_INFO;

bool parseLong(const char* text, long long min, long long max, long long& out)
{
    if (text == nullptr) {
        return false;
    }
    const std::string s = CStr::trim(text);
    long long v = 0;
    const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (s.empty() || ec != std::errc() || end != s.data() + s.size() || v < min || v > max) {
        return false;
    }
    out = v;
    return true;
}

} // namespace

struct CLogDebug::Impl {
    std::mutex mutex;
    bool staged = true; // see SetStaged
    std::atomic<int> level{kDefaultLevel};
    std::string name;
    std::string path;
    size_t size = kDefaultSize;
    size_t backups = kDefaultBackups;
    kuv::LogFile file;
    bool isOpen = false;
    bool haveReported = false;
    Clock::time_point lastReport;
    bool haveFailedOpen = false;
    Clock::time_point lastFailedOpen;

    // Closed; opened again with the current properties at the next write.
    void closeFile()
    {
        file.close();
        isOpen = false;
        haveFailedOpen = false;
    }

    void reset()
    {
        closeFile();
        level = kDefaultLevel;
        name.clear();
        path.clear();
        size = kDefaultSize;
        backups = kDefaultBackups;
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
        if (isOpen) {
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
        std::string reason;
        // The file sets no level of its own: CLogDebug filters before it formats.
        file.setLevel(kuv::LogLevel::Trace);
        file.setStaged(staged);
        isOpen = file.open(path + name + ".log", std::string(), size, backups, &reason);
        haveFailedOpen = !isOpen;
        if (!isOpen) {
            lastFailedOpen = now;
            report(reason);
        }
        return isOpen;
    }

    int write(_LOG_LEVEL level, const char* file, const char* function, unsigned int line, std::string_view text,
              size_t alreadyCut)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!open()) {
            return 0;
        }
        const long n = this->file.write(static_cast<kuv::LogLevel>(level), file, function, line, text, alreadyCut);
        if (n > 0) {
            return static_cast<int>(n);
        }
        const int why = errno;
        report("cannot write " + kuv::userStatePath(path + name + ".log") + ": " + std::strerror(why));
        // Start over with a fresh file at a later write.
        this->file.close();
        isOpen = false;
        return 0;
    }
};

CLogDebug::CLogDebug() : m_impl(std::make_unique<Impl>()) {}

// The file appends what is staged when it closes.
CLogDebug::~CLogDebug() = default;

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
            d.closeFile();
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
            d.closeFile();
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
            d.closeFile(); // the file takes its limits when it opens
            d.size = static_cast<size_t>(number);
        }
        return 1;
    case LOG_PROPERTY_BACKUP:
        if (!parseLong(value, 0, static_cast<long long>(kMaxBackups), number)) {
            return 0;
        }
        if (static_cast<size_t>(number) != d.backups) {
            d.closeFile();
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
        kuv::LogMessageText message;
        if (!kuv::formatLogMessage(message, format, args)) {
            return 0;
        }
        return printRecord(level, file, function, line, message.text, message.cut);
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
        return printRecord(level, file, function, line, text, 0);
    } catch (...) {
        return 0;
    }
}

int CLogDebug::printRecord(_LOG_LEVEL level, const char* file, const char* function, unsigned int line,
                           std::string_view text, size_t alreadyCut)
{
    try {
        return m_impl->write(level, file, function, line, text, alreadyCut);
    } catch (...) {
        return 0;
    }
}

void CLogDebug::SetStaged(bool staged)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->staged = staged;
}

// Every record written so far is in the file when Flush returns.
void CLogDebug::Flush()
{
    Impl& d = *m_impl;
    std::lock_guard<std::mutex> lock(d.mutex);
    if (d.isOpen && !d.file.flush()) {
        const int why = errno;
        d.report("cannot write " + kuv::userStatePath(d.path + d.name + ".log") + ": " + std::strerror(why));
        d.file.close();
        d.isOpen = false;
    }
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
