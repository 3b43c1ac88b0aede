// SPDX-License-Identifier: GPL-2.0-or-later
// Settings of kuv-scand: DIR/etc/kuv-scand.conf (JSON) and the command line over it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kuv {
namespace scand {

struct Settings {
    std::string engine = "libclamav"; // or "clamd"
    std::string clamdSocket = "/run/clamav/clamd.ctl";
    std::string systemDbDir = "/var/lib/clamav";
    std::vector<std::string> extraDbDirs; // besides DIR/data/signatures/
    unsigned workers = 0;                 // 0: one per core
    uint64_t maxFileSize = 100ull << 20;
    uint64_t maxScanSize = 400ull << 20;
    uint32_t maxRecursion = 17;
    uint32_t maxFiles = 10000;
    uint32_t maxScanTimeMs = 120000;
    int reloadDelayMs = 1000; // quiet time after a database change before the reload
    int logLevel = 2;
    int logSize = 10 * 1024 * 1024;
    int logBackups = 3;
    std::string socket = "./kuv_zell";
};

// Reads the JSON object in text over settings; unknown keys are ignored. false with error for text that is
// not a JSON object or a value of the wrong type or range.
bool parseSettings(const std::string& text, Settings& settings, std::string& error);

} // namespace scand
} // namespace kuv
