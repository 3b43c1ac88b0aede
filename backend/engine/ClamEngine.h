// SPDX-License-Identifier: GPL-2.0-or-later
// The libclamav scan engine: loaded once, kept warm, reloaded in the background when a database changes.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "KuvLog.h"
#include "ScanEngine.h"

struct cl_engine;

namespace kuv {
namespace scan {

struct ClamSettings {
    std::vector<std::string> dbDirs;     // loaded in this order; a directory that does not exist is left out
    uint64_t maxFileSize = 100ull << 20; // larger files are not scanned: "not fully scanned: MaxFileSize"
    uint64_t maxScanSize = 400ull << 20; // bytes looked at per file, archive contents included
    uint32_t maxRecursion = 17;          // archive nesting
    uint32_t maxFiles = 10000;           // files inside one archive
    uint32_t maxScanTimeMs = 120000;     // per file
};

class ClamEngine final : public IScanEngine {
public:
    explicit ClamEngine(ClamSettings settings);
    ~ClamEngine() override;

    // Loads every database directory into a fresh engine. The first load keeps what loads and names the
    // files that did not (so a broken file does not leave the user without protection); a later load
    // replaces the engine only when everything loaded, else the running engine stays and dbError says why.
    // Scans that run meanwhile keep the engine they started with. true when the engine was replaced.
    bool reload();
    bool ready() const;

    ScanResult scanFd(int fd, const std::string& path, const ScanLimits& limits,
                      const std::atomic<bool>* cancel) override;
    EngineInfo info() const override;

    // The directories worth watching for changes (existing ones).
    std::vector<std::string> watchDirs() const;

    // "Heuristics.Limits.Exceeded.MaxFileSize" -> "MaxFileSize"; empty for any other name.
    static std::string limitFromVirusName(const std::string& name);
    // Whether a directory entry is a database file libclamav reads.
    static bool isDatabaseFile(const std::string& name);

private:
    struct Loaded;
    std::shared_ptr<const Loaded> current() const;

    ClamSettings m_settings;
    mutable std::mutex m_mutex;
    std::shared_ptr<const Loaded> m_loaded; // swapped whole under m_mutex
    std::string m_dbError;
    std::mutex m_reloadMutex; // one load at a time
};

// Where libclamav's own messages go (debug, warning or error); any thread may call it.
using ClamLogSink = std::function<void(kuv::LogLevel level, const std::string& text)>;
void setClamLogSink(ClamLogSink sink);

// Fills error and returns null when libclamav cannot be initialised.
std::unique_ptr<ClamEngine> makeClamEngine(const ClamSettings& settings, std::string& error);

} // namespace scan
} // namespace kuv
