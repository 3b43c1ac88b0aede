// SPDX-License-Identifier: GPL-2.0-or-later
// What the back end asks of a scan engine: verdicts for open files, and what the engine is.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace kuv {
namespace scan {

enum class Verdict {
    Clean,
    Infected, // signature names what was found
    Partial,  // a limit cut the scan short; reason is "not fully scanned: <limit>"
    Error,    // reason says why ("permission denied", "vanished", "engine: ...")
    Skipped,  // never opened for reading (FIFO, socket, device, excluded); reason says which
};

struct ScanResult {
    Verdict verdict = Verdict::Error;
    std::string signature;
    std::string reason;
    uint64_t bytesScanned = 0;
};

// Per-job limits; 0 means the engine's default.
struct ScanLimits {
    uint64_t maxFileSize = 0;
    bool scanArchives = true;
};

struct EngineInfo {
    std::string engine;        // "libclamav" or "clamd"
    std::string engineVersion; // e.g. "1.0.7"
    std::string dbVersion;     // daily database version, or empty
    uint64_t signatures = 0;
    int64_t dbTime = 0;        // unix seconds of the newest database, 0 when unknown
    std::string dbError;       // why the last (re)load failed; empty when it did not
};

class IScanEngine {
public:
    virtual ~IScanEngine() = default;
    // Scans the regular file open read-only at fd; path is for reporting only. Safe to call from several
    // threads at once. Returns early with Verdict::Error, reason "cancelled", once cancel becomes true.
    virtual ScanResult scanFd(int fd, const std::string& path, const ScanLimits& limits,
                              const std::atomic<bool>* cancel) = 0;
    virtual EngineInfo info() const = 0;
};

} // namespace scan
} // namespace kuv
