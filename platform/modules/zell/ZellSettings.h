// SPDX-License-Identifier: GPL-2.0-or-later
// The settings document handed to IZellClientMgr::init.
#pragma once

#include <cstdint>
#include <string>

namespace zell {

struct Settings {
    std::string logPath;       // "log_path": the module's own log file; empty: no file log
    std::string logBackupPath; // "log_backup_path": directory of rotated log files; empty: beside the log
    std::string socketAddr = "./kuv_zell";
    int threadNums = 1;                  // threads that may call receivers at once, 1..64
    int logLevel = 2;                    // 0 errors only .. 4 everything
    uint64_t logSize = 10u * 1024 * 1024; // bytes per log file
};

// Every key is optional; a key of the wrong type or out of range makes the whole document unusable.
bool parseSettings(const char* text, Settings& out, std::string& error);

} // namespace zell
