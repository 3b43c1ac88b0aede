// The service's one log wrapper: level, source file, function and line, then a printf message.
#pragma once

#include "CLogDebug.h"

// Returns what the log service wrote, or 0 when the level is filtered or there is no log.
int BFLogPrintX(_LOG_LEVEL level, const char* file, const char* function, unsigned int line, const char* format, ...)
    __attribute__((format(printf, 5, 6)));
