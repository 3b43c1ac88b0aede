// SPDX-License-Identifier: GPL-2.0-or-later
// A scan engine that hands open files to the system's clamd over its Unix socket (descriptor passing).
#pragma once

#include <memory>
#include <string>

#include "ScanEngine.h"

namespace kuv {
namespace scan {

struct ClamdOptions {
    int connectTimeoutMs = 5000;  // connecting and the first answer of the version check
    int scanTimeoutMs = 180000;   // longest wait for the verdict on one file
    int idleReuseMs = 10000;      // a pooled session idle for longer is closed, not reused
    unsigned maxPooled = 16;      // idle sessions kept open for reuse
    // Reuse connections with IDSESSION instead of one connection per file. Not faster with clamd 1.4:
    // 5,000 tiny files, one thread, five alternating runs took 1.24x the time of a connection per file
    // (bench_clamd_engine --mode sessions|perfile), so off by default.
    bool sessions = false;
};

// ScanLimits::maxFileSize is applied before sending; archive handling and every other limit are
// clamd's own configuration (it reports limits it hit when AlertExceedsMax is on).
// Null and error set when clamd cannot be reached at socketPath or does not answer like clamd.
std::unique_ptr<IScanEngine> makeClamdEngine(const std::string& socketPath, std::string& error);
std::unique_ptr<IScanEngine> makeClamdEngine(const std::string& socketPath, const ClamdOptions& options,
                                             std::string& error);

} // namespace scan
} // namespace kuv
