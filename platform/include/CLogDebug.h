// SPDX-License-Identifier: GPL-2.0-or-later
// The log service: leveled, rotating log files; never throws into the caller.
#pragma once

#include "KuvExport.h"

#include <cstdarg>
#include <memory>
#include <string>
#include <string_view>

enum _LOG_LEVEL {
    LOG_LEVEL_TRACE = 0,
    LOG_LEVEL_DEBUG = 1,
    LOG_LEVEL_INFO = 2,
    LOG_LEVEL_WARN = 3,
    LOG_LEVEL_ERROR = 4,
};

enum _LOG_PROPERTY {
    LOG_PROPERTY_NAME = 1,   // file name without ".log"
    LOG_PROPERTY_PATH = 2,   // directory
    LOG_PROPERTY_LEVEL = 4,  // lowest level written, decimal text
    LOG_PROPERTY_SIZE = 8,   // bytes per file, decimal text
    LOG_PROPERTY_BACKUP = 16 // number of backups kept, decimal text
};

class KUV_EXPORT CLogDebug {
public:
    // The process log.
    static CLogDebug* Instance();
    // Flushes and closes the process log; a later Instance() starts a fresh one.
    static void Close();

    CLogDebug();
    ~CLogDebug();
    CLogDebug(const CLogDebug&) = delete;
    CLogDebug& operator=(const CLogDebug&) = delete;

    // Property values are text; returns 1 when taken, 0 for an unknown property or bad value.
    int SetProperty(_LOG_PROPERTY property, const char* value);
    // Whether a line of this level would be written; the int argument is unused.
    bool CheckLogLevel(_LOG_LEVEL level, int unused);
    // printf-style; returns the number of bytes written, 0 when nothing was written.
    int LogPrintV(_LOG_LEVEL level, const char* file, const char* function, unsigned int line, const char* format,
                  va_list args);
    int LogPrint(_LOG_LEVEL level, const char* file, const char* function, unsigned int line, const char* format, ...)
        __attribute__((format(printf, 6, 7)));
    // Writes text as it is (escaped, one record).
    int LogPrintStr(_LOG_LEVEL level, const char* file, const char* function, unsigned int line, const char* text);
    void Flush();
    // Staged (the default): a record costs a copy into a mapped stage file that a flusher thread appends
    // to the log. A process that forks workers keeps its log direct, one write per record: a child must
    // not be forked while a flusher thread of its parent is busy. Before the first record.
    void SetStaged(bool staged);

private:
    int printRecord(_LOG_LEVEL level, const char* file, const char* function, unsigned int line,
                    std::string_view text, size_t alreadyCut);

    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

// Independent logs besides the process log (the bus log is one).
KUV_EXPORT CLogDebug* LogInit(const char* name);
KUV_EXPORT void LogUninit(CLogDebug* log);
KUV_EXPORT int LogPrintStrEx(CLogDebug* log, _LOG_LEVEL level, const char* file, const char* function, unsigned int line,
                  const char* text);
