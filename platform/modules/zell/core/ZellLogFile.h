// SPDX-License-Identifier: GPL-2.0-or-later
// The bus module's log file: the shared rotating log file, with backups in a directory of their own.
#pragma once

#include <cstdint>
#include <string>

#include "KuvLogFile.h"

namespace zell {

// Writes whatever it is given: the module filters by level and category before it formats.
class LogFile : public kuv::LogFile {
public:
    LogFile() { setLevel(kuv::LogLevel::Trace); }

    // path: the log file; backupDir: where rotated files go (empty: beside the file), named
    // <stem>.1.log .. <stem>.<backups>.log. Parent directories are created.
    bool open(const std::string& path, const std::string& backupDir, uint64_t maxSize, int backups,
              std::string* error = nullptr)
    {
        return kuv::LogFile::open(path, backupDir, maxSize, backups < 0 ? 0 : static_cast<size_t>(backups), error);
    }
};

} // namespace zell
