// SPDX-License-Identifier: GPL-2.0-or-later
#include "BFLog.h"

#include <cstdarg>

int BFLogPrintX(_LOG_LEVEL level, const char* file, const char* function, unsigned int line, const char* format, ...)
{
    CLogDebug* log = CLogDebug::Instance();
    if (log == nullptr) {
        return 0;
    }
    // Filtered lines are never formatted.
    if (!log->CheckLogLevel(level, 1)) {
        return 0;
    }
    va_list args;
    va_start(args, format);
    const int rc = log->LogPrintV(level, file, function, line, format, args);
    va_end(args);
    return rc;
}
