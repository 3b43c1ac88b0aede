// SPDX-License-Identifier: GPL-2.0-or-later
// The one record formatter and the one rotating log file of the platform: the process log (CLogDebug,
// staged), the bus module's log and the broker's log all write through it. Built on spdlog: a logger of
// its own per file, with one sink and one formatter of ours.
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

// A size-rotated log file that takes each record whole: a record never straddles two files, and what the
// disk cannot take (ENOSPC, EFBIG) is cut back so that no fragment is left. Files are created 0600, never
// through a symbolic link, in directories created 0700. Backups are <stem>.1.log .. <stem>.<N>.log;
// without backups the file starts afresh. Thread-safe; never throws.
// Direct (the default): one write(2) per record, in the file when write() returns.
// Staged (setStaged(true) before open): each record is copied into a private ring file beside the log,
// "<dir>/.<name>.stage", mapped shared, and a flusher thread appends them in batches about a millisecond
// after the first of a batch; it sleeps, with no timer, while there is nothing to write. Either way a killed process loses no
// record it wrote: a stage left behind is appended by the next open of the log, nothing twice. Only one
// LogFile uses a stage; a second writer of the same log, a stage that cannot be made, stderr and a forked
// child write directly. Records staged at exit() are appended before the process ends.
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
    // Appends what is staged, ends the flusher, closes the file.
    void close();

    // Whether the next open() stages records (default false).
    void setStaged(bool staged);
    // Whether records now go through a stage.
    bool staged() const;
    // Waits until every staged record is in the file; false with errno when the file refused some.
    bool flush();

    // Lowest level written (default Info).
    void setLevel(LogLevel level) { m_level.store(static_cast<int>(level), std::memory_order_relaxed); }
    bool enabled(LogLevel level) const
    {
        return static_cast<int>(level) >= m_level.load(std::memory_order_relaxed);
    }

    // Formats and writes one record when the level is enabled; the record's size, 0 when filtered out,
    // -1 with errno set when it could not be written. Staged, a record is written once it is in the
    // stage; a batch the file refused is reported (and this record dropped) by the next write.
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

// A printf'd message: in the caller's frame when it fits (most do), else on the heap. Kept on the
// stack rather than per thread: a record may come after the thread's own objects are gone (at exit).
struct LogMessageText {
    char small[1024];
    std::string big;
    std::string_view text;
    size_t cut = 0; // bytes left out: what does not fit a record
};
// printf into out. false on a bad format.
bool formatLogMessage(LogMessageText& out, const char* format, va_list args);

} // namespace kuv
