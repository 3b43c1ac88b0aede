// SPDX-License-Identifier: GPL-2.0-or-later
// The log front end of platform code: a file declares its source once, then logs with KUV_LOG.
//
//   KUV_LOG_SOURCE("platform/guishell/ShellCore");
//   KUV_LOG(kuv::LogLevel::Info, "shown after %d ms", ms);
#pragma once

#include <cstdarg>

#include "CLogDebug.h"

namespace kuv {

// Same values as the service's LOG_LEVEL_* names, which stay for service code.
enum class LogLevel : int {
    Trace = LOG_LEVEL_TRACE,
    Debug = LOG_LEVEL_DEBUG,
    Info = LOG_LEVEL_INFO,
    Warn = LOG_LEVEL_WARN,
    Error = LOG_LEVEL_ERROR,
};

constexpr _LOG_LEVEL toLogLevel(LogLevel level) { return static_cast<_LOG_LEVEL>(level); }
constexpr _LOG_LEVEL toLogLevel(_LOG_LEVEL level) { return level; }

// The one table of level names: as records write them, and as messages to people say them.
struct LogLevelNames {
    const char* name;
    const char* word;
};
inline constexpr LogLevelNames kLogLevelNames[] = {
    {"TRACE", "trace"}, {"DEBUG", "debug"}, {"INFO", "info"}, {"WARN", "warning"}, {"ERROR", "error"},
};
// Numbers past either end count as the nearest level.
constexpr const LogLevelNames& logLevelNames(LogLevel level)
{
    const int index = static_cast<int>(level);
    return kLogLevelNames[index < LOG_LEVEL_TRACE ? LOG_LEVEL_TRACE : index > LOG_LEVEL_ERROR ? LOG_LEVEL_ERROR : index];
}
constexpr const char* logLevelName(LogLevel level) { return logLevelNames(level).name; }
constexpr const char* logLevelWord(LogLevel level) { return logLevelNames(level).word; }
// The bus module's interface numbers levels the other way round: 0 error .. 4 trace.
constexpr LogLevel fromBusLevel(int level)
{
    return level <= 0 ? LogLevel::Error : level >= 4 ? LogLevel::Trace : static_cast<LogLevel>(LOG_LEVEL_ERROR - level);
}

// Writes to log, or to the process log when log is null.
inline int logPrint(CLogDebug* log, _LOG_LEVEL level, const char* source, const char* function, unsigned int line,
                    const char* format, ...) __attribute__((format(printf, 6, 7)));
inline int logPrint(CLogDebug* log, _LOG_LEVEL level, const char* source, const char* function, unsigned int line,
                    const char* format, ...)
{
    CLogDebug* target = log != nullptr ? log : CLogDebug::Instance();
    if (!target->CheckLogLevel(level, 0)) {
        return 0;
    }
    va_list args;
    va_start(args, format);
    const int written = target->LogPrintV(level, source, function, line, format, args);
    va_end(args);
    return written;
}

} // namespace kuv

#define KUV_LOG_SOURCE(name) [[maybe_unused]] static constexpr const char* kKuvLogSource = name

// To the process log.
#define KUV_LOG(level, ...)                                                                                          \
    ::kuv::logPrint(nullptr, ::kuv::toLogLevel(level), kKuvLogSource, __func__, __LINE__, __VA_ARGS__)
// To another log (the bus log, a daemon's own log).
#define KUV_LOG_TO(log, level, ...)                                                                                  \
    ::kuv::logPrint((log), ::kuv::toLogLevel(level), kKuvLogSource, __func__, __LINE__, __VA_ARGS__)
