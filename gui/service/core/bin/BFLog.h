// SPDX-License-Identifier: GPL-2.0-or-later
// The service's one log wrapper: level, source file, function and line, then a printf message.
//
// A file names its source once and logs through BF_LOG:
//   BF_LOG_SOURCE("gui/service/core/bin/CPluginMgr");
//   BF_LOG(LOG_LEVEL_INFO, "combo %s not support", combo.c_str());
#pragma once

#include "CLogDebug.h"

// Returns what the log service wrote, or 0 when the level is filtered or there is no log.
int BFLogPrintX(_LOG_LEVEL level, const char* file, const char* function, unsigned int line, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

#define BF_LOG_SOURCE(name) [[maybe_unused]] static constexpr const char* kBFLogSource = name

#define BF_LOG(level, ...) BFLogPrintX(level, kBFLogSource, __FUNCTION__, __LINE__, __VA_ARGS__)
