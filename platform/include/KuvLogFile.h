// SPDX-License-Identifier: GPL-2.0-or-later
// The one record formatter and the one rotating log file of the platform: the process log (CLogDebug),
// the bus module's log and the broker's log all write through it. Built on spdlog: a logger of its own
// per file, with one sink and one formatter of ours.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "KuvLog.h"

namespace spdlog {
class logger;
}

namespace kuv {

// Appends one record with its final line feed to out:
//   [2026-11-21 05:21:00.123] [<pid>:<tid>] [INFO] [<source>:<function>:<line>] <message>
// The message is escaped and capped by the log rule (kuv::logMessage); alreadyCut counts bytes the caller
// cut off before. Source and function are escaped too.
void formatLogRecord(std::string& out, LogLevel level, const char* source, const char* function, unsigned int line,
                     std::string_view message, size_t alreadyCut = 0);

// A size-rotated log file that takes each record whole: one write(2) per record, and a record the disk
// cannot take (ENOSPC, EFBIG) is cut back so that no fragment is left. Files are created 0600, never
// through a symbolic link, in directories created 0700. Backups are <stem>.1.log .. <stem>.<N>.log;
// without backups the file starts afresh. Nothing is buffered in the process, so a killed process loses
// no record it wrote. Thread-safe; never throws.
class LogSink;
class LogFile {
public:
    LogFile();
    ~LogFile();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    // path: the file; backupDir: where backups go (empty: beside the file); maxSize 0: never rotated.
    // false (and error) when the file cannot be opened; the caller goes on without a file log.
    bool open(const std::string& path, const std::string& backupDir, uint64_t maxSize, size_t backups,
              std::string* error = nullptr);
    // Records go to stderr (daemons in the foreground); never rotated.
    void openStderr();
    bool isOpen() const;
    void close();

    // Lowest level written (default Info).
    void setLevel(LogLevel level) { m_level.store(static_cast<int>(level), std::memory_order_relaxed); }
    bool enabled(LogLevel level) const
    {
        return static_cast<int>(level) >= m_level.load(std::memory_order_relaxed);
    }

    // Formats and writes one record when the level is enabled; the record's size, 0 when filtered out,
    // -1 with errno set when it could not be written.
    long write(LogLevel level, const char* source, const char* function, unsigned int line,
               std::string_view message, size_t alreadyCut = 0);
    // Writes one formatted record (with its line feed) whatever the level.
    long writeRecord(std::string_view record);

private:
    // Null only when they could not be made (out of memory): then nothing is written.
    std::shared_ptr<LogSink> m_sink;
    std::shared_ptr<spdlog::logger> m_logger; // not in spdlog's registry: private to this file
    std::atomic<int> m_level{static_cast<int>(LogLevel::Info)};
};

// The KUV_LOG_TO front end for a LogFile (daemons that own their log).
int logPrint(LogFile* log, _LOG_LEVEL level, const char* source, const char* function, unsigned int line,
             const char* format, ...) __attribute__((format(printf, 6, 7)));
int logPrintV(LogFile* log, _LOG_LEVEL level, const char* source, const char* function, unsigned int line,
              const char* format, va_list args);

// printf into text; what does not fit a record is left out and counted in cut. false on a bad format.
bool formatLogMessage(std::string& text, size_t& cut, const char* format, va_list args);

} // namespace kuv
