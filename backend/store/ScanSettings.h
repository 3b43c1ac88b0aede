// SPDX-License-Identifier: GPL-2.0-or-later
// The user's scan settings in $XDG_CONFIG_HOME/kuv/scan.json (0600), read afresh for every job.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kuv {
namespace store {

struct ScanSettings {
    std::vector<std::string> excluded; // folders (exact bytes) never scanned
    uint64_t maxFileSize = 100ull * 1024 * 1024; // bytes; 0 = the engine's default
    bool scanArchives = true;
    bool useClamd = false;
    std::string clamdSocket = "/run/clamav/clamd.ctl";
    int historyDays = 90; // 0 keeps history for ever
};

// Path of scan.json in dir (userConfigDir() when empty).
std::string scanSettingsPath(const std::string& dir = std::string());
// Missing file: defaults, true. Unreadable or malformed: defaults for what cannot be used, false
// with *error saying why; keys this version does not know are ignored.
bool loadScanSettings(ScanSettings& out, std::string* error = nullptr, const std::string& dir = std::string());
// Written whole (temporary file, fsync, rename), mode 0600.
bool saveScanSettings(const ScanSettings& settings, std::string* error = nullptr, const std::string& dir = std::string());

} // namespace store
} // namespace kuv
